// Process limits the file storage runs into: the number of open descriptors (every segment
// holds one) and the number of mappings (every live segment maps up to two views).
//
// The library raises the soft descriptor limit to the hard one once per process, before its
// first segment. To watch that happen, each case runs in a fresh copy of this program (fork,
// lower the limits, exec): the copy runs the case from a static initializer, before any test,
// and writes its figures back through a pipe. A crash of the copy is a failed test.
//
// What a host may rely on at a limit: the add that cannot get its file answers 2 and holds
// nothing; an add whose view cannot be mapped resets its segment quietly (it answers 0 and the
// segment is empty and dead); every other array keeps its elements; the failed arrays do no
// harm when used further; once arrays are released, new ones work again; and nothing is left
// behind (files, descriptors, mappings).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

const char kLimitChildVariable[] = "ZU_TEST_LIMIT_CHILD";  // "<case> <result fd> <data dir>"
constexpr uint64_t kSpillThreshold = 8388608;

// What a child saw; written through a pipe.
struct LimitFigures {
  int problems = 0;
  char first_problem[200] = {0};
  long soft_before = 0;    // RLIMIT_NOFILE soft limit the child started with
  long soft_after = 0;     // ... after its first file array
  long hard = 0;           // the hard limit
  int arrays_alive = 0;    // file arrays that held their elements when the limit struck
  int failure_code = -1;   // the code of the first add that hit the limit
  int quiet_resets = 0;    // adds that answered 0 but found their segment reset (view refused)
  int no_space = 0;        // adds that answered 2
  int mappings_peak = 0;   // lines of /proc/self/maps at the fullest point
  int mappings_limit = 0;  // vm.max_map_count
  int mappings_free = 0;   // mappings left to the library by the squeeze (0: no squeeze)
  int squeezed_alive = 0;  // file arrays made under the squeeze before one failed
  int64_t checked = 0;     // elements read back and compared
  int auto_code = -1;      // a self-spilling array's move into files at the limit
  int64_t auto_size = -1;  // ... and its size after it
  int leaked = 0;          // files, descriptors or mappings left once everything was released
};

void Problem(LimitFigures& f, const std::string& what) {
  if (f.problems++ == 0) {
    std::snprintf(f.first_problem, sizeof(f.first_problem), "%s", what.c_str());
  }
}

int CountMaps() {
  std::ifstream maps("/proc/self/maps");
  int lines = 0;
  for (std::string line; std::getline(maps, line);) ++lines;
  return lines;
}

int ReadMaxMapCount() {
  std::ifstream in("/proc/sys/vm/max_map_count");
  int value = 0;
  in >> value;
  return value;
}

long SoftLimit() {
  struct rlimit limit;
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<long>(limit.rlim_cur) : -1;
}

int CountEntries(const std::filesystem::path& dir) {
  int n = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    (void)entry;
    ++n;
  }
  return n;
}

// A small file array and the elements it was given. Element types rotate over 1, 2, 4 and 8
// bytes; the values depend on the array's number so that arrays cannot pass for each other.
struct SmallArray {
  std::unique_ptr<IZUArray> array;
  int type = 1;
  std::vector<unsigned char> bytes;  // the elements as given

  static SmallArray Make(int number, size_t elements) {
    static const int kTypes[] = {1, 2, 4, 8};
    SmallArray a;
    a.type = kTypes[number % 4];
    CArrayFactory factory;
    a.array.reset(factory.AllocFileArray(a.type));
    a.bytes.resize(elements * static_cast<size_t>(a.type));
    for (size_t i = 0; i < a.bytes.size(); ++i) {
      a.bytes[i] = static_cast<unsigned char>(number * 7 + i / static_cast<size_t>(a.type));
    }
    return a;
  }
  size_t elements() const { return bytes.size() / static_cast<size_t>(type); }
  int Fill() { return array->AppendBuffer(bytes.data(), elements()); }
  bool Intact() {
    if (array->GetSize() != elements()) return false;
    std::vector<unsigned char> back(bytes.size());
    array->CopyOut(back.data(), 0, static_cast<unsigned int>(elements()));
    return back == bytes;
  }
};

