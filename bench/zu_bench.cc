// zu-bench: this library's arrays next to what a host would pick instead, in one process, on
// the same data, with the physical limits of the machine measured in the same run.
//
// Peers: std::vector and std::deque for the in-memory kinds; stxxl::vector (1 MiB blocks, a
// cache of two blocks: the two 1 MiB views of a file segment) and a Boost.Interprocess vector
// in a managed_mapped_file (reserved up front) for the file kinds; memcpy and pwrite bandwidth
// as the limits. Each scenario runs at three sizes: in cache, comfortably in memory, and well
// past the spill threshold of the self-spilling arrays.
//
// Usage: zu-bench [--out DIR] [--rss-gib N] [--quick] [--sizes N,...] [--only NAME,...]
//                 [--kinds KIND,...] [--fills FILL,...]
//   --out DIR     where results.md, results.json and results.tsv go (default docs/bench)
//   --rss-gib N   GiB appended for the resident-memory scenario (default 8)
//   --quick       smaller sizes, for a smoke run
//   --sizes N,... element counts of the sized scenarios (default 65536,4194304,134217728)
//   --only NAME,... run only these scenarios: append, bulk, read, getat, direct, lbwarm, first,
//                 autowarm, lbcold, batch, spill, rss (the read scenarios fill their containers
//                 with bulk, which then runs too; first needs the warm LowerBound, which then
//                 runs; batch fills arrays of its own)
//   --kinds KIND,... array kinds of the one-by-one append (vector, deque, auto, file)
//   --fills FILL,... how the first-pass rows fill their array: buffer (one AppendBuffer), 1mib
//                 (AppendBuffer calls of 1 MiB), appender (zu::Appender), append (Append)
// ZU_BENCH_DIR chooses the parent of the data directory (default: the temp directory); the
// data directory is created fresh and removed, with every file in it, at the end.
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bench/floor_reader.h"
#include "src/auto/auto_array.h"
#include "zu_data_manager/array.h"
#include "zu_data_manager/reader.h"
#include "zu_data_manager/zu_data_manager.h"

#ifdef ZU_BENCH_HAVE_STXXL
#include <stxxl/io>
#include <stxxl/vector>
#endif
#ifdef ZU_BENCH_HAVE_BOOST
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/vector.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kChunkElements = (uint64_t{1} << 20) / sizeof(int64_t);  // one 1 MiB view
constexpr size_t kWriteBlock = size_t{8} << 20;                             // pwrite piece

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

double Median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// ---------------------------------------------------------------------------------------------
// Process counters.

long StatusKiB(const char* key) {
  std::ifstream status("/proc/self/status");
  const size_t len = std::strlen(key);
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, len, key) == 0) return std::strtol(line.c_str() + len, nullptr, 10);
  }
  return -1;
}

// A counter of /proc/self/io ("read_bytes:", "wchar:"); -1 when missing.
int64_t IoCounter(const std::string& key) {
  std::ifstream io("/proc/self/io");
  for (std::string line; std::getline(io, line);) {
    if (line.rfind(key, 0) == 0) return std::strtoll(line.c_str() + key.size(), nullptr, 10);
  }
  return -1;
}

// Bytes this process caused to be read from the block device.
int64_t ReadBytes() { return IoCounter("read_bytes:"); }
// Bytes this process (every thread) handed to write calls: file writes that went through
// the page cache, not stores into a mapping.
int64_t WrittenBytes() { return IoCounter("wchar:"); }

// CPU seconds used by every thread of this process so far (a peer's own I/O threads too).
double CpuSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Wall and process CPU time of one timed run, and the bytes it handed to write calls,
// appended to a contender's samples on Stop.
struct Times {
  std::vector<double> wall, cpu, written;
};
class Stopwatch {
 public:
  void Stop(Times* into) const {
    into->wall.push_back(Seconds(wall_, Clock::now()));
    into->cpu.push_back(CpuSeconds() - cpu_);
    into->written.push_back(static_cast<double>(WrittenBytes() - written_));
  }

 private:
  int64_t written_ = WrittenBytes();
  Clock::time_point wall_ = Clock::now();
  double cpu_ = CpuSeconds();
};

int64_t MajorFaults() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_majflt;
}

std::string ReadFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string LoadAverage() {
  std::istringstream in(ReadFirstLine("/proc/loadavg"));
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

// ---------------------------------------------------------------------------------------------
// The data directory: fresh, removed with everything in it.

class DataDir {
 public:
  DataDir() {
    const char* chosen = std::getenv("ZU_BENCH_DIR");
    fs::path parent = chosen != nullptr ? fs::path(chosen) : fs::temp_directory_path();
    fs::create_directories(parent);
    std::string pattern = (parent / "zu-bench-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    path_ = buffer.data();
    IZUArray::SetDataDirectory(path_.wstring());
  }
  ~DataDir() {
    IZUArray::SetDataDirectory(L"");
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  const fs::path& path() const { return path_; }

  // Writes back and drops the page cache of every file in the directory. Pages this process
  // maps are unmapped first (their data stays in the files), as memory pressure would do:
  // mapped pages cannot be dropped, so a long-lived view would otherwise keep every page it
  // ever touched warm.
  void DropCache() const {
    UnmapDataPages();
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(path_, ec)) {
      if (!entry.is_regular_file()) continue;
      int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      ::fdatasync(fd);
      ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
      ::close(fd);
    }
  }

  // Zaps this process's page-table entries for every mapping of a file in the directory
  // (MADV_DONTNEED on a shared file mapping: dirty pages stay dirty in the page cache, the
  // next access faults them in again from there or from disk).
  void UnmapDataPages() const {
    std::ifstream maps("/proc/self/maps");
    const std::string dir = path_.string() + "/";
    for (std::string line; std::getline(maps, line);) {
      if (line.find(dir) == std::string::npos) continue;
      unsigned long long from = 0, to = 0;
      if (std::sscanf(line.c_str(), "%llx-%llx", &from, &to) != 2 || to <= from) continue;
      ::madvise(reinterpret_cast<void*>(static_cast<uintptr_t>(from)),
                static_cast<size_t>(to - from), MADV_DONTNEED);
    }
  }

  // Names of the data files in the directory.
  std::vector<std::string> DataFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_)) {
      if (entry.path().extension() == ".KMB") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // KiB of the data files `names` mapped in this process, and of them KiB mapped by 2 MiB
  // entries (smaps: Rss, FilePmdMapped).
  std::pair<uint64_t, uint64_t> MappedKiB(const std::vector<std::string>& names) const {
    std::ifstream smaps("/proc/self/smaps");
    uint64_t rss = 0, pmd = 0;
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
      unsigned long long kib = 0;
      if (std::sscanf(line.c_str(), "Rss: %llu kB", &kib) == 1) {
        if (inside) rss += kib;
      } else if (std::sscanf(line.c_str(), "FilePmdMapped: %llu kB", &kib) == 1) {
        if (inside) pmd += kib;
      } else if (line.find('-') < line.find(' ')) {  // the header of a mapping
        const std::string dir = path_.string() + "/";
        const size_t at = line.find(dir);
        inside = at != std::string::npos &&
                 std::binary_search(names.begin(), names.end(), line.substr(at + dir.size()));
      }
    }
    return {rss, pmd};
  }

  // Writes back every dirty page of the file system that holds the directory (files that are
  // open but unlinked too), so that a writer timed next is not throttled by an earlier one.
  void Settle() const {
    int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::syncfs(fd);
    ::close(fd);
  }

 private:
  fs::path path_;
};

const DataDir* g_dir = nullptr;

// ---------------------------------------------------------------------------------------------
// Results.

struct Row {
  std::string scenario;  // e.g. "append one-by-one"
  std::string kind;      // the array kind of this library measured: vector, deque, file, auto
  uint64_t elements = 0;
  std::string unit;  // of every value in the row
  double zu = NAN;
  double std_vector = NAN, std_deque = NAN, stxxl = NAN, boost = NAN;
  std::string limit_name;
  double limit = NAN;
  std::vector<std::pair<std::string, double>> ratios;  // zu / peer, > 1 means this library wins
  std::string note;
};

std::vector<Row> g_rows;

Row MakeRow(const std::string& scenario, const std::string& kind, uint64_t elements,
            const std::string& unit) {
  Row r;
  r.scenario = scenario;
  r.kind = kind;
  r.elements = elements;
  r.unit = unit;
  return r;
}

std::string Format(double v) {
  if (std::isnan(v)) return "-";
  char buffer[32];
  if (std::fabs(v) >= 100)
    std::snprintf(buffer, sizeof buffer, "%.0f", v);
  else if (std::fabs(v) >= 10)
    std::snprintf(buffer, sizeof buffer, "%.1f", v);
  else
    std::snprintf(buffer, sizeof buffer, "%.3g", v);
  return buffer;
}

std::string RatioText(const Row& r) {
  std::string text;
  for (const auto& [peer, value] : r.ratios) {
    if (!text.empty()) text += ", ";
    text += Format(value) + "x " + peer;
  }
  return text.empty() ? "-" : text;
}

void AddRatio(Row& r, const std::string& peer, double peer_value, bool lower_is_better = false) {
  if (std::isnan(peer_value) || std::isnan(r.zu) || peer_value <= 0 || r.zu <= 0) return;
  r.ratios.emplace_back(peer, lower_is_better ? peer_value / r.zu : r.zu / peer_value);
}

void AddNote(Row& r, const std::string& text) {
  if (text.empty()) return;
  r.note += r.note.empty() ? text : "; " + text;
}

// The slowest and the fastest run as "low-high" millions of elements per second: where one
// contender's runs spread far wider than another's, what varies is the machine (on a virtual
// machine, fresh memory the host has to map first), not the code.
std::string Spread(uint64_t n, const std::vector<double>& times) {
  if (times.empty()) return "-";
  const auto [fastest, slowest] = std::minmax_element(times.begin(), times.end());
  return Format(static_cast<double>(n) / *slowest / 1e6) + "-" +
         Format(static_cast<double>(n) / *fastest / 1e6);
}

