// std::xdeque::push_back with 1 MiB blocks next to std::deque::push_back, and AppendBuffer into
// a deque array next to appending the same elements one by one. Compare the items/s columns of
// each pair.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <numeric>
#include <vector>

#include "src/memory/deque_array.h"
#include "src/memory/xdeque.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr int64_t kPushes = 20'000'000;

template <typename T>
void BM_XdequePushBack(benchmark::State& state) {
  for (auto _ : state) {
    std::xdeque<T, zu::kDequeBlockBytes / sizeof(T)> d;
    for (int64_t i = 0; i < kPushes; ++i) d.push_back(static_cast<T>(i));
    benchmark::DoNotOptimize(d.back());
  }
  state.SetItemsProcessed(state.iterations() * kPushes);
}

template <typename T>
void BM_StdDequePushBack(benchmark::State& state) {
  for (auto _ : state) {
    std::deque<T> d;
    for (int64_t i = 0; i < kPushes; ++i) d.push_back(static_cast<T>(i));
    benchmark::DoNotOptimize(d.back());
  }
  state.SetItemsProcessed(state.iterations() * kPushes);
}

constexpr int64_t kAppends = 50'000'000;

const std::vector<int64_t>& Source() {
  static const std::vector<int64_t> source = [] {
    std::vector<int64_t> v(kAppends);
    std::iota(v.begin(), v.end(), int64_t{0});
    return v;
  }();
  return source;
}

void BM_DequeArrayAppendBuffer(benchmark::State& state) {
  const auto& src = Source();
  CArrayFactory factory;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocDequeArray(sizeof(int64_t)));
    if (a->AppendBuffer(src.data(), src.size()) != kZuOk) state.SkipWithError("append failed");
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}

void BM_DequeArrayAppendEach(benchmark::State& state) {
  const auto& src = Source();
  CArrayFactory factory;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocDequeArray(sizeof(int64_t)));
    for (const int64_t& v : src) {
      if (a->Append(&v) != kZuOk) state.SkipWithError("append failed");
    }
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}

BENCHMARK_TEMPLATE(BM_XdequePushBack, uint32_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_StdDequePushBack, uint32_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_XdequePushBack, int64_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_StdDequePushBack, int64_t)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DequeArrayAppendBuffer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DequeArrayAppendEach)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
