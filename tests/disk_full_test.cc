// Real full disks: a few MiB of tmpfs mounted in a private mount namespace of a forked child,
// filled by file arrays and self-spilling arrays until they answer 2, and a file-size limit
// (RLIMIT_FSIZE) that the files run into. Nothing here is injected: the OS refuses the room.
//
// Checked in every case: the full disk is reported as code 2, never as a crash (SIGBUS from a
// write through a mapping, SIGXFSZ); every segment file has its blocks reserved (no sparse
// file, so a later write through the mapping cannot fault); what the failure semantics keep
// reads back intact, including another array's files; and nothing is left on the disk once
// the arrays are gone.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

constexpr uint64_t kSpillThreshold = 8388608;
constexpr int kCannotMount = 77;

// What a child saw; written through a pipe.
struct Figures {
  int problems = 0;
  char first_problem[160] = {0};
  int64_t elements_before_full = 0;  // elements held when the disk was full
  int full_code = -1;                // the code that reported it
  int sparse_checks = 0;             // growth steps whose files were checked for holes
  int64_t kept_checked = 0;          // elements of surviving arrays read back
};

void Problem(Figures& f, const std::string& what) {
  if (f.problems++ == 0)
    std::snprintf(f.first_problem, sizeof(f.first_problem), "%s", what.c_str());
}

// Every file under `dir` has blocks for its whole length.
void CheckNotSparse(Figures& f, const std::filesystem::path& dir) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    struct stat st;
    if (::stat(entry.path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (static_cast<int64_t>(st.st_blocks) * 512 < static_cast<int64_t>(st.st_size)) {
      Problem(f, "sparse file " + entry.path().filename().string() + ": " +
                     std::to_string(st.st_blocks * 512) + " of " + std::to_string(st.st_size));
    }
  }
  ++f.sparse_checks;
}

void CheckEmpty(Figures& f, const std::filesystem::path& dir) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    Problem(f, "left behind: " + entry.path().filename().string());
  }
}

std::vector<uint8_t> Bytes(size_t n, unsigned salt) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + salt + i / 65536);
  return v;
}

// Runs `body` in a forked child whose data directory is `data`; when `tmpfs_mib` > 0 the
// directory lies on a tmpfs of that size in the child's own mount namespace. Returns false
// (and the reason) when the namespace or the mount was refused.
bool RunChild(int tmpfs_mib,
              const std::function<void(Figures&, const std::filesystem::path&)>& body, Figures* out,
              std::string* refused) {
  TempDataDir dir;
  const std::filesystem::path mount_point = dir.path() / "small";
  std::filesystem::create_directories(mount_point);
  int fds[2];
  if (pipe(fds) != 0) {
    *refused = "no pipe";
    return false;
  }
  std::fflush(stdout);  // or the child would print what the parent had buffered
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (tmpfs_mib > 0) {
      const std::string options = "size=" + std::to_string(tmpfs_mib) + "m";
      if (unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("zu_full", mount_point.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        _exit(kCannotMount);
      }
    }
    const std::filesystem::path data = mount_point / "data";
    std::filesystem::create_directories(data);
    IZUArray::SetDataDirectory(data.wstring());
    Figures figures;
    body(figures, data);
    CheckEmpty(figures, data);
    if (tmpfs_mib > 0) umount(mount_point.c_str());
    const bool sent = write(fds[1], &figures, sizeof(figures)) == sizeof(figures);
    _exit(sent ? 0 : 3);
  }
  close(fds[1]);
  const ssize_t got = read(fds[0], out, sizeof(*out));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  std::filesystem::remove_all(mount_point);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotMount) {
    *refused = "unshare(CLONE_NEWNS) or mounting a tmpfs was refused here";
    return false;
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << (WIFSIGNALED(status) ? "child killed by signal " + std::to_string(WTERMSIG(status))
                              : "child exit " + std::to_string(WEXITSTATUS(status)));
  EXPECT_EQ(got, static_cast<ssize_t>(sizeof(*out)));
  return true;
}

std::unique_ptr<IZUArray> Make(IZUArray* (CArrayFactory::*alloc)(int), int type) {
  CArrayFactory factory;
  return std::unique_ptr<IZUArray>((factory.*alloc)(type));
}