// CPU time per element, every thread of the process counted: a peer that hands its writes to
// I/O threads of its own shows here what its wall time leaves out. Then the bytes written
// while timed: a peer still holding everything in its cache has written none yet. Contenders
// without samples are left out.
std::string CostNote(uint64_t n, const Times& zu, const Times& stxxl, const Times& boost) {
  const std::pair<const char*, const Times*> contenders[] = {
      {"zu", &zu}, {"stxxl", &stxxl}, {"boost", &boost}};
  std::string cpu = "CPU ns/elem, all threads:";
  std::string written = "KiB written while timed:";
  std::string spread = "runs spanned (M elem/s):";
  for (const auto& [name, t] : contenders) {
    if (t->cpu.empty()) continue;
    char part[48];
    std::snprintf(part, sizeof part, " %s %.2f", name, Median(t->cpu) * 1e9 / n);
    cpu += part;
    std::snprintf(part, sizeof part, " %s %.0f", name, Median(t->written) / 1024);
    written += part;
    spread += " " + std::string(name) + " " + Spread(n, t->wall);
  }
  return cpu + "; " + written + "; " + spread;
}

void PrintRow(const Row& r) {
  std::printf("%-22s %-6s %11llu %-10s %9s %9s %9s %9s %9s %9s %-7s  %s%s%s\n", r.scenario.c_str(),
              r.kind.c_str(), static_cast<unsigned long long>(r.elements), r.unit.c_str(),
              Format(r.zu).c_str(), Format(r.std_vector).c_str(), Format(r.std_deque).c_str(),
              Format(r.stxxl).c_str(), Format(r.boost).c_str(), Format(r.limit).c_str(),
              r.limit_name.c_str(), RatioText(r).c_str(), r.note.empty() ? "" : "  ; ",
              r.note.c_str());
  std::fflush(stdout);
}

void Add(Row r) {
  PrintRow(r);
  g_rows.push_back(std::move(r));
}

// ---------------------------------------------------------------------------------------------
// Data and peers.

std::vector<int64_t> SortedSource(uint64_t n) {
  std::vector<int64_t> v(n);
  for (uint64_t i = 0; i < n; ++i) v[i] = static_cast<int64_t>(2 * i);
  return v;
}

IZUArray* NewArray(const std::string& kind) {
  CArrayFactory factory;
  if (kind == "vector") return factory.AllocVectorArray(8);
  if (kind == "deque") return factory.AllocDequeArray(8);
  if (kind == "auto") return factory.AllocAutoDequeArray(8);
  if (kind == "autovector") return factory.AllocAutoVectorArray(8);
  return factory.AllocFileArray(8);
}

#ifdef ZU_BENCH_HAVE_STXXL
// Blocks of 1 MiB, pages of one block, a cache of two pages.
using StxxlVector = stxxl::VECTOR_GENERATOR<int64_t, 1, 2, (1 << 20)>::result;

void ConfigureStxxl(const fs::path& dir, uint64_t gib) {
  // A configuration file in the data directory: the library reads it (STXXLCFG) when the first
  // container is made, whichever copy of its singletons that container reaches.
  const fs::path config = dir / "stxxl.cfg";
  std::ofstream(config) << "disk=" << (dir / "stxxl.tmp").string() << "," << gib
                        << "GiB,syscall unlink nodirect\n";
  ::setenv("STXXLCFG", config.c_str(), 1);
  ::setenv("STXXLLOGFILE", (dir / "stxxl.log").c_str(), 1);
  ::setenv("STXXLERRLOGFILE", (dir / "stxxl.errlog").c_str(), 1);
}
#endif

#ifdef ZU_BENCH_HAVE_BOOST
namespace bip = boost::interprocess;
using BoostAllocator = bip::allocator<int64_t, bip::managed_mapped_file::segment_manager>;
using BoostVector = bip::vector<int64_t, BoostAllocator>;

// A managed_mapped_file in the data directory holding one vector reserved for n elements.
class BoostPeer {
 public:
  explicit BoostPeer(uint64_t n) {
    static int serial = 0;
    path_ = (g_dir->path() / ("boost-" + std::to_string(serial++) + ".bin")).string();
    file_ = std::make_unique<bip::managed_mapped_file>(bip::create_only, path_.c_str(),
                                                       n * sizeof(int64_t) + (size_t{4} << 20));
    vector_ = file_->construct<BoostVector>("v")(file_->get_segment_manager());
    vector_->reserve(n);
  }
  ~BoostPeer() {
    file_.reset();
    bip::file_mapping::remove(path_.c_str());
  }
  BoostVector& v() { return *vector_; }
  // Unmaps the file, drops the page cache of the data directory and maps the file again:
  // pages a process maps cannot be dropped.
  void ReopenCold() {
    file_.reset();
    g_dir->DropCache();
    file_ = std::make_unique<bip::managed_mapped_file>(bip::open_only, path_.c_str());
    vector_ = file_->find<BoostVector>("v").first;
  }

 private:
  std::string path_;
  std::unique_ptr<bip::managed_mapped_file> file_;
  BoostVector* vector_ = nullptr;
};
#endif

volatile int64_t g_sink = 0;

// Runs one round of contenders, each after the file system's dirty pages are written back
// (so that no writer is throttled by the one before). Round `rep` starts with a different
// contender each time, so that none always runs first: on a virtual machine that hands freed
// memory back to its host, whoever first allocates after a long write-back pays for the host
// mapping that memory again.
void RunRound(std::vector<std::function<void()>>& runs, int rep) {
  if (runs.empty()) return;
  std::rotate(runs.begin(), runs.begin() + rep % static_cast<int>(runs.size()), runs.end());
  for (auto& run : runs) {
    g_dir->Settle();
    run();
  }
}

// Millions of elements per second for `n` elements taking the median of `times`.
double Rate(uint64_t n, const std::vector<double>& times) {
  return static_cast<double>(n) / Median(times) / 1e6;
}

// ---------------------------------------------------------------------------------------------
// Limits.

double MemcpyRate(const std::vector<int64_t>& src, int reps) {
  std::vector<int64_t> dest(src.size(), 1);  // touched: no first-touch faults while timing
  std::vector<double> times;
  for (int r = 0; r < reps; ++r) {
    auto a = Clock::now();
    std::memcpy(dest.data(), src.data(), src.size() * sizeof(int64_t));
    auto b = Clock::now();
    times.push_back(Seconds(a, b));
    g_sink = g_sink + dest[src.size() / 2];
  }
  return Rate(src.size(), times);
}

double PwriteSeconds(const std::vector<int64_t>& src) {
  const std::string path = (g_dir->path() / "pwrite.bin").string();
  const auto* bytes = reinterpret_cast<const char*>(src.data());
  const uint64_t total = src.size() * sizeof(int64_t);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return NAN;
  auto a = Clock::now();
  for (uint64_t offset = 0; offset < total;) {
    size_t piece = static_cast<size_t>(std::min<uint64_t>(kWriteBlock, total - offset));
    ssize_t n = ::pwrite(fd, bytes + offset, piece, static_cast<off_t>(offset));
    if (n <= 0) break;
    offset += static_cast<uint64_t>(n);
  }
  auto b = Clock::now();
  ::close(fd);
  ::unlink(path.c_str());
  return Seconds(a, b);
}

// ---------------------------------------------------------------------------------------------
// Scenarios.

void AppendOne(const std::string& kind, const std::vector<int64_t>& src, int reps) {
  const uint64_t n = src.size();
  Row r = MakeRow("append one-by-one", kind, n, "M elem/s");
  Times zu, vec, deq, stx, bst;
  for (int rep = 0; rep < reps; ++rep) {
    std::vector<std::function<void()>> runs;
    runs.push_back([&] {
      std::unique_ptr<IZUArray> a(NewArray(kind));
      Stopwatch t;
      for (uint64_t i = 0; i < n; ++i) a->Append(&src[i]);
      t.Stop(&zu);
      if (a->GetSize() != n) r.note = "size mismatch";
    });
    if (kind == "vector") {
      runs.push_back([&] {
        Stopwatch t;
        std::vector<int64_t> v;
        for (uint64_t i = 0; i < n; ++i) v.push_back(src[i]);
        g_sink = g_sink + v.back();
        t.Stop(&vec);
      });
    }
    if (kind == "deque" || kind == "auto") {
      runs.push_back([&] {
        Stopwatch t;
        std::deque<int64_t> d;
        for (uint64_t i = 0; i < n; ++i) d.push_back(src[i]);
        g_sink = g_sink + d.back();
        t.Stop(&deq);
      });
    }
#ifdef ZU_BENCH_HAVE_STXXL
    if (kind == "file" || kind == "auto") {
      runs.push_back([&] {
        StxxlVector v;
        Stopwatch t;
        for (uint64_t i = 0; i < n; ++i) v.push_back(src[i]);
        t.Stop(&stx);
      });
    }
#endif
#ifdef ZU_BENCH_HAVE_BOOST
    if (kind == "file") {
      runs.push_back([&] {
        BoostPeer peer(n);
        Stopwatch t;
        for (uint64_t i = 0; i < n; ++i) peer.v().push_back(src[i]);
        t.Stop(&bst);
      });
    }
#endif
    RunRound(runs, rep);
  }
  r.zu = Rate(n, zu.wall);
  r.std_vector = Rate(n, vec.wall);
  r.std_deque = Rate(n, deq.wall);
  r.stxxl = Rate(n, stx.wall);
  r.boost = Rate(n, bst.wall);
  if (kind == "vector") AddRatio(r, "std::vector", r.std_vector);
  if (kind == "deque" || kind == "auto") AddRatio(r, "std::deque", r.std_deque);
  if (kind == "file" || kind == "auto") AddRatio(r, "stxxl", r.stxxl);
  if (kind == "file") AddRatio(r, "boost", r.boost);
  if (kind == "file" || kind == "auto") {
    AddNote(r, CostNote(n, zu, stx, bst));
    if (kind == "auto" && n > zu::kSpillThreshold) AddNote(r, "includes the move into files");
  }
  Add(r);
}

