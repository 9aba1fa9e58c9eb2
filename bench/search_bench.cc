// Where the time of a warm search on a file array goes, next to std::lower_bound over a
// std::vector of the same data, and what the sample tree (src/file/sample_tree.h) and a
// prefetching page search make of each part.
//
// Every iteration is one pass over a fresh batch of uniformly random keys, drawn outside the
// timed part, so no key repeats inside a measurement: what a search finds in the CPU caches is
// there because the structure stays there, not because the same key was looked up before. The
// data are int64_t 0, 2, 4, ... in the page cache and mapped (warm). Times are per search.
//
// Parts, each over the same keys:
//   Vector*          std::lower_bound / std::upper_bound over std::vector
//   Library*         the file array through IZUArray (LocateLowerBound: samples only)
//   Bisections*      the search the file array made before its sample tree, rebuilt over a
//                    plain mapping of one file: branch-free bisections over the segment heads,
//                    the chunk boundaries and the chunk's page samples, then over one page
//   Tree*            the sample tree over the same mapping, then the prefetching page search:
//                    the library's search without the calls between the interface and it
//   *Samples         the sample part alone (the page is not read)
//   Page*            the page part alone (the page is known in advance)
// Set ZU_BENCH_DIR to choose the data directory (default: the system temporary directory).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "src/file/sample_tree.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr uint64_t kKeys = 20000;                         // searches per iteration
constexpr uint64_t kSegment = (uint64_t{128} << 20) / 8;  // elements per segment file
constexpr uint64_t kChunk = (uint64_t{1} << 20) / 8;      // elements per chunk
constexpr uint64_t kInterval = 4096 / 8;                  // elements per page sample
constexpr uint64_t kPerChunk = kChunk / kInterval;        // page samples per chunk

std::filesystem::path BenchDirectory() {
  const char* chosen = std::getenv("ZU_BENCH_DIR");
  std::filesystem::path dir = chosen != nullptr
                                  ? std::filesystem::path(chosen)
                                  : std::filesystem::temp_directory_path() / "zu_search_bench";
  std::filesystem::create_directories(dir);
  IZUArray::SetDataDirectory(dir.wstring());
  return dir;
}

// The same n elements four ways: a std::vector, a file array, and one plain read-only mapping
// of a file with the samples of each 128 MiB piece (as the segments keep them) beside it.
struct World {
  explicit World(uint64_t count) : n(count), data(count) {
    const std::filesystem::path dir = BenchDirectory();
    for (uint64_t i = 0; i < n; ++i) data[i] = static_cast<int64_t>(2 * i);
    CArrayFactory factory;
    array.reset(factory.AllocFileArray(8));
    array->AppendBuffer(data.data(), n);
    std::vector<int64_t> piece(kChunk);
    for (uint64_t i = 0; i < n; i += kChunk) {  // every page mapped for reading
      array->CopyOut(piece.data(), static_cast<int>(i),
                     static_cast<unsigned>(std::min(kChunk, n - i)));
    }
    const std::string path = (dir / "search_bench.bin").string();
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    // Written in 8 MiB pieces: the page cache then holds the data in 2 MiB folios, which a
    // mapping at a 2 MiB boundary maps with one entry each (ZU_SEARCH_BENCH_PIECE overrides).
    const char* piece_env = std::getenv("ZU_SEARCH_BENCH_PIECE");
    const uint64_t piece_elements =
        (piece_env ? std::strtoull(piece_env, nullptr, 10) : 8 << 20) / 8;
    for (uint64_t at = 0; at < n; at += piece_elements) {
      const uint64_t k = std::min(piece_elements, n - at);
      if (::pwrite(fd, data.data() + at, k * 8, static_cast<off_t>(at * 8)) < 0) std::abort();
    }
    ::unlink(path.c_str());
    constexpr uint64_t kAlign = uint64_t{2} << 20;
    void* space = ::mmap(nullptr, n * 8 + kAlign, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(space) + kAlign - 1) & ~(kAlign - 1);
    void* view =
        ::mmap(reinterpret_cast<void*>(aligned), n * 8, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0);
    ::close(fd);
    if (view == MAP_FAILED) std::abort();
    ::madvise(view, n * 8, MADV_RANDOM);  // as the segments advise their read views
    raw = static_cast<const int64_t*>(view);
    int64_t sum = 0;
    for (uint64_t i = 0; i < n; i += kInterval) sum += raw[i];
    benchmark::DoNotOptimize(sum);
    for (uint64_t s = 0; s * kSegment < n; ++s) {
      heads.push_back(raw[s * kSegment]);
      trees.emplace_back(kPerChunk);
      for (uint64_t i = s * kSegment; i < std::min(n, (s + 1) * kSegment); i += kInterval) {
        trees.back().Append(raw[i]);
      }
    }
  }
  ~World() { ::munmap(const_cast<int64_t*>(raw), n * 8); }
  uint64_t SegmentSize(uint64_t s) const { return std::min(kSegment, n - s * kSegment); }