// A file array that grows until the disk is full while another file array's data stays.
void FillWithFileArrays(Figures& f, const std::filesystem::path& data, bool single_appends) {
  auto keeper = Make(&CArrayFactory::AllocFileArray, 1);
  const std::vector<uint8_t> kept = Bytes(1 << 20, 5);
  if (keeper->AppendBuffer(kept.data(), kept.size()) != kZuOk) Problem(f, "the first MiB failed");
  {
    auto filler = Make(&CArrayFactory::AllocFileArray, 4);
    int code = kZuOk;
    int64_t held = 0;
    if (single_appends) {
      for (uint32_t i = 0; code == kZuOk && i < (64u << 20) / 4; ++i) {
        code = filler->Append(&i);
        if (code == kZuOk) ++held;
        if (code == kZuOk && i % (1 << 18) == 0) CheckNotSparse(f, data);
      }
    } else {
      std::vector<uint32_t> block(1 << 16);
      for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint32_t>(i * 7);
      for (int steps = 0; code == kZuOk && steps < 256; ++steps) {
        code = filler->AppendBuffer(block.data(), block.size());
        if (code == kZuOk) held += static_cast<int64_t>(block.size());
        if (code == kZuOk) CheckNotSparse(f, data);
      }
    }
    f.elements_before_full = held;
    f.full_code = code;
    if (code != kZuNoSpace) Problem(f, "the full disk answered " + std::to_string(code));
    // One segment, and it failed: it is reset and reads as empty.
    if (filler->GetSize() != 0) Problem(f, "the failed segment still holds elements");
    uint32_t x = 1;
    const int again = filler->Append(&x);
    if (again < 0 || again > 2) Problem(f, "a later add answered " + std::to_string(again));
  }
  // The other array kept every element, and can be read after the disk ran full.
  if (keeper->GetSize() != kept.size()) Problem(f, "the other array changed size");
  std::vector<uint8_t> back(kept.size());
  keeper->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
  if (back != kept) Problem(f, "the other array's elements changed");
  f.kept_checked += static_cast<int64_t>(back.size());
  // With the filler gone its room is free again.
  if (keeper->AppendBuffer(kept.data(), kept.size()) != kZuOk) Problem(f, "room not returned");
  CheckNotSparse(f, data);
}

TEST(DiskFull, FileArraysReportNoSpaceAndKeepOtherArrays) {
  for (bool single : {false, true}) {
    SCOPED_TRACE(single ? "single appends" : "bulk appends");
    Figures f;
    std::string refused;
    if (!RunChild(
            6,
            [&](Figures& g, const std::filesystem::path& d) { FillWithFileArrays(g, d, single); },
            &f, &refused)) {
      GTEST_SKIP() << refused;
    }
    EXPECT_EQ(f.problems, 0) << f.first_problem;
    EXPECT_EQ(f.full_code, kZuNoSpace);
    EXPECT_GT(f.elements_before_full, 0);
    std::printf(
        "disk full (file array, %s, 6 MiB tmpfs): code %d after %lld elements, %d sparse checks, "
        "%lld kept elements intact, %d problems\n",
        single ? "single appends" : "bulk appends", f.full_code,
        static_cast<long long>(f.elements_before_full), f.sparse_checks,
        static_cast<long long>(f.kept_checked), f.problems);
  }
}