// The containers the read scenarios use, filled by the bulk-append scenario.
struct Filled {
  std::unique_ptr<IZUArray> file;
  std::vector<int64_t> vector;
#ifdef ZU_BENCH_HAVE_STXXL
  std::unique_ptr<StxxlVector> stxxl;
#endif
#ifdef ZU_BENCH_HAVE_BOOST
  std::unique_ptr<BoostPeer> boost;
#endif
};

void AppendBulk(const std::vector<int64_t>& src, int reps, double memcpy_rate, Filled* keep) {
  const uint64_t n = src.size();
  const int64_t* data = src.data();
  {  // the in-memory vector next to std::vector::insert
    Row r = MakeRow("bulk AppendBuffer", "vector", n, "M elem/s");
    std::vector<double> zu, vec;
    for (int rep = 0; rep < reps; ++rep) {
      std::unique_ptr<IZUArray> a(NewArray("vector"));
      auto t0 = Clock::now();
      a->AppendBuffer(data, n);
      zu.push_back(Seconds(t0, Clock::now()));
      auto t1 = Clock::now();
      std::vector<int64_t> v;
      v.insert(v.end(), src.begin(), src.end());
      vec.push_back(Seconds(t1, Clock::now()));
      g_sink = g_sink + v.back();
    }
    r.zu = Rate(n, zu);
    r.std_vector = Rate(n, vec);
    r.limit_name = "memcpy";
    r.limit = memcpy_rate;
    AddRatio(r, "std::vector", r.std_vector);
    AddRatio(r, "memcpy", r.limit);
    Add(r);
  }
  Row r = MakeRow("bulk AppendBuffer", "file", n, "M elem/s");
  Times zu, stx, bst;
  std::vector<double> pw;
  for (int rep = 0; rep < reps; ++rep) {
    const bool last = rep + 1 == reps;
    std::vector<std::function<void()>> runs;
    runs.push_back([&] {
      std::unique_ptr<IZUArray> a(NewArray("file"));
      Stopwatch t;
      int rc = a->AppendBuffer(data, n);
      t.Stop(&zu);
      if (rc != kZuOk || a->GetSize() != n) r.note = "append failed";
      if (last) keep->file = std::move(a);
    });
    runs.push_back([&] { pw.push_back(PwriteSeconds(src)); });
#ifdef ZU_BENCH_HAVE_STXXL
    runs.push_back([&] {
      auto v = std::make_unique<StxxlVector>();
      Stopwatch t;
      v->resize(n);
      {
        StxxlVector::bufwriter_type writer(*v);
        for (uint64_t i = 0; i < n; ++i) writer << data[i];
        writer.finish();
      }
      t.Stop(&stx);
      if (last) keep->stxxl = std::move(v);
    });
#endif
#ifdef ZU_BENCH_HAVE_BOOST
    runs.push_back([&] {
      auto peer = std::make_unique<BoostPeer>(n);
      Stopwatch t;
      peer->v().insert(peer->v().end(), data, data + n);
      t.Stop(&bst);
      if (last) keep->boost = std::move(peer);
    });
#endif
    RunRound(runs, rep);
  }
  r.zu = Rate(n, zu.wall);
  r.stxxl = Rate(n, stx.wall);
  r.boost = Rate(n, bst.wall);
  r.limit_name = "pwrite";
  r.limit = Rate(n, pw);
  AddRatio(r, "pwrite", r.limit);
  AddNote(r, "pwrite runs spanned " + Spread(n, pw));
  AddRatio(r, "stxxl", r.stxxl);
  AddRatio(r, "boost", r.boost);
  AddNote(r, CostNote(n, zu, stx, bst));
  // Twice a peer's rate is out of reach for any writer through the page cache once it is
  // above what plain pwrite managed in this run; say so where it is.
  for (const auto& [name, rate] : {std::pair<const char*, double>{"stxxl", r.stxxl},
                                   std::pair<const char*, double>{"boost", r.boost}}) {
    if (std::isnan(rate) || std::isnan(r.limit) || 2 * rate <= r.limit) continue;
    AddNote(r, "2x " + std::string(name) + " = " + Format(2 * rate) + " is above the pwrite limit");
  }
  Add(r);
  keep->vector = src;
}

void ReadSequential(Filled& f, int reps, double memcpy_rate) {
  const uint64_t n = f.vector.size();
  Row r = MakeRow("sequential read", "file", n, "M elem/s");
  std::vector<int64_t> dest(kChunkElements, 1);
  std::vector<double> zu, vec, stx, bst;
  for (int rep = 0; rep < reps; ++rep) {
    auto t0 = Clock::now();
    int64_t sum = 0;
    for (uint64_t i = 0; i < n; i += kChunkElements) {
      auto k = static_cast<unsigned int>(std::min<uint64_t>(kChunkElements, n - i));
      f.file->CopyOut(dest.data(), static_cast<int>(i), k);
      sum += dest[k - 1];
    }
    zu.push_back(Seconds(t0, Clock::now()));
    g_sink = g_sink + sum;

    t0 = Clock::now();
    for (uint64_t i = 0; i < n; i += kChunkElements) {
      uint64_t k = std::min<uint64_t>(kChunkElements, n - i);
      std::memcpy(dest.data(), f.vector.data() + i, k * sizeof(int64_t));
      g_sink = g_sink + dest[k - 1];
    }
    vec.push_back(Seconds(t0, Clock::now()));
#ifdef ZU_BENCH_HAVE_STXXL
    {
      const StxxlVector& cv = *f.stxxl;
      t0 = Clock::now();
      StxxlVector::bufreader_type reader(cv);
      uint64_t i = 0;
      for (; !reader.empty(); ++reader) {
        dest[i++] = *reader;
        if (i == kChunkElements) i = 0;
      }
      stx.push_back(Seconds(t0, Clock::now()));
      g_sink = g_sink + dest[0];
    }
#endif
#ifdef ZU_BENCH_HAVE_BOOST
    {
      const int64_t* base = f.boost->v().data();
      t0 = Clock::now();
      for (uint64_t i = 0; i < n; i += kChunkElements) {
        uint64_t k = std::min<uint64_t>(kChunkElements, n - i);
        std::memcpy(dest.data(), base + i, k * sizeof(int64_t));
        g_sink = g_sink + dest[k - 1];
      }
      bst.push_back(Seconds(t0, Clock::now()));
    }
#endif
  }
  r.zu = Rate(n, zu);
  r.std_vector = Rate(n, vec);
  r.stxxl = Rate(n, stx);
  r.boost = Rate(n, bst);
  r.limit_name = "memcpy";
  r.limit = memcpy_rate;
  AddRatio(r, "stxxl", r.stxxl);
  AddRatio(r, "boost", r.boost);
  AddRatio(r, "std::vector", r.std_vector);
  Add(r);
}

// ---------------------------------------------------------------------------------------------
// Warm random reads and searches with fresh keys.
//
// Every round draws new uniformly random keys and hands the same keys to every contender, which
// runs one pass over them; the contenders of a round take turns in a rotating order. Search keys
// are distinct within a round, so no key is repeated inside a measurement: whatever a search
// finds in the CPU caches is there because the structure (or the part every search crosses)
// stays there, not because the same key was looked up a moment before. The data are in the
// page cache and mapped ("warm"); the first pass over a freshly written array is measured
// apart.

// `count` distinct values drawn uniformly from [0, range), in random order.
std::vector<int64_t> FreshKeys(std::mt19937_64& random, size_t count, uint64_t range) {
  count = static_cast<size_t>(std::min<uint64_t>(count, range));
  std::uniform_int_distribution<uint64_t> pick(0, range - 1);
  std::vector<int64_t> keys;
  keys.reserve(count);
  while (keys.size() < count) {
    while (keys.size() < count) keys.push_back(static_cast<int64_t>(pick(random)));
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  }
  std::shuffle(keys.begin(), keys.end(), random);
  return keys;
}

// One contender of a round: runs its operation over the first `limit` keys and returns a
// checksum of the answers; its time per key goes to `ns`.
struct Contender {
  using Pass = std::function<uint64_t(const std::vector<int64_t>&, size_t)>;
  Contender(std::string name_, double* column_, Pass pass_, size_t limit_ = ~size_t{0})
      : name(std::move(name_)), column(column_), pass(std::move(pass_)), limit(limit_) {}
  std::string name;
  double* column;  // where the row keeps its rate
  Pass pass;
  size_t limit;  // a slow peer takes fewer keys of each round
  std::vector<double> ns;
};

// Runs `rounds` rounds; each draws `count` keys below `range` (distinct ones when `distinct`,
// else uniform with repetition, for element indexes) and runs every contender once over them.
// `check` (may be empty) sees the first round's keys after the timed passes.
void RunRounds(std::vector<Contender>& contenders, int rounds, size_t count, uint64_t range,
               bool distinct, uint64_t seed,
               const std::function<void(const std::vector<int64_t>&)>& check) {
  std::mt19937_64 random(seed);
  std::vector<Contender*> order;
  for (Contender& c : contenders) order.push_back(&c);
  for (int round = 0; round < rounds; ++round) {
    std::vector<int64_t> keys;
    if (distinct) {
      keys = FreshKeys(random, count, range);
    } else {
      std::uniform_int_distribution<uint64_t> pick(0, range - 1);
      keys.resize(count);
      for (auto& k : keys) k = static_cast<int64_t>(pick(random));
    }
    std::rotate(order.begin(), order.begin() + round % static_cast<int>(order.size()), order.end());
    for (Contender* c : order) {
      const size_t n = std::min(c->limit, keys.size());
      auto t0 = Clock::now();
      const uint64_t sum = c->pass(keys, n);
      c->ns.push_back(Seconds(t0, Clock::now()) * 1e9 / static_cast<double>(n));
      g_sink = g_sink + static_cast<int64_t>(sum);
    }
    if (round == 0 && check) check(keys);
  }
}