// Sorts one add at a limit into the documented outcomes; false when it fits none.
bool Classify(LimitFigures& f, SmallArray& a, int code, const char* where) {
  const uint64_t size = a.array->GetSize();
  if (code == kZuOk && size == a.elements()) return true;
  if (f.failure_code < 0) f.failure_code = code;
  if (code == kZuNoSpace && size == 0) {
    ++f.no_space;
  } else if (code == kZuOk && size == 0) {
    ++f.quiet_resets;
  } else {
    Problem(f, std::string(where) + ": code " + std::to_string(code) + " with " +
                   std::to_string(size) + " of " + std::to_string(a.elements()) + " elements");
  }
  // A failed array stays harmless: further adds answer a code, reads find nothing.
  unsigned char x[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const int again = a.array->Append(x);
  const int bulk = a.array->AppendBuffer(a.bytes.data(), 1);
  if (again < 0 || again > 2 || bulk < 0 || bulk > 2) Problem(f, "a later add answered badly");
  unsigned char out[8];
  if (a.array->GetAt(0, out) != nullptr && a.array->GetSize() == 0) {
    Problem(f, "an empty failed array handed out an element");
  }
  return false;
}

// Checks every live array, releases them all and counts what is left.
void VerifyAndRelease(LimitFigures& f, std::vector<SmallArray>& live,
                      const std::filesystem::path& data, int descriptors) {
  for (SmallArray& a : live) {
    if (!a.Intact()) Problem(f, "a live array lost its elements at the limit");
    f.checked += static_cast<int64_t>(a.elements());
  }
  live.clear();
  f.leaked += CountEntries(data);
  f.leaked += std::max(0, OpenHandleCount() - descriptors);
  f.leaked += MappedViewCount(data);
  if (f.leaked > 0) Problem(f, "files, descriptors or mappings left behind");
}

// Descriptors: file arrays until the descriptor limit refuses a file.
void DescriptorCase(LimitFigures& f, const std::filesystem::path& data) {
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  f.soft_before = static_cast<long>(limit.rlim_cur);
  f.hard = static_cast<long>(limit.rlim_max);
  const int descriptors = OpenHandleCount();
  std::vector<SmallArray> live;
  live.reserve(static_cast<size_t>(f.hard) + 8);
  for (int n = 0; n < f.hard + 8; ++n) {
    SmallArray a = SmallArray::Make(n, 1000);
    const int code = a.Fill();
    if (n == 0) f.soft_after = SoftLimit();
    if (!Classify(f, a, code, "descriptor limit")) {
      a.array.reset();
      // While the limit holds: a description of a live array cannot be attached by another
      // array, and that array's release must not delete the live array's files.
      if (!live.empty()) {
        base::DictionaryValue* saved = nullptr;
        if (!live[0].array->SaveDescription(&saved) || saved == nullptr) {
          Problem(f, "SaveDescription failed at the limit");
        } else {
          std::unique_ptr<base::DictionaryValue> owned(saved);
          CArrayFactory factory;
          std::unique_ptr<IZUArray> copy(factory.AllocFileArray(live[0].type));
          copy->LoadDescription(owned.get());
          if (copy->GetSize() != 0) Problem(f, "a file was attached beyond the limit");
        }
      }
      // A self-spilling array whose move into files finds no descriptor answers 2 and either
      // keeps what it held or clears itself.
      {
        CArrayFactory factory;
        std::unique_ptr<IZUArray> spill(factory.AllocAutoDequeArray(1));
        std::vector<uint8_t> values(kSpillThreshold);
        for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i >> 12);
        if (spill->AppendBuffer(values.data(), values.size() - 1) != kZuOk) {
          Problem(f, "in-memory part of the self-spilling array");
        }
        f.auto_code = spill->AppendBuffer(values.data() + values.size() - 1, 1);
        f.auto_size = static_cast<int64_t>(spill->GetSize());
        if (f.auto_code != kZuNoSpace) Problem(f, "the move without a descriptor answered");
        if (f.auto_size == static_cast<int64_t>(values.size() - 1)) {
          std::vector<uint8_t> back(values.size() - 1);
          spill->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
          if (!std::equal(back.begin(), back.end(), values.begin())) {
            Problem(f, "the self-spilling array's kept elements changed");
          }
          f.checked += f.auto_size;
        } else if (f.auto_size != 0) {
          Problem(f, "the self-spilling array holds " + std::to_string(f.auto_size));
        }
      }
      // Releasing one array gives its descriptor back to the next one.
      live.pop_back();
      SmallArray again = SmallArray::Make(n + 1, 1000);
      if (again.Fill() != kZuOk || !again.Intact()) Problem(f, "no recovery after a release");
      live.push_back(std::move(again));
      break;
    }
    live.push_back(std::move(a));
  }
  f.arrays_alive = static_cast<int>(live.size());
  if (f.failure_code < 0) Problem(f, "the descriptor limit was never reached");
  VerifyAndRelease(f, live, data, descriptors);
}