// Self-spilling arrays: a move into files that finds no room, and growth in files until full.
void FillWithAutoArray(Figures& f, const std::filesystem::path& data, bool vector_flavour,
                       bool room_for_move) {
  auto array = vector_flavour ? Make(&CArrayFactory::AllocAutoVectorArray, 1)
                              : Make(&CArrayFactory::AllocAutoDequeArray, 1);
  const std::vector<uint8_t> values = Bytes(kSpillThreshold, 9);
  if (array->AppendBuffer(values.data(), values.size() - 1) != kZuOk) Problem(f, "in-memory add");
  int code = array->AppendBuffer(values.data() + values.size() - 1, 1);  // reaches the threshold
  if (!room_for_move) {
    f.elements_before_full = static_cast<int64_t>(values.size() - 1);
    f.full_code = code;
    if (code != kZuNoSpace) Problem(f, "a move without room answered " + std::to_string(code));
    // A failed add clears the array, or a refused move leaves it as it was.
    const uint64_t size = array->GetSize();
    if (size != 0 && size != values.size() - 1) Problem(f, "size " + std::to_string(size));
    if (size != 0) {
      std::vector<uint8_t> back(size);
      array->CopyOut(back.data(), 0, static_cast<unsigned int>(size));
      if (!std::equal(back.begin(), back.end(), values.begin()))
        Problem(f, "kept elements changed");
      f.kept_checked += static_cast<int64_t>(size);
    }
    // The array goes on working in memory.
    array->Clear();
    const uint8_t x = 4;
    if (array->Append(&x) != kZuOk || array->GetSize() != 1) Problem(f, "no use after the failure");
    return;
  }
  if (code != kZuOk) Problem(f, "the move answered " + std::to_string(code));
  CheckNotSparse(f, data);
  const std::vector<uint8_t> block = Bytes(1 << 20, 1);
  int64_t held = static_cast<int64_t>(array->GetSize());
  for (int steps = 0; code == kZuOk && steps < 64; ++steps) {
    code = array->AppendBuffer(block.data(), block.size());
    if (code == kZuOk) held += static_cast<int64_t>(block.size());
    if (code == kZuOk) CheckNotSparse(f, data);
  }
  f.elements_before_full = held;
  f.full_code = code;
  if (code != kZuNoSpace) Problem(f, "the full disk answered " + std::to_string(code));
  if (array->GetSize() != 0) Problem(f, "a failed add did not clear the array");
  const uint8_t x = 4;
  const int again = array->Append(&x);
  if (again < 0 || again > 2) Problem(f, "a later add answered " + std::to_string(again));
}

TEST(DiskFull, SelfSpillingArraysReportNoSpace) {
  struct Case {
    bool vector_flavour;
    bool room_for_move;
    int mib;
  };
  for (const Case& c :
       {Case{false, false, 4}, Case{true, false, 4}, Case{false, true, 12}, Case{true, true, 12}}) {
    const std::string name = std::string(c.vector_flavour ? "auto vector" : "auto deque") +
                             (c.room_for_move ? ", full in files" : ", move without room");
    SCOPED_TRACE(name);
    Figures f;
    std::string refused;
    if (!RunChild(
            c.mib,
            [&](Figures& g, const std::filesystem::path& d) {
              FillWithAutoArray(g, d, c.vector_flavour, c.room_for_move);
            },
            &f, &refused)) {
      GTEST_SKIP() << refused;
    }
    EXPECT_EQ(f.problems, 0) << f.first_problem;
    EXPECT_EQ(f.full_code, kZuNoSpace);
    std::printf(
        "disk full (%s, %d MiB tmpfs): code %d at %lld elements, %lld kept after the failure "
        "read back, %d sparse checks, %d problems\n",
        name.c_str(), c.mib, f.full_code, static_cast<long long>(f.elements_before_full),
        static_cast<long long>(f.kept_checked), f.sparse_checks, f.problems);
  }
}

// A file-size limit: growing a file beyond it fails with EFBIG (SIGXFSZ ignored, as a host
// that limits its files would do) and must be reported like a full disk.
TEST(DiskFull, FileSizeLimitReportsNoSpace) {
  for (bool single : {false, true}) {
    SCOPED_TRACE(single ? "single appends" : "bulk appends");
    Figures f;
    std::string refused;
    ASSERT_TRUE(RunChild(
        0,
        [&](Figures& g, const std::filesystem::path& d) {
          signal(SIGXFSZ, SIG_IGN);
          struct rlimit limit = {3 << 20, 3 << 20};
          if (setrlimit(RLIMIT_FSIZE, &limit) != 0) Problem(g, "setrlimit");
          FillWithFileArrays(g, d, single);
        },
        &f, &refused))
        << refused;
    EXPECT_EQ(f.problems, 0) << f.first_problem;
    EXPECT_EQ(f.full_code, kZuNoSpace);
    std::printf("file size limit (3 MiB, %s): code %d after %lld elements, %d problems\n",
                single ? "single appends" : "bulk appends", f.full_code,
                static_cast<long long>(f.elements_before_full), f.problems);
  }
}

}  // namespace
}  // namespace zu_test