// "name median (fastest-slowest)" in ns per operation for every contender.
std::string NsNote(const std::vector<Contender>& contenders) {
  std::string note = "ns/op median (fastest-slowest round):";
  for (const Contender& c : contenders) {
    const auto [fastest, slowest] = std::minmax_element(c.ns.begin(), c.ns.end());
    note += " " + c.name + " " + Format(Median(c.ns)) + " (" + Format(*fastest) + "-" +
            Format(*slowest) + ")";
  }
  return note;
}

// Fills the row's columns (M ops/s from the median ns) and its ratios against every peer.
void FillRow(Row& r, const std::vector<Contender>& contenders) {
  for (const Contender& c : contenders) *c.column = 1e3 / Median(c.ns);
  for (size_t i = 1; i < contenders.size(); ++i)
    AddRatio(r, contenders[i].name, *contenders[i].column);
  if (contenders.size() > 1 && contenders[1].name == "std::vector") {
    // Round by round: the two ran side by side, so a busy moment of the machine weighs on both.
    std::vector<double> ratio;
    for (size_t i = 0; i < contenders[0].ns.size() && i < contenders[1].ns.size(); ++i) {
      ratio.push_back(contenders[0].ns[i] / contenders[1].ns[i]);
    }
    const auto [low, high] = std::minmax_element(ratio.begin(), ratio.end());
    AddNote(r, "time zu / std::vector, median of the rounds " + Format(Median(ratio)) + " (" +
                   Format(*low) + "-" + Format(*high) + ")");
  }
  AddNote(r, NsNote(contenders));
}

// Keys per round of the searches, as in a batch of lookups a host would run.
constexpr size_t kSearchKeys = 20000;
// Rounds of the warm searches and random reads.
int WarmRounds(uint64_t n) { return n <= (1 << 16) ? 15 : 11; }

enum class SearchOp { kLower, kUpper, kFind };
const char* SearchName(SearchOp op) {
  return op == SearchOp::kLower ? "LowerBound" : op == SearchOp::kUpper ? "UpperBound" : "Find";
}

// One pass of `op` over keys[0, n) through the array interface.
uint64_t ZuPass(IZUArray* a, SearchOp op, const std::vector<int64_t>& keys, size_t n) {
  uint64_t sum = 0;
  if (op == SearchOp::kLower) {
    for (size_t i = 0; i < n; ++i) sum += a->LowerBound(&keys[i]);
  } else if (op == SearchOp::kUpper) {
    for (size_t i = 0; i < n; ++i) sum += a->UpperBound(&keys[i]);
  } else {
    for (size_t i = 0; i < n; ++i) sum += a->Find(&keys[i]);
  }
  return sum;
}

// The same with the standard algorithms over any random-access container (Find: the lower
// bound, then a comparison, the size when absent).
template <typename Container>
uint64_t StdPass(const Container& c, SearchOp op, const std::vector<int64_t>& keys, size_t n) {
  uint64_t sum = 0;
  const auto first = c.begin();
  const auto last = c.end();
  const auto size = static_cast<uint64_t>(last - first);
  for (size_t i = 0; i < n; ++i) {
    const int64_t k = keys[i];
    if (op == SearchOp::kUpper) {
      sum += static_cast<uint64_t>(std::upper_bound(first, last, k) - first);
    } else {
      const auto it = std::lower_bound(first, last, k);
      const auto at = static_cast<uint64_t>(it - first);
      sum += op == SearchOp::kLower || (it != last && *it == k) ? at : size;
    }
  }
  return sum;
}

// The array's answers for the data 0, 2, 4, ... against the standard algorithms (UpperBound of a
// value at or above a segment's last element may answer the next segment's start).
std::string CheckSearches(IZUArray* a, SearchOp op, const std::vector<int64_t>& data,
                          const std::vector<int64_t>& keys) {
  const uint64_t n = data.size();
  const uint64_t segment = (uint64_t{128} << 20) / sizeof(int64_t);
  for (int64_t k : keys) {
    const uint64_t lower = std::lower_bound(data.begin(), data.end(), k) - data.begin();
    const uint64_t upper = std::upper_bound(data.begin(), data.end(), k) - data.begin();
    const bool present = lower < n && data[lower] == k;
    if (op == SearchOp::kLower && a->LowerBound(&k) != lower) return "wrong answers";
    if (op == SearchOp::kFind && a->Find(&k) != (present ? lower : n)) return "wrong answers";
    if (op == SearchOp::kUpper) {
      const uint64_t ub = a->UpperBound(&k);
      if (ub != upper && !(upper == n && ub % segment == 0 && ub >= n)) return "wrong answers";
    }
  }
  return "";
}

// Reads the whole array once, so that every page of its files is mapped for reading in this
// process: the state of an array that has been read before, which the warm rows measure.
void MapForReading(IZUArray* a, uint64_t n) {
  std::vector<int64_t> piece(kChunkElements);
  for (uint64_t i = 0; i < n; i += kChunkElements) {
    a->CopyOut(piece.data(), static_cast<int>(i),
               static_cast<unsigned int>(std::min<uint64_t>(kChunkElements, n - i)));
  }
  g_sink = g_sink + piece[0];
}

// A pass of reads through the floor of a virtual read (bench/floor_reader.h).
Contender::Pass FloorReads(zu_bench::FloorReader* reader) {
  return [reader](const std::vector<int64_t>& idx, size_t count) {
    int64_t out = 0, sum = 0;
    for (size_t i = 0; i < count; ++i) {
      reader->GetAt(static_cast<uint64_t>(idx[i]), &out);
      sum += out;
    }
    return static_cast<uint64_t>(sum);
  };
}

// A pass of inline reads through operator[] of any random-access container.
template <typename Container>
Contender::Pass InlineReads(const Container& c) {
  return [&c](const std::vector<int64_t>& idx, size_t count) {
    int64_t sum = 0;
    for (size_t i = 0; i < count; ++i) sum += c[idx[i]];
    return static_cast<uint64_t>(sum);
  };
}

void RandomGetAt(Filled& f) {
  const uint64_t n = f.vector.size();
  Row r = MakeRow("random GetAt", "file", n, "M ops/s");
  constexpr size_t kReads = size_t{1} << 20;
  std::vector<Contender> contenders;
  contenders.emplace_back("zu", &r.zu, [&](const std::vector<int64_t>& idx, size_t count) {
    IZUArray* array = f.file.get();  // held in a local, as a host's loop holds it
    int64_t out = 0, sum = 0;
    for (size_t i = 0; i < count; ++i) {
      array->GetAt(static_cast<uint64_t>(idx[i]), &out);
      sum += out;
    }
    return static_cast<uint64_t>(sum);
  });
  contenders.emplace_back("std::vector", &r.std_vector, InlineReads(f.vector));
  auto floor_reader = zu_bench::MakeFloorReader(f.vector.data(), f.vector.size());
  double floor_rate = 0;
  contenders.emplace_back("virtual-call floor", &floor_rate, FloorReads(floor_reader.get()));
#ifdef ZU_BENCH_HAVE_STXXL
  const StxxlVector& stxxl = *f.stxxl;
  contenders.emplace_back("stxxl", &r.stxxl, InlineReads(stxxl),
                          64);  // a miss reads a whole 1 MiB block
#endif
#ifdef ZU_BENCH_HAVE_BOOST
  contenders.emplace_back("boost", &r.boost, InlineReads(f.boost->v()));
  // The same floor over a mapped file's memory: what a read through the interface could cost
  // on memory mapped the way the file array's is.
  auto mapped_floor_reader = zu_bench::MakeFloorReader(f.boost->v().data(), f.boost->v().size());
  double mapped_floor_rate = 0;
  contenders.emplace_back("mapped-file floor", &mapped_floor_rate,
                          FloorReads(mapped_floor_reader.get()));
#endif
  RunRounds(contenders, WarmRounds(n), kReads, n, false, 7, {});
  FillRow(r, contenders);
  AddNote(r,
          "1 Mi uniformly random indexes per round, fresh every round; virtual-call floor: a "
          "virtual GetAt that only copies the element from the vector's memory (mapped-file "
          "floor: from Boost's mapped file)");
  Add(r);
}

// Independent random reads in place: zu::Reader over the file array and over a vector array
// (a bound check and a load while the index lies in the run at hand: the whole array here),
// next to std::vector's inline operator[] and Boost's vector over its mapped file.
void RandomReader(Filled& f, IZUArray* vector_array) {
  const uint64_t n = f.vector.size();
  constexpr size_t kReads = size_t{1} << 20;
  for (IZUArray* array : {f.file.get(), vector_array}) {
    const bool file = array == f.file.get();
    Row r = MakeRow("random reader", file ? "file" : "vector", n, "M ops/s");
    std::vector<Contender> contenders;
    contenders.emplace_back("zu", &r.zu, [array](const std::vector<int64_t>& idx, size_t count) {
      const zu::Reader<int64_t> reader(array);
      int64_t sum = 0;
      for (size_t i = 0; i < count; ++i) sum += reader[static_cast<uint64_t>(idx[i])];
      return static_cast<uint64_t>(sum);
    });
    contenders.emplace_back("std::vector", &r.std_vector, InlineReads(f.vector));
#ifdef ZU_BENCH_HAVE_BOOST
    contenders.emplace_back("boost", &r.boost, InlineReads(f.boost->v()));
#endif
    RunRounds(contenders, WarmRounds(n), kReads, n, false, 11, {});
    FillRow(r, contenders);
    AddNote(r,
            "1 Mi uniformly random indexes per round, fresh every round; a new reader each "
            "round (its first read fetches the run)");
    Add(r);
  }
}

