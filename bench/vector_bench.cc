// AppendBuffer into a vector array next to std::vector::insert of the same buffer, and one-by-one
// Append next to std::vector::push_back. Compare the bytes/s columns of each pair.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr int64_t kElements = 100'000'000;

const std::vector<int64_t>& Source() {
  static const std::vector<int64_t> source = [] {
    std::vector<int64_t> v(kElements);
    std::iota(v.begin(), v.end(), int64_t{0});
    return v;
  }();
  return source;
}

void BM_StdVectorInsert(benchmark::State& state) {
  const auto& src = Source();
  for (auto _ : state) {
    std::vector<int64_t> v;
    v.insert(v.end(), src.begin(), src.end());
    benchmark::DoNotOptimize(v.data());
  }
  state.SetBytesProcessed(state.iterations() * kElements * sizeof(int64_t));
}

void BM_VectorArrayAppendBuffer(benchmark::State& state) {
  const auto& src = Source();
  CArrayFactory factory;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocVectorArray(8));
    if (a->AppendBuffer(src.data(), src.size()) != kZuOk) state.SkipWithError("append failed");
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetBytesProcessed(state.iterations() * kElements * sizeof(int64_t));
}

constexpr int64_t kOneByOne = 10'000'000;

void BM_StdVectorPushBack(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<int64_t> v;
    for (int64_t i = 0; i < kOneByOne; ++i) v.push_back(i);
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * kOneByOne);
}

void BM_VectorArrayAppend(benchmark::State& state) {
  CArrayFactory factory;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocVectorArray(8));
    for (int64_t i = 0; i < kOneByOne; ++i) a->Append(&i);
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetItemsProcessed(state.iterations() * kOneByOne);
}

}  // namespace

BENCHMARK(BM_StdVectorInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorArrayAppendBuffer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdVectorPushBack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorArrayAppend)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