  uint64_t n;
  std::vector<int64_t> data;
  std::unique_ptr<IZUArray> array;
  const int64_t* raw = nullptr;
  std::vector<int64_t> heads;
  std::vector<zu::SampleTree<int64_t>> trees;
};

World& WorldOf(uint64_t n) {
  static std::map<uint64_t, std::unique_ptr<World>> worlds;
  std::unique_ptr<World>& w = worlds[n];
  if (!w) w = std::make_unique<World>(n);
  return *w;
}

// Runs `pass` over fresh keys below `range` every iteration; times the passes only.
template <typename Pass>
void Measure(benchmark::State& state, uint64_t range, Pass pass) {
  std::mt19937_64 random(state.range(0) * 7 + 1);
  std::uniform_int_distribution<uint64_t> pick(0, range - 1);
  std::vector<int64_t> keys(kKeys);
  for (auto _ : state) {
    state.PauseTiming();
    for (int64_t& k : keys) k = static_cast<int64_t>(pick(random));
    state.ResumeTiming();
    uint64_t sum = 0;
    for (const int64_t& k : keys) sum += pass(k);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
  state.counters["ns/search"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kKeys),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// --- the search before the sample tree, over the plain mapping -------------------------------

// The branch-free bisection the samples and pages were searched with.
uint64_t LowerIndex(const int64_t* data, uint64_t count, int64_t value) {
  uint64_t first = 0;
  while (count > 0) {
    const uint64_t half = count >> 1;
    const uint64_t right = data[first + half] < value;
    first += right * (half + 1);
    count = half + right * (count - 1 - half - half);
  }
  return first;
}

// Segment and the chunk, entry of the first page sample not below k, as the segments find them.
bool BisectionsSamplesAt(const World& w, int64_t k, uint64_t* s, uint64_t* chunk, uint64_t* entry) {
  const uint64_t h = LowerIndex(w.heads.data(), w.heads.size(), k);
  if (h == 0) return false;
  *s = h - 1;
  const zu::SampleTree<int64_t>& t = w.trees[*s];
  const uint64_t b = LowerIndex(&t.boundary(0), t.chunks(), k);
  if (b == 0) return false;
  *chunk = b - 1;
  *entry = LowerIndex(t.chunk(*chunk), t.chunk_size(*chunk), k);
  return true;
}

uint64_t PageStart(uint64_t chunk, uint64_t entry) {
  return chunk * kChunk + (entry > 0 ? entry - 1 : 0) * kInterval;
}

uint64_t BisectionsLowerBoundAt(const World& w, int64_t k) {
  uint64_t s = 0, chunk = 0, entry = 0;
  if (!BisectionsSamplesAt(w, k, &s, &chunk, &entry)) return s * kSegment;
  const uint64_t start = PageStart(chunk, entry);
  const uint64_t len = std::min(kInterval, w.SegmentSize(s) - start);
  const int64_t* page = w.raw + s * kSegment + start;
  return s * kSegment + start + LowerIndex(page, len, k);
}

// --- the sample tree and the prefetching page search -----------------------------------------

bool TreeSamples(const World& w, int64_t k, uint64_t* s, uint64_t* chunk, uint64_t* entry) {
  uint64_t h = 0;
  for (int64_t head : w.heads) h += head < k;
  if (h == 0) return false;
  *s = h - 1;
  return w.trees[*s].LocateLower(k, chunk, entry);
}

uint64_t TreeLowerBound(const World& w, int64_t k) {
  uint64_t s = 0, chunk = 0, entry = 0;
  if (!TreeSamples(w, k, &s, &chunk, &entry)) return s * kSegment;
  const uint64_t start = PageStart(chunk, entry);
  const uint64_t len = std::min(kInterval, w.SegmentSize(s) - start);
  const int64_t* page = w.raw + s * kSegment + start;
  return s * kSegment + start + zu::PageLower(page, len, k);
}

// The upper bound the way the segments answer it for a full chunk: the page samples stand for
// the first probes of a bisection over the whole chunk, one page finishes it.
uint64_t TreeUpperBound(const World& w, int64_t k) {
  uint64_t h = 0;
  for (int64_t head : w.heads) h += !(k < head);
  if (h == 0) return 0;
  const uint64_t s = h - 1;
  uint64_t chunk = 0, entry = 0;
  if (!w.trees[s].LocateUpper(k, &chunk, &entry)) return s * kSegment;
  const int64_t* view = w.raw + s * kSegment + chunk * kChunk;
  const uint64_t first = entry == 1 ? 0 : (entry - 1) * kInterval + 1;
  const uint64_t count = entry == 1 ? kInterval : kInterval - 1;
  return s * kSegment + chunk * kChunk + first + zu::PageUpper(view + first, count, k);
}

uint64_t AnswerPage(int64_t k) {  // first element of the page that holds LowerBound(k)
  const uint64_t answer = static_cast<uint64_t>(k + 1) / 2;
  return answer == 0 ? 0 : (answer - 1) / kInterval * kInterval;
}

// --- benchmarks ------------------------------------------------------------------------------

void VectorLowerBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    return static_cast<uint64_t>(std::lower_bound(w.data.begin(), w.data.end(), k) -
                                 w.data.begin());
  });
}
void VectorUpperBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    return static_cast<uint64_t>(std::upper_bound(w.data.begin(), w.data.end(), k) -
                                 w.data.begin());
  });
}
void LibraryLowerBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return w.array->LowerBound(&k); });
}
void LibraryUpperBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return w.array->UpperBound(&k); });
}
void LibraryFind(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return w.array->Find(&k); });
}
void LibraryLocateLowerBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return w.array->LocateLowerBound(&k); });
}
void BisectionsLowerBound(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return BisectionsLowerBoundAt(w, k); });
}
void BisectionsSamples(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    uint64_t s = 0, chunk = 0, entry = 0;
    BisectionsSamplesAt(w, k, &s, &chunk, &entry);
    return s + chunk + entry;
  });
}
// The prototype's answers against the standard algorithms, before it is timed.
bool TreeAnswersRight(const World& w) {
  std::mt19937_64 random(5);
  for (int i = 0; i < 100000; ++i) {
    const auto k = static_cast<int64_t>(random() % (2 * w.n + 2));
    const auto lower =
        static_cast<uint64_t>(std::lower_bound(w.data.begin(), w.data.end(), k) - w.data.begin());
    const auto upper =
        static_cast<uint64_t>(std::upper_bound(w.data.begin(), w.data.end(), k) - w.data.begin());
    if (TreeLowerBound(w, k) != lower || TreeUpperBound(w, k) != upper ||
        BisectionsLowerBoundAt(w, k) != lower) {
      return false;
    }
  }
  return true;
}