// A scan: the sum of every element, run by run in place (for_each_run), next to
// std::accumulate over the vector.
void ScanRuns(Filled& f, IZUArray* vector_array, int reps) {
  const uint64_t n = f.vector.size();
  for (IZUArray* array : {f.file.get(), vector_array}) {
    const bool file = array == f.file.get();
    Row r = MakeRow("scan for_each_run", file ? "file" : "vector", n, "M elem/s");
    std::vector<double> zu, vec;
    for (int rep = 0; rep < reps; ++rep) {
      std::vector<std::function<void()>> runs;
      runs.emplace_back([&] {
        auto t0 = Clock::now();
        int64_t sum = 0;
        zu::ForEachRun<int64_t>(array, 0, n, [&sum](const int64_t* data, size_t k) {
          sum = std::accumulate(data, data + k, sum);
        });
        zu.push_back(Seconds(t0, Clock::now()));
        g_sink = g_sink + sum;
      });
      runs.emplace_back([&] {
        auto t0 = Clock::now();
        const int64_t sum = std::accumulate(f.vector.begin(), f.vector.end(), int64_t{0});
        vec.push_back(Seconds(t0, Clock::now()));
        g_sink = g_sink + sum;
      });
      RunRound(runs, rep);
    }
    r.zu = Rate(n, zu);
    r.std_vector = Rate(n, vec);
    AddRatio(r, "std::vector", r.std_vector);
    std::vector<double> ratio;
    for (size_t i = 0; i < zu.size(); ++i) ratio.push_back(vec[i] / zu[i]);
    const auto [low, high] = std::minmax_element(ratio.begin(), ratio.end());
    AddNote(r, "speed zu / std::accumulate, median of the runs " + Format(Median(ratio)) + " (" +
                   Format(*low) + "-" + Format(*high) + "); runs " + Spread(n, zu) +
                   ", std::accumulate " + Spread(n, vec));
    Add(r);
  }
}

// The next index of a chain of dependent reads: it needs the element just read, so every read
// waits for the one before and pays its whole memory latency (as code that follows links
// does), where independent reads overlap.
inline uint64_t NextInChain(uint64_t index, int64_t value, uint64_t n) {
  return (index * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(value)) % n;
}

void DependentGetAt(Filled& f) {
  const uint64_t n = f.vector.size();
  Row r = MakeRow("random GetAt chained", "file", n, "M ops/s");
  constexpr size_t kReads = size_t{1} << 16;
  std::vector<Contender> contenders;
  contenders.emplace_back("zu", &r.zu, [&](const std::vector<int64_t>& start, size_t count) {
    uint64_t i = static_cast<uint64_t>(start[0]);
    int64_t out = 0;
    for (size_t k = 0; k < count; ++k) {
      f.file->GetAt(i, &out);
      i = NextInChain(i, out, n);
    }
    return i;
  });
  contenders.emplace_back("std::vector", &r.std_vector,
                          [&](const std::vector<int64_t>& start, size_t count) {
                            uint64_t i = static_cast<uint64_t>(start[0]);
                            for (size_t k = 0; k < count; ++k) i = NextInChain(i, f.vector[i], n);
                            return i;
                          });
#ifdef ZU_BENCH_HAVE_STXXL
  contenders.emplace_back(
      "stxxl", &r.stxxl,
      [&](const std::vector<int64_t>& start, size_t count) {
        const StxxlVector& cv = *f.stxxl;
        uint64_t i = static_cast<uint64_t>(start[0]);
        for (size_t k = 0; k < count; ++k) i = NextInChain(i, cv[i], n);
        return i;
      },
      64);
#endif
#ifdef ZU_BENCH_HAVE_BOOST
  contenders.emplace_back("boost", &r.boost, [&](const std::vector<int64_t>& start, size_t count) {
    const BoostVector& v = f.boost->v();
    uint64_t i = static_cast<uint64_t>(start[0]);
    for (size_t k = 0; k < count; ++k) i = NextInChain(i, v[i], n);
    return i;
  });
#endif
  RunRounds(contenders, WarmRounds(n), kReads, n, false, 9, {});
  FillRow(r, contenders);
  AddNote(r,
          "64 Ki reads per round, each index computed from the element read before it, "
          "from a fresh random start every round");
  Add(r);
}

// Warm LowerBound, UpperBound and Find on the file array (all its pages mapped by the reads
// before) next to the standard algorithms over std::vector, the Boost vector and STXXL.
// Returns the file array's median ns of LowerBound, the steady state of the first-pass row.
double SearchWarm(Filled& f) {
  const uint64_t n = f.vector.size();
  double steady = NAN;
  for (SearchOp op : {SearchOp::kLower, SearchOp::kUpper, SearchOp::kFind}) {
    Row r = MakeRow(std::string(SearchName(op)) + " warm", "file", n, "M ops/s");
    std::vector<Contender> contenders;
    contenders.emplace_back("zu", &r.zu, [&, op](const std::vector<int64_t>& k, size_t c) {
      return ZuPass(f.file.get(), op, k, c);
    });
    contenders.emplace_back(
        "std::vector", &r.std_vector,
        [&, op](const std::vector<int64_t>& k, size_t c) { return StdPass(f.vector, op, k, c); });
#ifdef ZU_BENCH_HAVE_STXXL
    contenders.emplace_back(
        "stxxl", &r.stxxl,
        [&, op](const std::vector<int64_t>& k, size_t c) { return StdPass(*f.stxxl, op, k, c); },
        32);  // every step may read a 1 MiB block
#endif
#ifdef ZU_BENCH_HAVE_BOOST
    contenders.emplace_back("boost", &r.boost, [&, op](const std::vector<int64_t>& k, size_t c) {
      return StdPass(f.boost->v(), op, k, c);
    });
#endif
    RunRounds(contenders, WarmRounds(n), kSearchKeys, 2 * n, true, 11 + static_cast<int>(op),
              [&](const std::vector<int64_t>& keys) {
                AddNote(r, CheckSearches(f.file.get(), op, f.vector, keys));
              });
    FillRow(r, contenders);
    if (op == SearchOp::kLower) steady = Median(contenders[0].ns);
    Add(r);
  }
  return steady;
}

// How a first-pass row fills its array: one AppendBuffer of everything, AppendBuffer calls of
// 1 MiB each, single appends through zu::Appender (which hands over 64 KiB blocks), or a
// virtual Append per element (the array's own stage writes them).
enum class Fill { kOneBuffer, kMiBBuffers, kAppender, kAppend };
constexpr Fill kFills[] = {Fill::kOneBuffer, Fill::kMiBBuffers, Fill::kAppender, Fill::kAppend};
const char* FillName(Fill fill) {
  switch (fill) {
    case Fill::kOneBuffer:
      return "buffer";
    case Fill::kMiBBuffers:
      return "1mib";
    case Fill::kAppender:
      return "appender";
    case Fill::kAppend:
      return "append";
  }
  return "";
}
// The row's name: the one-buffer row keeps the name earlier results have.
std::string FirstPassScenario(Fill fill) {
  return fill == Fill::kOneBuffer ? "LowerBound first pass"
                                  : std::string("LowerBound first pass ") + FillName(fill);
}

bool FillArray(IZUArray* a, const std::vector<int64_t>& src, Fill fill) {
  const uint64_t n = src.size();
  switch (fill) {
    case Fill::kOneBuffer:
      return a->AppendBuffer(src.data(), n) == kZuOk;
    case Fill::kMiBBuffers: {
      constexpr uint64_t kPiece = (1 << 20) / sizeof(int64_t);
      for (uint64_t i = 0; i < n; i += kPiece) {
        if (a->AppendBuffer(src.data() + i, std::min(kPiece, n - i)) != kZuOk) return false;
      }
      return true;
    }
    case Fill::kAppender: {
      zu::Appender<int64_t> out(a);
      for (const int64_t v : src) out.push_back(v);
      return out.flush() == zu::Status::ok;
    }
    case Fill::kAppend:
      for (const int64_t& v : src) a->Append(&v);
      return a->GetSize() == n;
  }
  return false;
}

// The first pass of LowerBound over a freshly written file array: its pages are in the page
// cache (just written) but not yet mapped for reading in this process. Each run writes a new
// array (filled as `fill` says) and searches it three times with fresh keys; the first pass is
// set against the two after it on the same array (its steady state, in the same conditions),
// and against the steady state of the warm rows (`steady_ns`, a fully mapped array).
void SearchFirstPass(const std::vector<int64_t>& src, double steady_ns, Fill fill) {
  const uint64_t n = src.size();
  const int runs = n <= (1 << 16) ? 7 : n <= (1 << 22) ? 5 : 3;
  std::mt19937_64 random(17);
  std::vector<double> first, later, ratio, vec, vec_ratio, mapped, large;
  std::string wrong;
  for (int run = 0; run < runs; ++run) {
    // Earlier writers' dirty pages are written back first, so that no write-back runs while
    // the passes are timed; the new array's own pages stay dirty in the page cache.
    g_dir->Settle();
    const std::vector<std::string> before = g_dir->DataFiles();
    std::unique_ptr<IZUArray> a(NewArray("file"));
    if (!FillArray(a.get(), src, fill)) wrong = "append failed";
    // What the array's views map before the first pass, and how much of it by 2 MiB entries.
    std::vector<std::string> own;
    const std::vector<std::string> after = g_dir->DataFiles();
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(own));
    const auto [rss_kib, pmd_kib] = g_dir->MappedKiB(own);
    mapped.push_back(static_cast<double>(rss_kib) / 1024);
    large.push_back(static_cast<double>(pmd_kib) / 1024);
    double pass_ns[3];
    for (double& ns : pass_ns) {
      const std::vector<int64_t> keys = FreshKeys(random, kSearchKeys, 2 * n);
      auto t0 = Clock::now();
      g_sink = g_sink + static_cast<int64_t>(ZuPass(a.get(), SearchOp::kLower, keys, keys.size()));
      ns = Seconds(t0, Clock::now()) * 1e9 / static_cast<double>(keys.size());
      if (&ns != pass_ns) continue;
      t0 = Clock::now();
      g_sink = g_sink + static_cast<int64_t>(StdPass(src, SearchOp::kLower, keys, keys.size()));
      vec.push_back(Seconds(t0, Clock::now()) * 1e9 / static_cast<double>(keys.size()));
    }
    first.push_back(pass_ns[0]);
    later.push_back((pass_ns[1] + pass_ns[2]) / 2);
    ratio.push_back(pass_ns[0] / later.back());
    a.reset();
    // The same three passes over a freshly written std::vector: what a first pass costs where
    // nothing is to be mapped (the CPU caches are as cold).
    const std::vector<int64_t> copy(src);
    for (double& ns : pass_ns) {
      const std::vector<int64_t> keys = FreshKeys(random, kSearchKeys, 2 * n);
      auto t0 = Clock::now();
      g_sink = g_sink + static_cast<int64_t>(StdPass(copy, SearchOp::kLower, keys, keys.size()));
      ns = Seconds(t0, Clock::now()) * 1e9 / static_cast<double>(keys.size());
    }
    vec_ratio.push_back(pass_ns[0] / ((pass_ns[1] + pass_ns[2]) / 2));
  }
  Row r = MakeRow(FirstPassScenario(fill), "file", n, "M ops/s");
  r.zu = 1e3 / Median(first);
  r.std_vector = 1e3 / Median(vec);
  r.limit_name = "next";
  r.limit = 1e3 / Median(later);
  AddRatio(r, "next passes", r.limit);
  AddRatio(r, "std::vector", r.std_vector);
  const auto [low, high] = std::minmax_element(ratio.begin(), ratio.end());
  AddNote(r, wrong);
  AddNote(r, "time first pass / the next two on the same array, median of the runs " +
                 Format(Median(ratio)) + " (" + Format(*low) + "-" + Format(*high) +
                 "); ns/op: first pass " + Format(Median(first)) + ", next passes " +
                 Format(Median(later)) + ", warm rows " + Format(steady_ns) +
                 ", std::vector over the first pass's keys " + Format(Median(vec)) +
                 "; a freshly written std::vector, first pass / next two " +
                 Format(Median(vec_ratio)) + "; mapped before the first pass " +
                 Format(Median(mapped)) + " MiB, " + Format(Median(large)) +
                 " MiB of it by 2 MiB entries; a new array for each of " + std::to_string(runs) +
                 " runs");
  Add(r);
}