// Mappings: thousands of small file arrays alive at once stay well under the mapping limit;
// then the room for mappings is taken away (by splitting a reserved region into thousands of
// mappings) and arrays are made until one cannot map its view.
void MappingCase(LimitFigures& f, const std::filesystem::path& data) {
  f.mappings_limit = ReadMaxMapCount();
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  f.hard = static_cast<long>(limit.rlim_max);
  const int descriptors = OpenHandleCount();
  const int wanted = static_cast<int>(std::min<long>(2000, f.hard - 64));
  std::vector<SmallArray> live;
  live.reserve(static_cast<size_t>(wanted) + 2048);
  for (int n = 0; n < wanted; ++n) {
    SmallArray a = SmallArray::Make(n, 100);
    if (!Classify(f, a, a.Fill(), "many arrays")) break;
    live.push_back(std::move(a));
  }
  f.arrays_alive = static_cast<int>(live.size());
  f.mappings_peak = CountMaps();
  if (f.failure_code >= 0 && f.mappings_peak < f.mappings_limit - 64) {
    Problem(f, "an array failed far from any limit");
  }
  VerifyAndRelease(f, live, data, descriptors);
  if (f.problems > 0 || f.mappings_limit <= 0) return;

  // The squeeze: every other page of a reserved region made readable is a mapping of its
  // own, and splits the region once more.
  const long page = sysconf(_SC_PAGESIZE);
  f.mappings_free = 200;
  const long take = std::max(0, f.mappings_limit - f.mappings_free - CountMaps());
  const long pages = take + 4;
  auto* region = static_cast<char*>(mmap(nullptr, static_cast<size_t>(pages * page), PROT_NONE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  if (region == MAP_FAILED) {
    Problem(f, "could not reserve the squeeze region");
    return;
  }
  for (long k = 0; k < take / 2; ++k) {
    mprotect(region + (2 * k + 1) * page, static_cast<size_t>(page), PROT_READ);
  }
  f.failure_code = -1;
  SmallArray failed;
  for (int n = 0; n < 2000; ++n) {
    SmallArray a = SmallArray::Make(n, 100);
    if (!Classify(f, a, a.Fill(), "squeezed")) {
      failed = std::move(a);
      break;
    }
    live.push_back(std::move(a));
  }
  f.squeezed_alive = static_cast<int>(live.size());
  // Give the room back before anything else needs a mapping.
  munmap(region, static_cast<size_t>(pages * page));
  if (failed.array == nullptr) Problem(f, "no add failed although the mappings ran out");
  failed.array.reset();
  // The arrays made before the failure still read back, and fresh ones work again.
  SmallArray after = SmallArray::Make(9999, 100);
  if (after.Fill() != kZuOk || !after.Intact()) Problem(f, "no recovery after the squeeze");
  live.push_back(std::move(after));
  VerifyAndRelease(f, live, data, descriptors);
}

// The child: runs the named case before main and exits with its figures written.
const bool kIsLimitChild = [] {
  const char* setting = std::getenv(kLimitChildVariable);
  if (setting == nullptr) return false;
  char name[32] = {0};
  int fd = -1;
  int consumed = 0;
  if (std::sscanf(setting, "%31s %d %n", name, &fd, &consumed) != 2) std::_Exit(90);
  const std::filesystem::path data = std::filesystem::path(setting + consumed) / "data";
  IZUArray::SetDataDirectory(data.wstring());
  std::filesystem::create_directories(data);
  LimitFigures figures;
  if (std::strcmp(name, "descriptors") == 0) {
    DescriptorCase(figures, data);
  } else {
    MappingCase(figures, data);
  }
  const bool sent = write(fd, &figures, sizeof(figures)) == sizeof(figures);
  std::_Exit(sent ? 0 : 91);
}();

// Starts a fresh copy of this program with the descriptor limits `soft`/`hard` (0: keep)
// running `name`; fills `out`. False (with a failure) when the copy crashed.
bool RunLimitChild(const char* name, const TempDataDir& dir, rlim_t soft, rlim_t hard,
                   LimitFigures* out) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  const std::string setting =
      std::string(name) + " " + std::to_string(fds[1]) + " " + dir.path().string();
  const std::string self = SelfExecutable().string();
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (hard != 0) {
      struct rlimit limit = {soft, hard};
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(92);
    }
    setenv(kLimitChildVariable, setting.c_str(), 1);
    execl(self.c_str(), self.c_str(), static_cast<char*>(nullptr));
    _exit(93);
  }
  close(fds[1]);
  ssize_t got = 0;
  auto* into = reinterpret_cast<char*>(out);
  for (ssize_t n; got < static_cast<ssize_t>(sizeof(*out)) &&
                  (n = read(fds[0], into + got, sizeof(*out) - static_cast<size_t>(got))) > 0;) {
    got += n;
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  const bool exited = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  EXPECT_TRUE(exited) << (WIFSIGNALED(status)
                              ? "the child crashed with signal " + std::to_string(WTERMSIG(status))
                              : "the child exited with " + std::to_string(WEXITSTATUS(status)));
  EXPECT_EQ(got, static_cast<ssize_t>(sizeof(*out)));
  std::filesystem::remove_all(dir.path() / "data");
  return exited && got == static_cast<ssize_t>(sizeof(*out));
}

TEST(PosixLimits, DescriptorLimitGivesCodeTwoAfterTheSoftLimitWasRaised) {
#ifdef ZU_TEST_UBSAN_VPTR
  // Before it trusts a vtable, UndefinedBehaviorSanitizer probes it through a pipe; with every
  // descriptor taken the probe fails and each virtual call is reported as one on a bad object
  // (and its reports cannot be suppressed in a build that halts on them).
  GTEST_SKIP() << "UBSan's vtable probe needs free descriptors; the plain build runs this test";
#endif
  TempDataDir dir;
  constexpr rlim_t kSoft = 48;
  constexpr rlim_t kHard = 160;
  LimitFigures f;
  ASSERT_TRUE(RunLimitChild("descriptors", dir, kSoft, kHard, &f));
  EXPECT_EQ(f.problems, 0) << f.first_problem;
  EXPECT_EQ(f.soft_before, static_cast<long>(kSoft));
  EXPECT_EQ(f.soft_after, static_cast<long>(kHard)) << "the library raises the soft limit";
  EXPECT_EQ(f.failure_code, kZuNoSpace);
  EXPECT_GT(f.arrays_alive, static_cast<int>(kSoft)) << "more arrays than the old soft limit";
  EXPECT_EQ(f.auto_code, kZuNoSpace);
  EXPECT_EQ(f.leaked, 0);
  EXPECT_FALSE(kIsLimitChild);
  std::printf(
      "descriptor limit: soft %ld raised to %ld (hard %ld) by the library, %d file arrays alive, "
      "then code %d (%d adds answered 2); self-spilling move at the limit: code %d, size %lld; "
      "%lld elements read back intact, 0 crashes, %d leaked, %d problems\n",
      f.soft_before, f.soft_after, f.hard, f.arrays_alive, f.failure_code, f.no_space, f.auto_code,
      static_cast<long long>(f.auto_size), static_cast<long long>(f.checked), f.leaked, f.problems);
}

TEST(PosixLimits, ThousandsOfFileArraysStayUnderTheMappingLimitOrFailCleanly) {
#ifdef ZU_TEST_ASAN
  // AddressSanitizer's allocator maps its own memory while the arrays grow; once the test has
  // squeezed the free mappings it aborts itself, whatever the library does.
  GTEST_SKIP() << "the sanitizer needs free mappings of its own; the plain build runs this test";
#endif
  TempDataDir dir;
  LimitFigures f;
  ASSERT_TRUE(RunLimitChild("mappings", dir, 0, 0, &f));
  EXPECT_EQ(f.problems, 0) << f.first_problem;
  EXPECT_GE(f.arrays_alive, 1000);
  EXPECT_LT(f.mappings_peak, f.mappings_limit);
  EXPECT_EQ(f.leaked, 0);
  std::printf(
      "mapping limit: %d file arrays alive at once with %d mappings (limit %d); squeezed to %d "
      "free mappings: %d more arrays, then code %d, %d quiet resets (view refused), %d adds "
      "answered 2; "
      "%lld elements read back intact, 0 crashes, %d leaked, %d problems\n",
      f.arrays_alive, f.mappings_peak, f.mappings_limit, f.mappings_free, f.squeezed_alive,
      f.failure_code, f.quiet_resets, f.no_space, static_cast<long long>(f.checked), f.leaked,
      f.problems);
}

}  // namespace
}  // namespace zu_test
