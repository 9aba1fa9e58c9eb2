// The file array next to its peers in the same run:
//  * AppendBuffer of 1 GiB of int64_t into a file array against plain pwrite of the same bytes
//    to a file in the same directory; the ratio (pwrite time / array time) is printed at the
//    end, 1.0 meaning parity.
//  * LowerBound / UpperBound on a sorted file array, counting the page faults (pages of file
//    data mapped in) per search, which shows how far the in-memory samples keep searches away
//    from the file.
// Set ZU_BENCH_DIR to choose the directory (default: the system temporary directory).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr uint64_t kAppendBytes = uint64_t{1} << 30;
constexpr uint64_t kAppendElements = kAppendBytes / sizeof(int64_t);
constexpr size_t kWriteBlock = size_t{8} << 20;           // the pwrite peer writes in 8 MiB pieces
constexpr uint64_t kSearchElements = uint64_t{64} << 20;  // 512 MiB of sorted int64_t

std::filesystem::path BenchDirectory() {
  const char* chosen = std::getenv("ZU_BENCH_DIR");
  std::filesystem::path dir = chosen != nullptr
                                  ? std::filesystem::path(chosen)
                                  : std::filesystem::temp_directory_path() / "zu_file_bench";
  std::filesystem::create_directories(dir);
  IZUArray::SetDataDirectory(dir.wstring());
  return dir;
}

const std::vector<int64_t>& Source() {
  static const std::vector<int64_t> source = [] {
    std::vector<int64_t> values(kAppendElements);
    for (uint64_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i * 3);
    return values;
  }();
  return source;
}

// One timed AppendBuffer of the whole source into a fresh file array; the files are deleted
// afterwards, outside the timed part.
double TimeFileArrayAppend(const std::vector<int64_t>& source) {
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocFileArray(8));
  auto start = std::chrono::steady_clock::now();
  int rc = array->AppendBuffer(source.data(), source.size());
  auto stop = std::chrono::steady_clock::now();
  if (rc != kZuOk || array->GetSize() != source.size()) return -1;
  return std::chrono::duration<double>(stop - start).count();
}

// The same bytes written with pwrite to a new file in the same directory.
double TimePwrite(const std::vector<int64_t>& source, const std::string& path) {
  const auto* bytes = reinterpret_cast<const char*>(source.data());
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  auto start = std::chrono::steady_clock::now();
  for (uint64_t offset = 0; offset < kAppendBytes;) {
    ssize_t n = ::pwrite(fd, bytes + offset, kWriteBlock, static_cast<off_t>(offset));
    if (n <= 0) break;
    offset += static_cast<uint64_t>(n);
  }
  auto stop = std::chrono::steady_clock::now();
  ::close(fd);
  ::unlink(path.c_str());
  return std::chrono::duration<double>(stop - start).count();
}

double g_array_seconds = 0;
double g_pwrite_seconds = 0;

double Median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

// Both writers in every iteration, in alternating order, so that page-cache warm-up and
// write-back pressure fall on each of them alike. On a shared machine single runs vary a
// lot; the medians are compared.
void BM_AppendBufferVsPwrite(benchmark::State& state) {
  const std::string peer = (BenchDirectory() / "pwrite_peer.bin").string();
  const auto& source = Source();
  TimePwrite(source, peer);  // warm-up: the page cache gets its pages once, untimed
  std::vector<double> array_times;
  std::vector<double> pwrite_times;
  for (auto _ : state) {
    double array_seconds = 0;
    double pwrite_seconds = 0;
    if (array_times.size() % 2 == 0) {
      array_seconds = TimeFileArrayAppend(source);
      pwrite_seconds = TimePwrite(source, peer);
    } else {
      pwrite_seconds = TimePwrite(source, peer);
      array_seconds = TimeFileArrayAppend(source);
    }
    if (array_seconds < 0 || pwrite_seconds < 0) {
      state.SkipWithError("a writer failed");
      break;
    }
    state.SetIterationTime(array_seconds);
    array_times.push_back(array_seconds);
    pwrite_times.push_back(pwrite_seconds);
  }
  if (array_times.empty()) return;
  g_array_seconds = Median(array_times);
  g_pwrite_seconds = Median(pwrite_times);
  state.counters["array_median_s"] = g_array_seconds;
  state.counters["pwrite_median_s"] = g_pwrite_seconds;
  state.counters["ratio"] = g_pwrite_seconds / g_array_seconds;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kAppendBytes));
}

int64_t PageFaults() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt + usage.ru_majflt;
}

IZUArray& SortedArray() {
  static std::unique_ptr<IZUArray> array = [] {
    BenchDirectory();
    CArrayFactory factory;
    std::unique_ptr<IZUArray> made(factory.AllocFileArray(8));
    std::vector<int64_t> block(1 << 20);
    for (uint64_t done = 0; done < kSearchElements; done += block.size()) {
      for (uint64_t i = 0; i < block.size(); ++i) block[i] = static_cast<int64_t>(2 * (done + i));
      made->AppendBuffer(block.data(), block.size());
    }
    return made;
  }();
  return *array;
}

template <bool kUpper>
void BM_SortedSearch(benchmark::State& state) {
  IZUArray& array = SortedArray();
  std::mt19937_64 random(42);
  std::uniform_int_distribution<int64_t> pick(0, static_cast<int64_t>(2 * kSearchElements));
  int64_t faults = 0;
  for (auto _ : state) {
    int64_t value = pick(random);
    int64_t before = PageFaults();
    uint64_t index = kUpper ? array.UpperBound(&value) : array.LowerBound(&value);
    faults += PageFaults() - before;
    benchmark::DoNotOptimize(index);
  }
  state.counters["pages_touched_per_search"] =
      benchmark::Counter(static_cast<double>(faults) / static_cast<double>(state.iterations()));
}

BENCHMARK(BM_AppendBufferVsPwrite)->UseManualTime()->Iterations(11)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_SortedSearch, false)->Name("BM_FileArrayLowerBound");
BENCHMARK_TEMPLATE(BM_SortedSearch, true)->Name("BM_FileArrayUpperBound");

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  if (g_array_seconds > 0 && g_pwrite_seconds > 0) {
    std::printf("AppendBuffer 1 GiB (medians): file array %.3f s, pwrite %.3f s, ratio %.2f\n",
                g_array_seconds, g_pwrite_seconds, g_pwrite_seconds / g_array_seconds);
  }
  benchmark::Shutdown();
  return 0;
}