// Warm searches on the self-spilling arrays once they live in files, next to the standard
// algorithms over std::vector and std::deque holding the same data.
void AutoSearchWarm(const std::vector<int64_t>& src) {
  const uint64_t n = src.size();
  if (n <= zu::kSpillThreshold) return;
  std::deque<int64_t> deque(src.begin(), src.end());
  for (const std::string kind : {"auto", "autovector"}) {
    std::unique_ptr<IZUArray> a(NewArray(kind));
    if (a->AppendBuffer(src.data(), n) != kZuOk) continue;
    MapForReading(a.get(), n);
    for (SearchOp op : {SearchOp::kLower, SearchOp::kUpper, SearchOp::kFind}) {
      Row r = MakeRow(std::string(SearchName(op)) + " warm", kind, n, "M ops/s");
      std::vector<Contender> contenders;
      contenders.emplace_back("zu", &r.zu, [&, op](const std::vector<int64_t>& k, size_t c) {
        return ZuPass(a.get(), op, k, c);
      });
      contenders.emplace_back(
          "std::vector", &r.std_vector,
          [&, op](const std::vector<int64_t>& k, size_t c) { return StdPass(src, op, k, c); });
      contenders.emplace_back(
          "std::deque", &r.std_deque,
          [&, op](const std::vector<int64_t>& k, size_t c) { return StdPass(deque, op, k, c); });
      RunRounds(contenders, WarmRounds(n), kSearchKeys, 2 * n, true, 23 + static_cast<int>(op),
                [&](const std::vector<int64_t>& keys) {
                  AddNote(r, CheckSearches(a.get(), op, src, keys));
                });
      FillRow(r, contenders);
      AddNote(r, "spilled into files");
      Add(r);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Batched searches: one ZuSearchBatch call over a whole batch of fresh keys, on a file array and
// on a vector array, next to one standard search per key over std::vector holding the same
// data, all three over the same keys of each round.

// Keys of a batch, at most half the distinct keys [0, 2n) holds (n at 64 Ki elements).
constexpr size_t kBatchKeys = size_t{1} << 20;
// Rounds of the batch rows: a round at a gigabyte takes a second, most of it the per-key
// standard searches.
int BatchRounds(uint64_t n) { return n <= (1 << 22) ? 11 : 7; }

ZuSearch BatchSearchOf(SearchOp op) {
  return op == SearchOp::kLower   ? kZuSearchLowerBound
         : op == SearchOp::kUpper ? kZuSearchUpperBound
                                  : kZuSearchFind;
}

// A batch through ZuSearchBatch into `out` (allocated once, as a host would keep it).
Contender::Pass BatchPass(IZUArray* a, SearchOp op, std::vector<uint64_t>* out) {
  return [a, op, out](const std::vector<int64_t>& keys, size_t count) {
    if (!ZuSearchBatch(a, BatchSearchOf(op), keys.data(), count, out->data())) return ~uint64_t{0};
    return (*out)[0] ^ (*out)[count - 1];
  };
}

// The batch's answers against one call of the array's own search for every fourth key (the
// file array's UpperBound answers a segment's end above the last element; the batch must too).
std::string CheckBatch(IZUArray* a, SearchOp op, const std::vector<int64_t>& keys) {
  std::vector<uint64_t> out(keys.size());
  if (!ZuSearchBatch(a, BatchSearchOf(op), keys.data(), keys.size(), out.data())) {
    return "batch refused";
  }
  for (size_t i = 0; i < keys.size(); i += 4) {
    const void* k = &keys[i];
    const uint64_t one = op == SearchOp::kLower   ? a->LowerBound(k)
                         : op == SearchOp::kUpper ? a->UpperBound(k)
                                                  : a->Find(k);
    if (out[i] != one) return "wrong answers";
  }
  return "";
}

// The row of one array's batches next to the per-key standard searches: rates from the median
// times, and the time of a batch over the time of the standard searches, round by round.
void AddBatchRow(Row r, const Contender& zu, const Contender& peer,
                 const std::vector<Contender>& all) {
  r.zu = 1e3 / Median(zu.ns);
  r.std_vector = 1e3 / Median(peer.ns);
  AddRatio(r, "std::vector", r.std_vector);
  std::vector<double> ratio;
  for (size_t i = 0; i < zu.ns.size() && i < peer.ns.size(); ++i) {
    ratio.push_back(zu.ns[i] / peer.ns[i]);
  }
  const auto [low, high] = std::minmax_element(ratio.begin(), ratio.end());
  AddNote(r, "time batch / std::vector per key, median of the rounds " + Format(Median(ratio)) +
                 " (" + Format(*low) + "-" + Format(*high) + ")");
  AddNote(r, NsNote(all));
  Add(r);
}

void SearchBatches(const std::vector<int64_t>& src) {
  const uint64_t n = src.size();
  std::unique_ptr<IZUArray> file(NewArray("file"));
  std::unique_ptr<IZUArray> vector(NewArray("vector"));
  if (file->AppendBuffer(src.data(), n) != kZuOk || vector->AppendBuffer(src.data(), n) != kZuOk) {
    std::printf("batch searches: append failed\n");
    return;
  }
  MapForReading(file.get(), n);
  std::vector<uint64_t> file_out(kBatchKeys), vector_out(kBatchKeys);
  for (SearchOp op : {SearchOp::kLower, SearchOp::kUpper, SearchOp::kFind}) {
    const std::string scenario = std::string(SearchName(op)) + " batch";
    std::vector<Contender> contenders;
    double file_rate = 0, std_rate = 0, vector_rate = 0;
    contenders.emplace_back("zu file", &file_rate, BatchPass(file.get(), op, &file_out));
    contenders.emplace_back(
        "std::vector", &std_rate,
        [&src, op](const std::vector<int64_t>& k, size_t c) { return StdPass(src, op, k, c); });
    contenders.emplace_back("zu vector", &vector_rate, BatchPass(vector.get(), op, &vector_out));
    std::string wrong;
    const size_t keys = static_cast<size_t>(std::min<uint64_t>(kBatchKeys, n));
    RunRounds(contenders, BatchRounds(n), keys, 2 * n, true, 31 + static_cast<int>(op),
              [&](const std::vector<int64_t>& keys) {
                wrong = CheckBatch(file.get(), op, keys);
                if (wrong.empty()) wrong = CheckBatch(vector.get(), op, keys);
              });
    for (int kind = 0; kind < 2; ++kind) {
      Row r = MakeRow(scenario, kind == 0 ? "file" : "vector", n, "M ops/s");
      AddNote(r, wrong);
      AddBatchRow(r, contenders[kind == 0 ? 0 : 2], contenders[1], contenders);
    }
  }
}

// Cold: the page cache of every data file is written back and dropped before each batch. Rates
// count the searches only; the bytes read per search come from /proc/self/io.
void LowerBoundCold(Filled& f) {
  const uint64_t n = f.vector.size();
  constexpr int kBatches = 8;
  constexpr int kPerBatch = 32;
  std::mt19937_64 random(13);
  std::vector<int64_t> keys(kBatches * kPerBatch);
  for (auto& k : keys) k = static_cast<int64_t>(random() % (2 * n));
  struct Cold {
    double rate = NAN, bytes = NAN, faults = NAN;
  };
  auto measure = [&](const std::function<uint64_t(int64_t)>& search,
                     const std::function<void()>& drop) {
    double seconds = 0;
    int64_t bytes = 0, faults = 0;
    uint64_t sum = 0;
    for (int b = 0; b < kBatches; ++b) {
      drop();
      int64_t bytes0 = ReadBytes(), faults0 = MajorFaults();
      auto t0 = Clock::now();
      for (int k = 0; k < kPerBatch; ++k) sum += search(keys[b * kPerBatch + k]);
      seconds += Seconds(t0, Clock::now());
      bytes += ReadBytes() - bytes0;
      faults += MajorFaults() - faults0;
    }
    g_sink = g_sink + static_cast<int64_t>(sum);
    Cold c;
    const double searches = kBatches * kPerBatch;
    c.rate = searches / seconds / 1e3;
    c.bytes = static_cast<double>(bytes) / searches;
    c.faults = static_cast<double>(faults) / searches;
    return c;
  };
  Cold zu = measure([&](int64_t k) { return f.file->LowerBound(&k); }, [] { g_dir->DropCache(); });
  Cold bst;
#ifdef ZU_BENCH_HAVE_BOOST
  bst = measure(
      [&](int64_t k) {
        const BoostVector& v = f.boost->v();
        return static_cast<uint64_t>(std::lower_bound(v.begin(), v.end(), k) - v.begin());
      },
      [&] { f.boost->ReopenCold(); });
#endif
  Row rate = MakeRow("LowerBound cold", "file", n, "K ops/s");
  rate.zu = zu.rate;
  rate.boost = bst.rate;
  AddRatio(rate, "boost", rate.boost);
  Add(rate);
  Row bytes = MakeRow("cold bytes read/search", "file", n, "bytes");
  bytes.zu = zu.bytes;
  bytes.boost = bst.bytes;
  bytes.limit_name = "page";
  bytes.limit = 4096;
  AddRatio(bytes, "boost", bytes.boost, true);
  char note[96];
  std::snprintf(note, sizeof note, "major faults/search: zu %.2f, boost %.2f", zu.faults,
                bst.faults);
  bytes.note = note;
  Add(bytes);
}

// The move of a self-spilling int64 array at the threshold, next to one AppendBuffer of the
// same elements into a fresh file array; then the parts the move is made of, timed alone.
void Spill(int reps) {
  const uint64_t n = zu::kSpillThreshold;
  std::vector<int64_t> src = SortedSource(n);
  std::vector<double> spill, bulk, read_out, destroy, small_appends, large_appends;
  for (int rep = 0; rep < reps; ++rep) {
    {
      std::unique_ptr<IZUArray> a(NewArray("auto"));
      a->AppendBuffer(src.data(), n - 1);
      a->Append(&src[n - 1]);
      int64_t next = src[n - 1] + 2;
      g_dir->Settle();
      auto t0 = Clock::now();
      int rc = a->Append(&next);
      spill.push_back(Seconds(t0, Clock::now()));
      if (rc != kZuOk || a->GetSize() != n + 1) std::printf("spill failed\n");
    }
    {
      std::unique_ptr<IZUArray> a(NewArray("file"));
      g_dir->Settle();
      auto t0 = Clock::now();
      a->AppendBuffer(src.data(), n);
      bulk.push_back(Seconds(t0, Clock::now()));
    }
    {  // the parts: read the deque out in 8192-element pieces, destroy it, 8192-element appends
      std::unique_ptr<IZUArray> d(NewArray("deque"));
      d->AppendBuffer(src.data(), n);
      std::vector<int64_t> piece(zu::kMigrateChunk);
      auto t0 = Clock::now();
      for (uint64_t i = 0; i < n; i += zu::kMigrateChunk)
        d->CopyOut(piece.data(), static_cast<int>(i), zu::kMigrateChunk);
      read_out.push_back(Seconds(t0, Clock::now()));
      g_sink = g_sink + piece[0];
      t0 = Clock::now();
      d.reset();
      destroy.push_back(Seconds(t0, Clock::now()));
      std::unique_ptr<IZUArray> a(NewArray("file"));
      g_dir->Settle();
      t0 = Clock::now();
      for (uint64_t i = 0; i < n; i += zu::kMigrateChunk)
        a->AppendBuffer(src.data() + i, zu::kMigrateChunk);
      small_appends.push_back(Seconds(t0, Clock::now()));
      a.reset();
      // The same in pieces of 8 MiB, which grow the segment 8 times instead of 64.
      constexpr uint64_t kLargePiece = (uint64_t{8} << 20) / sizeof(int64_t);
      a.reset(NewArray("file"));
      g_dir->Settle();
      t0 = Clock::now();
      for (uint64_t i = 0; i < n; i += kLargePiece) a->AppendBuffer(src.data() + i, kLargePiece);
      large_appends.push_back(Seconds(t0, Clock::now()));
    }
  }
  Row r = MakeRow("spill at threshold", "auto", n, "M elem/s");
  r.zu = Rate(n, spill);
  r.limit_name = "file AB";
  r.limit = Rate(n, bulk);
  AddRatio(r, "file AppendBuffer", r.limit);
  char note[240];
  std::snprintf(note, sizeof note,
                "ms: move %.0f, one AppendBuffer %.0f; parts: deque read-out %.0f, deque "
                "destroy %.0f, AppendBuffer by %u %.0f, by 1048576 %.0f",
                Median(spill) * 1e3, Median(bulk) * 1e3, Median(read_out) * 1e3,
                Median(destroy) * 1e3, zu::kMigrateChunk, Median(small_appends) * 1e3,
                Median(large_appends) * 1e3);
  r.note = note;
  Add(r);
}

// Resident memory while a file array takes `bytes` of int64 data in 8 MiB appends; anonymous
// memory is counted from just before the array exists.
void Resident(uint64_t bytes) {
  const uint64_t piece = (uint64_t{8} << 20) / sizeof(int64_t);
  const uint64_t n = bytes / sizeof(int64_t);
  std::vector<int64_t> buffer(piece, 0);
  ::malloc_trim(0);  // freed heap of earlier scenarios would hide what the array takes
  const long anon0 = StatusKiB("RssAnon:");
  long anon_peak = 0, file_peak = 0;
  double seconds = 0;
  {
    std::unique_ptr<IZUArray> a(NewArray("file"));
    auto t0 = Clock::now();
    for (uint64_t done = 0; done < n; done += piece) {
      for (uint64_t i = 0; i < piece; ++i) buffer[i] = static_cast<int64_t>(done + i);
      a->AppendBuffer(buffer.data(), piece);
      if ((done / piece) % 16 == 0 || done + piece >= n) {
        anon_peak = std::max(anon_peak, StatusKiB("RssAnon:") - anon0);
        file_peak = std::max(file_peak, StatusKiB("RssFile:"));
      }
    }
    seconds = Seconds(t0, Clock::now());
    if (a->GetSize() != n) std::printf("resident: size mismatch\n");
  }
  const double samples_mib = static_cast<double>(bytes / 4096 * sizeof(int64_t)) / 1048576.0;
  Row r = MakeRow("anon RSS while appending", "file", n, "MiB");
  r.zu = anon_peak / 1024.0;
  r.limit_name = "16+smp";
  r.limit = 16 + samples_mib;
  AddRatio(r, "allowance", r.limit, true);
  char note[160];
  std::snprintf(note, sizeof note,
                "%.1f GiB in %.1f s; RssAnon before %.1f MiB; peak RssFile %.0f MiB; samples "
                "%.1f MiB",
                static_cast<double>(bytes) / (1 << 30), seconds, anon0 / 1024.0, file_peak / 1024.0,
                samples_mib);
  r.note = note;
  Add(r);
}

// ---------------------------------------------------------------------------------------------
// Output.

std::string JsonEscape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string JsonNumber(double v) {
  if (std::isnan(v)) return "null";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.6g", v);
  return buffer;
}

struct Machine {
  std::string cpu, kernel, memory, disk, load_start, load_end;
  long cores = 0;
};

Machine Describe(const fs::path& dir) {
  Machine m;
  m.cores = ::sysconf(_SC_NPROCESSORS_ONLN);
  utsname u{};
  ::uname(&u);
  m.kernel = std::string(u.sysname) + " " + u.release + " " + u.machine;
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) {
      m.cpu = line.substr(line.find(':') + 2);
      break;
    }
  }
  char buffer[128];
  std::snprintf(
      buffer, sizeof buffer, "%.1f GiB",
      static_cast<double>(::sysconf(_SC_PHYS_PAGES)) * ::sysconf(_SC_PAGESIZE) / (1 << 30));
  m.memory = buffer;
  std::error_code ec;
  auto space = fs::space(dir, ec);
  struct stat st {};
  ::stat(dir.c_str(), &st);
  std::string device = std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev));
  std::string model = ReadFirstLine("/sys/dev/block/" + device + "/device/model");
  std::string rotational = ReadFirstLine("/sys/dev/block/" + device + "/queue/rotational");
  std::snprintf(buffer, sizeof buffer, "%s (dev %s%s%s), %.0f GiB, %.0f GiB free",
                dir.parent_path().c_str(), device.c_str(), model.empty() ? "" : ", ", model.c_str(),
                static_cast<double>(space.capacity) / (1 << 30),
                static_cast<double>(space.available) / (1 << 30));
  m.disk = buffer;
  if (rotational == "0") m.disk += ", non-rotational";
  if (rotational == "1") m.disk += ", rotational";
  return m;
}