void TreeLowerBoundBench(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  if (!TreeAnswersRight(w)) state.SkipWithError("wrong answers");
  Measure(state, 2 * w.n, [&](int64_t k) { return TreeLowerBound(w, k); });
}
void TreeUpperBoundBench(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) { return TreeUpperBound(w, k); });
}
void TreeSamplesBench(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    uint64_t s = 0, chunk = 0, entry = 0;
    TreeSamples(w, k, &s, &chunk, &entry);
    return s + chunk + entry;
  });
}
void PageBranchFree(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    const uint64_t start = AnswerPage(k);
    return start + LowerIndex(w.raw + start, std::min(kInterval, w.n - start), k);
  });
}
void PagePrefetched(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, 2 * w.n, [&](int64_t k) {
    const uint64_t start = AnswerPage(k);
    return start + zu::PageLower(w.raw + start, std::min(kInterval, w.n - start), k);
  });
}
void VectorGetAt(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, w.n, [&](int64_t i) { return static_cast<uint64_t>(w.data[i]); });
}
void LibraryGetAt(benchmark::State& state) {
  World& w = WorldOf(state.range(0));
  Measure(state, w.n, [&](int64_t i) {
    int64_t out = 0;
    w.array->GetAt(static_cast<uint64_t>(i), &out);
    return static_cast<uint64_t>(out);
  });
}

void Sizes(benchmark::internal::Benchmark* b) {
  b->Arg(int64_t{1} << 22)->Arg(int64_t{1} << 27)->Unit(benchmark::kMillisecond);
}

BENCHMARK(VectorLowerBound)->Apply(Sizes);
BENCHMARK(LibraryLowerBound)->Apply(Sizes);
BENCHMARK(BisectionsLowerBound)->Apply(Sizes);
BENCHMARK(TreeLowerBoundBench)->Apply(Sizes);
BENCHMARK(LibraryLocateLowerBound)->Apply(Sizes);
BENCHMARK(BisectionsSamples)->Apply(Sizes);
BENCHMARK(TreeSamplesBench)->Apply(Sizes);
BENCHMARK(PageBranchFree)->Apply(Sizes);
BENCHMARK(PagePrefetched)->Apply(Sizes);
BENCHMARK(VectorUpperBound)->Apply(Sizes);
BENCHMARK(LibraryUpperBound)->Apply(Sizes);
BENCHMARK(TreeUpperBoundBench)->Apply(Sizes);
BENCHMARK(LibraryFind)->Apply(Sizes);
BENCHMARK(VectorGetAt)->Apply(Sizes);
BENCHMARK(LibraryGetAt)->Apply(Sizes);

}  // namespace

BENCHMARK_MAIN();
