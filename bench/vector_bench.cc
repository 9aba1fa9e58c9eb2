// AppendBuffer into a vector array next to std::vector::insert of the same buffer, and one-by-one
// Append next to std::vector::push_back and the floors of one_by_one.h (an empty and a
// store-only virtual Append through the same interface). Compare the bytes/s or items/s
// columns of one group.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <vector>

#include "bench/one_by_one.h"
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

void BM_StdVectorPushBack(benchmark::State& state) {
  zu_bench::RunPushBack<std::vector<int64_t>>(state, state.range(0));
}

void BM_VectorArrayAppend(benchmark::State& state) {
  CArrayFactory factory;
  zu_bench::RunArrayAppend(state, state.range(0),
                           [&factory] { return factory.AllocVectorArray(8); });
}

void BM_FloorEmptyAppend(benchmark::State& state) {
  zu_bench::RunEmptyFloor(state, state.range(0));
}
void BM_FloorStoreAppend(benchmark::State& state) {
  zu_bench::RunStoreFloor(state, state.range(0));
}

void OneByOneSizes(benchmark::internal::Benchmark* b) {
  b->Arg(65536)->Arg(4194304)->Arg(10'000'000)->Unit(benchmark::kMicrosecond);
}

}  // namespace

BENCHMARK(BM_StdVectorInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorArrayAppendBuffer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdVectorPushBack)->Apply(OneByOneSizes);
BENCHMARK(BM_VectorArrayAppend)->Apply(OneByOneSizes);
BENCHMARK(BM_FloorEmptyAppend)->Apply(OneByOneSizes);
BENCHMARK(BM_FloorStoreAppend)->Apply(OneByOneSizes);
BENCHMARK_MAIN();