const char kNotes[] =
    "Notes: limits are memcpy of the same bytes between two touched buffers and pwrite of the "
    "same bytes in 8 MiB pieces to a new file in the data directory, measured in the same run; "
    "every writer starts after the file system's dirty pages are written back. Warm searches "
    "and random reads run in rounds (15 at 64 Ki elements, 11 above); each round draws fresh "
    "uniformly random keys (20,000 distinct search keys in [0, 2n) over the data 0, 2, 4, ..., "
    "or 1 Mi element indexes; 64 Ki chained reads from a random start) and runs every "
    "contender once over the same keys, in an order that rotates from round to round (STXXL "
    "takes only the first 32 or 64 keys of a round); the data are in the page cache and every "
    "page of the file array was read before. The first-pass row writes a new file array for "
    "each run and searches it three times at once, each pass with fresh keys. Cold searches "
    "run in batches of 32; before each batch every data file is written back and dropped from "
    "the page cache (posix_fadvise POSIX_FADV_DONTNEED; the Boost file is unmapped first, since "
    "mapped pages stay; this process's mappings of the data files are zapped with "
    "MADV_DONTNEED first, as memory pressure would); bytes read come from /proc/self/io "
    "read_bytes. stxxl::vector uses 1 MiB blocks and a cache of two blocks, "
    "its disk a file in the data directory (syscall, unlink, no direct I/O). The anonymous "
    "memory row counts RssAnon growth from just before the file array exists; the allowance is "
    "16 MiB plus one int64 sample per 4 KiB page of data. Batch rows: each round draws 1 Mi "
    "distinct keys in [0, 2n) (64 Ki at 64 Ki elements), fresh every round; a "
    "batch is one ZuSearchBatch call over all of them (sorting included) into a buffer kept "
    "between rounds, on a file array whose pages were all read before and on a vector array; "
    "std::vector runs std::lower_bound (upper_bound; lower_bound and a comparison) per key over "
    "the same data; the first round's answers are checked against the array's own search for "
    "every fourth key.\n";

