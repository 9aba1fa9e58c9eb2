// zu_appender_bench: one-by-one appends through zu::Appender into every owning array kind,
// next to std::vector::push_back, in one process run, in cache and at 50 M int64_t elements.
//
// Each repetition runs every contender once, in an order that rotates from one repetition to
// the next, each into a fresh container and with a fresh input sequence (a new first value).
// The timed part is the filling loop and the final flush; making and destroying the container
// are not timed. Reported per contender: the median time per element with the fastest and
// slowest repetition, and the speed over std::vector::push_back as the median of the
// repetitions' own ratios, with their range; both in wall time and in the thread's CPU time
// (which a busy machine's other work does not inflate; the fills start no threads, and the
// kernel's copies into the page cache run in the filling thread).
//
// Sizes run largest first with the allocator as a host finds it. An in-cache size (at most
// kInCacheBytes of data) then keeps freed memory in the heap, and runs each contender's fills
// of a repetition in a child process of their own, after one untimed fill (see InChild).
//
// Usage: zu_appender_bench [--sizes N,...] [--reps N]   (default 50000000,65536 and 9)
// ZU_BENCH_DIR chooses the parent of the data directory (default: the temp directory).
#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "zu_data_manager/array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Repetitions in cache are repeated fills until a sample holds this many elements.
constexpr uint64_t kSampleElements = uint64_t{1} << 22;
constexpr uint64_t kInCacheBytes = uint64_t{4} << 20;

// Wall and thread CPU seconds of one fill; negative when the container ended wrong.
struct Sample {
  double wall = 0, cpu = 0;
};

double ThreadCpu() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

class Timer {
 public:
  Timer() : wall_(Clock::now()), cpu_(ThreadCpu()) {}
  Sample Stop() const {
    return {std::chrono::duration<double>(Clock::now() - wall_).count(), ThreadCpu() - cpu_};
  }

 private:
  Clock::time_point wall_;
  double cpu_;
};

struct Contender {
  const char* name;
  // Fills a fresh container with n values from `first` up and times the filling; a negative
  // wall time when the container did not end with the right content.
  std::function<Sample(uint64_t n, int64_t first)> fill;
  std::vector<double> wall, cpu;              // seconds per repetition
  std::vector<double> wall_ratio, cpu_ratio;  // std::vector's over these, per repetition
};

Sample FillStdVector(uint64_t n, int64_t first) {
  std::vector<int64_t> v;
  Timer timer;
  for (uint64_t i = 0; i < n; ++i) v.push_back(first + static_cast<int64_t>(i));
  Sample s = timer.Stop();
  if (v.back() != first + static_cast<int64_t>(n) - 1) s.wall = -1;
  return s;
}

template <zu::Array<int64_t> (*Make)()>
Sample FillThroughAppender(uint64_t n, int64_t first) {
  zu::Array<int64_t> array = Make();
  Timer timer;
  zu::Status status;
  {
    auto out = array.appender();
    for (uint64_t i = 0; i < n; ++i) out.push_back(first + static_cast<int64_t>(i));
    status = out.flush();
  }
  Sample s = timer.Stop();
  if (status != zu::Status::ok || array.size() != n ||
      array[n - 1] != first + static_cast<int64_t>(n) - 1) {
    s.wall = -1;
  }
  return s;
}

// The mean of `loops` fills of fresh containers with fresh values from `first` on; a negative
// wall time when one ended wrong. In cache, as many untimed fills go first: a container made
// and freed over and over should reuse its pages, so that the time is the appends' and not
// the allocator's handing memory back and forth with the system (nor, in a child process, the
// first writes to pages it still shares with its parent).
Sample Fills(const Contender& contender, uint64_t n, uint64_t loops, int64_t first) {
  for (uint64_t l = 0; l < loops && loops > 1; ++l) {
    if (contender.fill(n, first - 1 - static_cast<int64_t>(l)).wall < 0) return {-1, -1};
  }
  Sample mean;
  for (uint64_t l = 0; l < loops; ++l) {
    first += 7919;
    Sample s = contender.fill(n, first);
    if (s.wall < 0) return s;
    mean.wall += s.wall / static_cast<double>(loops);
    mean.cpu += s.cpu / static_cast<double>(loops);
  }
  return mean;
}

// Runs `measure` in a child process and hands its sample back. In cache, each contender then
// starts from the same heap, the parent's: what one contender left in the allocator's free
// lists does not shape the next one's growth (a block that can or cannot be extended in place
// is worth as much as the appends themselves at this size).
template <typename Measure>
Sample InChild(Measure measure) {
  int fds[2];
  if (pipe(fds) != 0) return {-1, -1};
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    const Sample s = measure();
    const bool sent = write(fds[1], &s, sizeof(s)) == static_cast<ssize_t>(sizeof(s));
    _exit(sent ? 0 : 1);
  }
  close(fds[1]);
  Sample s{-1, -1};
  if (child < 0 || read(fds[0], &s, sizeof(s)) != static_cast<ssize_t>(sizeof(s))) s = {-1, -1};
  close(fds[0]);
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  return s;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  size_t m = v.size() / 2;
  return v.size() % 2 != 0 ? v[m] : (v[m - 1] + v[m]) / 2;
}

