// One-by-one appends into the deque array next to std::deque::push_back, side by side at a
// size that stays in cache (65536) and at one that does not (4194304), with the floors of
// one_by_one.h: an empty virtual Append and a store-only virtual Append through the same
// IZUArray interface. Compare the items/s columns of one size; run with
// --benchmark_enable_random_interleaving=true --benchmark_repetitions=N for steadier ratios.
//
// Also xdeque::push_back inlined (1 MiB blocks) next to std::deque, and AppendBuffer into a
// deque array (copied block by block) next to appending the same elements one by one.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <numeric>
#include <vector>

#include "bench/one_by_one.h"
#include "src/memory/deque_array.h"
#include "src/memory/xdeque.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

template <typename Container>
void BM_PushBack(benchmark::State& state) {
  zu_bench::RunPushBack<Container>(state, state.range(0));
}

template <typename T>
using Xdeque = std::xdeque<T, zu::kDequeBlockBytes / sizeof(T)>;

void BM_FloorEmptyAppend(benchmark::State& state) {
  zu_bench::RunEmptyFloor(state, state.range(0));
}
void BM_FloorStoreAppend(benchmark::State& state) {
  zu_bench::RunStoreFloor(state, state.range(0));
}

// A fresh array each iteration, as a fresh std::deque is built for the peer.
void BM_DequeArrayAppend(benchmark::State& state) {
  CArrayFactory factory;
  zu_bench::RunArrayAppend(state, state.range(0),
                           [&factory] { return factory.AllocDequeArray(sizeof(int64_t)); });
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

void Sizes(benchmark::internal::Benchmark* b) {
  b->Arg(65536)->Arg(4194304)->Unit(benchmark::kMicrosecond);
}

BENCHMARK_TEMPLATE(BM_PushBack, std::deque<int64_t>)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_PushBack, Xdeque<int64_t>)->Apply(Sizes);
BENCHMARK(BM_FloorEmptyAppend)->Apply(Sizes);
BENCHMARK(BM_FloorStoreAppend)->Apply(Sizes);
BENCHMARK(BM_DequeArrayAppend)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_PushBack, std::deque<uint32_t>)
    ->Arg(20'000'000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_PushBack, Xdeque<uint32_t>)->Arg(20'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DequeArrayAppendBuffer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DequeArrayAppendEach)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
