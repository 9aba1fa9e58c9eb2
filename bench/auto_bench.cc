// The self-spilling arrays next to what a host would use instead:
//  * one-by-one Append in the memory phase next to std::deque / std::vector push_back and the
//    floors of one_by_one.h (an empty and a store-only virtual Append through the same
//    interface), at 65536, 4194304 and 8000000 elements (all below the spill threshold);
//    run with --benchmark_enable_random_interleaving=true --benchmark_repetitions=N;
//  * the move into files at the threshold next to AppendBuffer of the same elements into a
//    fresh file array;
//  * a long run of single appends that lives in files, reporting elements per second before
//    and after the move and the anonymous resident memory at the end (ZU_BENCH_LONG_COUNT
//    sets its length; the default is small enough for a quick run).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "bench/one_by_one.h"
#include "src/auto/auto_array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

// A data directory under the system temp dir, removed with everything in it.
class BenchDir {
 public:
  BenchDir() {
    path_ = std::filesystem::temp_directory_path() / ("zu-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path_);
    IZUArray::SetDataDirectory(path_.wstring());
  }
  ~BenchDir() {
    IZUArray::SetDataDirectory(L"");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

 private:
  std::filesystem::path path_;
};

// Resident anonymous memory of this process in KiB (RssAnon of /proc/self/status).
long AnonymousResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("RssAnon:", 0) == 0) return std::strtol(line.c_str() + 8, nullptr, 10);
  }
  return -1;
}

template <typename Container>
void BM_StdPushBack(benchmark::State& state) {
  zu_bench::RunPushBack<Container>(state, state.range(0));
}

void BM_FloorEmptyAppend(benchmark::State& state) {
  zu_bench::RunEmptyFloor(state, state.range(0));
}
void BM_FloorStoreAppend(benchmark::State& state) {
  zu_bench::RunStoreFloor(state, state.range(0));
}

// A fresh array each iteration, as a fresh container is built for the peers. Every size
// stays below the spill threshold.
template <bool kVectorFlavour>
void BM_AutoAppendInMemory(benchmark::State& state) {
  CArrayFactory factory;
  zu_bench::RunArrayAppend(state, state.range(0), [&factory] {
    return kVectorFlavour ? factory.AllocAutoVectorArray(8) : factory.AllocAutoDequeArray(8);
  });
  state.SetLabel(kVectorFlavour ? "auto vector" : "auto deque");
}

void MemoryPhaseSizes(benchmark::internal::Benchmark* b) {
  b->Arg(65536)->Arg(4194304)->Arg(8'000'000)->Unit(benchmark::kMicrosecond);
}

const std::vector<int64_t>& ThresholdSource() {
  static const std::vector<int64_t> source = [] {
    std::vector<int64_t> v(zu::kSpillThreshold);
    std::iota(v.begin(), v.end(), int64_t{0});
    return v;
  }();
  return source;
}

// The move alone: an auto array holding the threshold, then the append that moves it.
void BM_AutoSpillAtThreshold(benchmark::State& state) {
  BenchDir dir;
  const auto& src = ThresholdSource();
  CArrayFactory factory;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<IZUArray> a(factory.AllocAutoDequeArray(8));
    a->AppendBuffer(src.data(), src.size() - 1);
    a->Append(&src.back());
    int64_t next = src.back() + 1;
    state.ResumeTiming();
    if (a->Append(&next) != kZuOk) state.SkipWithError("spill failed");
    state.PauseTiming();
    a.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * src.size() * sizeof(int64_t));
}

void BM_FileArrayAppendBufferSameData(benchmark::State& state) {
  BenchDir dir;
  const auto& src = ThresholdSource();
  CArrayFactory factory;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocFileArray(8));
    if (a->AppendBuffer(src.data(), src.size()) != kZuOk) state.SkipWithError("append failed");
    state.PauseTiming();
    a.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * src.size() * sizeof(int64_t));
}

// Single appends well past the threshold; rates before and after the move, and the
// anonymous memory once the array lives in files.
void BM_AutoLongRun(benchmark::State& state) {
  BenchDir dir;
  const char* env = std::getenv("ZU_BENCH_LONG_COUNT");
  const int64_t total = env != nullptr ? std::atoll(env) : 64'000'000;
  CArrayFactory factory;
  double memory_rate = 0, file_rate = 0;
  long anon_kib = 0;
  for (auto _ : state) {
    std::unique_ptr<IZUArray> a(factory.AllocAutoDequeArray(8));
    auto start = std::chrono::steady_clock::now();
    int64_t i = 0;
    for (; i < static_cast<int64_t>(zu::kSpillThreshold); ++i) a->Append(&i);
    auto moved = std::chrono::steady_clock::now();
    for (; i < total; ++i) {
      if (a->Append(&i) != kZuOk) {
        state.SkipWithError("append failed");
        break;
      }
    }
    auto end = std::chrono::steady_clock::now();
    memory_rate = zu::kSpillThreshold / std::chrono::duration<double>(moved - start).count();
    file_rate = (total - zu::kSpillThreshold) / std::chrono::duration<double>(end - moved).count();
    anon_kib = AnonymousResidentKiB();
  }
  state.counters["elements"] = static_cast<double>(total);
  state.counters["memory_phase_per_s"] = memory_rate;
  state.counters["file_phase_per_s"] = file_rate;
  state.counters["anon_rss_MiB"] = anon_kib / 1024.0;
}

}  // namespace

BENCHMARK_TEMPLATE(BM_StdPushBack, std::deque<int64_t>)->Apply(MemoryPhaseSizes);
BENCHMARK_TEMPLATE(BM_AutoAppendInMemory, false)->Apply(MemoryPhaseSizes);
BENCHMARK_TEMPLATE(BM_StdPushBack, std::vector<int64_t>)->Apply(MemoryPhaseSizes);
BENCHMARK_TEMPLATE(BM_AutoAppendInMemory, true)->Apply(MemoryPhaseSizes);
BENCHMARK(BM_FloorEmptyAppend)->Apply(MemoryPhaseSizes);
BENCHMARK(BM_FloorStoreAppend)->Apply(MemoryPhaseSizes);
BENCHMARK(BM_AutoSpillAtThreshold)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FileArrayAppendBufferSameData)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_AutoLongRun)->Unit(benchmark::kSecond)->Iterations(1);
BENCHMARK_MAIN();