bool Run(uint64_t n, int reps) {
  std::vector<Contender> contenders = {
      {"std::vector::push_back", FillStdVector, {}, {}, {}, {}},
      {"appender, vector array",
       FillThroughAppender<zu::make_vector_array<int64_t>>,
       {},
       {},
       {},
       {}},
      {"appender, deque array", FillThroughAppender<zu::make_deque_array<int64_t>>, {}, {}, {}, {}},
      {"appender, file array", FillThroughAppender<zu::make_file_array<int64_t>>, {}, {}, {}, {}},
      {"appender, auto vector array",
       FillThroughAppender<zu::make_auto_vector_array<int64_t>>,
       {},
       {},
       {},
       {}},
      {"appender, auto deque array",
       FillThroughAppender<zu::make_auto_deque_array<int64_t>>,
       {},
       {},
       {},
       {}},
  };
  const uint64_t loops = std::max<uint64_t>(1, kSampleElements / n);
  std::printf("\n%llu int64_t elements (%.1f MiB), %d repetitions%s\n",
              static_cast<unsigned long long>(n), n * 8.0 / (1 << 20), reps,
              loops > 1 ? (", each " + std::to_string(loops) + " fills").c_str() : "");
  const bool in_cache = n * sizeof(int64_t) <= kInCacheBytes;
  if (in_cache) {
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
  }
  int64_t first = 1'700'000'000'000;
  for (int rep = 0; rep < reps; ++rep) {
    std::vector<Sample> round(contenders.size());
    for (size_t k = 0; k < contenders.size(); ++k) {
      size_t c = (k + static_cast<size_t>(rep + 1)) % contenders.size();
      Sample s = in_cache ? InChild([&] { return Fills(contenders[c], n, loops, first); })
                          : Fills(contenders[c], n, loops, first);
      first += static_cast<int64_t>(loops) * 7919;
      if (s.wall < 0) {
        std::fprintf(stderr, "%s: wrong content after filling\n", contenders[c].name);
        return false;
      }
      round[c] = s;
    }
    for (size_t c = 0; c < contenders.size(); ++c) {
      contenders[c].wall.push_back(round[c].wall);
      contenders[c].cpu.push_back(round[c].cpu);
      contenders[c].wall_ratio.push_back(round[0].wall / round[c].wall);
      contenders[c].cpu_ratio.push_back(round[0].cpu / round[c].cpu);
    }
  }
  const double per = 1e9 / static_cast<double>(n);
  auto show = [per](const std::vector<double>& v, double scale) {
    auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    char text[48];
    std::snprintf(text, sizeof(text), "%6.2f [%5.2f-%5.2f]", Median(v) * scale, *lo * scale,
                  *hi * scale);
    return std::string(text);
  };
  std::printf("  %-27s %-21s %-21s %-20s %s\n", "", "wall ns/element", "cpu ns/element",
              "speed (wall)", "speed (cpu)");
  for (const Contender& c : contenders) {
    std::printf("  %-27s %s %s %sx %sx\n", c.name, show(c.wall, per).c_str(),
                show(c.cpu, per).c_str(), show(c.wall_ratio, 1).c_str(),
                show(c.cpu_ratio, 1).c_str());
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint64_t> sizes = {65536, 50'000'000};
  int reps = 9;
  for (int i = 1; i < argc; ++i) {
    const bool valued = i + 1 < argc;
    if (std::strncmp(argv[i], "--benchmark_", 12) == 0) {
      continue;  // ./dev bench suites hands every suite the Google Benchmark flags
    } else if (valued && std::strcmp(argv[i], "--reps") == 0) {
      reps = std::max(1, std::atoi(argv[++i]));
    } else if (valued && std::strcmp(argv[i], "--sizes") == 0) {
      sizes.clear();
      for (char* p = argv[++i]; *p != '\0';) {
        sizes.push_back(std::max<uint64_t>(1, std::strtoull(p, &p, 10)));
        if (*p != ',') break;
        ++p;
      }
    } else {
      std::fprintf(stderr, "usage: zu_appender_bench [--sizes N,...] [--reps N]\n");
      return 2;
    }
  }
  const char* parent = std::getenv("ZU_BENCH_DIR");
  fs::path dir = fs::path(parent != nullptr ? parent : fs::temp_directory_path().string()) /
                 ("zu-appender-bench-" + std::to_string(getpid()));
  fs::create_directories(dir);
  IZUArray::SetDataDirectory(dir.wstring());
  std::sort(sizes.rbegin(), sizes.rend());
  bool ok = true;
  for (uint64_t n : sizes) ok = Run(n, reps) && ok;
  IZUArray::CleanTmpFiles();
  std::error_code error;
  fs::remove_all(dir, error);
  return ok ? 0 : 1;
}