void WriteResults(const fs::path& out, const Machine& m, double total_seconds) {
  fs::create_directories(out);
  {
    std::ofstream md(out / "results.md");
    md << "# zu-bench results\n\n";
    md << "Machine: " << m.cores << " cores (" << m.cpu << "), " << m.memory << " memory, "
       << m.kernel << "; data directory on " << m.disk << ".\n";
    md << "Load average (1, 5, 15 min) at start " << m.load_start << ", at end " << m.load_end
       << "; run took " << Format(total_seconds) << " s.\n\n";
    md << "Values are medians; ratios are this library over the peer (above 1: this library is "
          "faster, or for bytes and MiB: uses less). Elements are int64_t.\n\n";
    md << "| scenario | kind | elements | unit | zu | std::vector | std::deque | stxxl::vector "
          "| boost.ipc | limit | ratios | note |\n";
    md << "|---|---|--:|---|--:|--:|--:|--:|--:|--:|---|---|\n";
    for (const Row& r : g_rows) {
      md << "| " << r.scenario << " | " << r.kind << " | " << r.elements << " | " << r.unit << " | "
         << Format(r.zu) << " | " << Format(r.std_vector) << " | " << Format(r.std_deque) << " | "
         << Format(r.stxxl) << " | " << Format(r.boost) << " | " << Format(r.limit)
         << (r.limit_name.empty() ? "" : " " + r.limit_name) << " | " << RatioText(r) << " | "
         << r.note << " |\n";
    }
    md << "\n" << kNotes;
  }
  {
    std::ofstream js(out / "results.json");
    js << "{\n  \"machine\": {\"cores\": " << m.cores << ", \"cpu\": \"" << JsonEscape(m.cpu)
       << "\", \"memory\": \"" << m.memory << "\", \"kernel\": \"" << JsonEscape(m.kernel)
       << "\", \"disk\": \"" << JsonEscape(m.disk) << "\", \"load_start\": \"" << m.load_start
       << "\", \"load_end\": \"" << m.load_end << "\", \"seconds\": " << JsonNumber(total_seconds)
       << "},\n  \"rows\": [\n";
    for (size_t i = 0; i < g_rows.size(); ++i) {
      const Row& r = g_rows[i];
      js << "    {\"scenario\": \"" << r.scenario << "\", \"kind\": \"" << r.kind
         << "\", \"elements\": " << r.elements << ", \"unit\": \"" << r.unit
         << "\", \"zu\": " << JsonNumber(r.zu) << ", \"std_vector\": " << JsonNumber(r.std_vector)
         << ", \"std_deque\": " << JsonNumber(r.std_deque) << ", \"stxxl\": " << JsonNumber(r.stxxl)
         << ", \"boost\": " << JsonNumber(r.boost) << ", \"limit_name\": \"" << r.limit_name
         << "\", \"limit\": " << JsonNumber(r.limit) << ", \"ratios\": {";
      for (size_t k = 0; k < r.ratios.size(); ++k) {
        js << (k ? ", " : "") << "\"" << JsonEscape(r.ratios[k].first)
           << "\": " << JsonNumber(r.ratios[k].second);
      }
      js << "}, \"note\": \"" << JsonEscape(r.note) << "\"}" << (i + 1 < g_rows.size() ? "," : "")
         << "\n";
    }
    js << "  ]\n}\n";
  }
  {  // one block per scenario and kind with at least two sizes, for gnuplot (index n)
    std::ofstream tsv(out / "results.tsv");
    std::vector<std::pair<std::string, std::string>> seen;
    for (const Row& r : g_rows) {
      auto key = std::make_pair(r.scenario, r.kind);
      if (std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
      int count = 0;
      for (const Row& s : g_rows) count += s.scenario == r.scenario && s.kind == r.kind;
      if (count < 2) continue;
      seen.push_back(key);
      tsv << "# " << r.scenario << " (" << r.kind << ", " << r.unit << ")\n";
      tsv << "elements\tzu\tstd::vector\tstd::deque\tstxxl\tboost\t" << r.limit_name << "\n";
      for (const Row& s : g_rows) {
        if (s.scenario != r.scenario || s.kind != r.kind) continue;
        auto v = [](double x) { return std::isnan(x) ? std::string("NaN") : JsonNumber(x); };
        tsv << s.elements << "\t" << v(s.zu) << "\t" << v(s.std_vector) << "\t" << v(s.std_deque)
            << "\t" << v(s.stxxl) << "\t" << v(s.boost) << "\t" << v(s.limit) << "\n";
      }
      tsv << "\n\n";
    }
  }
}

}  // namespace

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

int main(int argc, char** argv) {
  fs::path out = "docs/bench";
  double rss_gib = 8;
  bool quick = false;
  std::vector<uint64_t> chosen_sizes;
  std::vector<std::string> only;  // empty: every scenario
  std::vector<std::string> kinds = {"vector", "deque", "auto", "file"};
  std::vector<std::string> fills;  // empty: every fill of the first-pass rows
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--out" && i + 1 < argc) {
      out = argv[++i];
    } else if (arg == "--rss-gib" && i + 1 < argc) {
      rss_gib = std::atof(argv[++i]);
    } else if (arg == "--quick") {
      quick = true;
    } else if (arg == "--sizes" && i + 1 < argc) {
      for (const std::string& n : SplitList(argv[++i])) {
        chosen_sizes.push_back(std::strtoull(n.c_str(), nullptr, 10));
      }
    } else if (arg == "--only" && i + 1 < argc) {
      only = SplitList(argv[++i]);
    } else if (arg == "--kinds" && i + 1 < argc) {
      kinds = SplitList(argv[++i]);
    } else if (arg == "--fills" && i + 1 < argc) {
      fills = SplitList(argv[++i]);
    } else {
      std::fprintf(stderr,
                   "usage: zu-bench [--out DIR] [--rss-gib N] [--quick] [--sizes N,...] "
                   "[--only append,bulk,read,getat,direct,lbwarm,first,autowarm,lbcold,batch,"
                   "spill,rss] [--kinds vector,deque,auto,file] "
                   "[--fills buffer,1mib,appender,append]\n");
      return 2;
    }
  }
  auto wanted = [&only](const char* name) { return only.empty() || Contains(only, name); };
  DataDir dir;
  g_dir = &dir;
  Machine machine = Describe(dir.path());
  machine.load_start = LoadAverage();
  auto run_start = Clock::now();
#ifdef ZU_BENCH_HAVE_STXXL
  ConfigureStxxl(dir.path(), 4);
#endif
  // In cache; comfortably in memory (below the spill threshold); 16x the spill threshold.
  std::vector<uint64_t> sizes = quick ? std::vector<uint64_t>{1 << 16, 1 << 20, uint64_t{1} << 24}
                                      : std::vector<uint64_t>{1 << 16, 1 << 22, uint64_t{1} << 27};
  if (!chosen_sizes.empty()) sizes = chosen_sizes;
  std::printf("data directory %s; load %s\n", dir.path().c_str(), machine.load_start.c_str());
  std::printf("%-22s %-6s %11s %-10s %9s %9s %9s %9s %9s %9s %-7s  %s\n", "scenario", "kind",
              "elements", "unit", "zu", "vector", "deque", "stxxl", "boost", "limit", "",
              "ratios (zu / peer)");
  for (uint64_t n : sizes) {
    // Medians of seven runs or more, also at the largest size: there, on this kind of machine,
    // single runs of any writer into fresh page-cache pages spread by a factor of four or more
    // with whatever the host did at that moment.
    const int reps = n <= (1 << 16) ? 7 : 9;
    const std::vector<int64_t> src = SortedSource(n);
    const double memcpy_rate = MemcpyRate(src, std::max(reps, 3));
    if (wanted("append")) {
      for (const std::string& kind : kinds) AppendOne(kind, src, reps);
    }
    if (wanted("batch")) SearchBatches(src);
    if (!(wanted("bulk") || wanted("read") || wanted("getat") || wanted("direct") ||
          wanted("lbwarm") || wanted("first") || wanted("autowarm") || wanted("lbcold"))) {
      continue;
    }
    Filled filled;
    AppendBulk(src, reps, memcpy_rate, &filled);
    if (wanted("read")) ReadSequential(filled, std::max(reps, 2), memcpy_rate);
    if (wanted("getat") || wanted("direct") || wanted("lbwarm") || wanted("first")) {
      MapForReading(filled.file.get(), n);
    }
    if (wanted("getat")) {
      RandomGetAt(filled);
      DependentGetAt(filled);
    }
    if (wanted("direct")) {
      std::unique_ptr<IZUArray> vector_array(NewArray("vector"));
      vector_array->AppendBuffer(src.data(), n);
      RandomReader(filled, vector_array.get());
      ScanRuns(filled, vector_array.get(), reps);
    }
    double steady = NAN;
    if (wanted("lbwarm")) steady = SearchWarm(filled);
    if (wanted("first")) {
      if (std::isnan(steady)) steady = SearchWarm(filled);
      for (Fill fill : kFills) {
        if (fills.empty() || Contains(fills, FillName(fill))) SearchFirstPass(src, steady, fill);
      }
    }
    if (wanted("autowarm")) AutoSearchWarm(src);
    if (wanted("lbcold")) LowerBoundCold(filled);
  }
  if (wanted("spill")) Spill(3);
  if (wanted("rss")) Resident(static_cast<uint64_t>(rss_gib * (1 << 30)) / (8 << 20) * (8 << 20));
  machine.load_end = LoadAverage();
  const double total = Seconds(run_start, Clock::now());
  std::printf("load at end %s; %.0f s\n", machine.load_end.c_str(), total);
  WriteResults(out, machine, total);
  return static_cast<int>(g_sink & 0);
}
