// Leftovers of crashed processes and clean-up while arrays are alive, between real processes.
//
// A process killed with SIGKILL leaves its data files behind (nothing of the library runs on
// the way out); CleanTmpFiles of a later process must remove every one of them and nothing
// else. And CleanTmpFiles running over and over in another process must never delete a file
// that an array of this process still uses, while this process keeps making, filling and
// releasing arrays (and cleans up itself as well).
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/process_state.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

const char kCleanLoopVariable[] = "ZU_TEST_CLEAN_LOOP";  // "<stop fd> <result fd> <data dir>"

// The second process: CleanTmpFiles in a loop until the stop pipe closes, then the number of
// calls goes back through the result pipe. Runs before main in a fresh copy of this program.
const bool kIsCleanLoopChild = [] {
  const char* setting = std::getenv(kCleanLoopVariable);
  if (setting == nullptr) return false;
  int stop = -1;
  int result = -1;
  int consumed = 0;
  if (std::sscanf(setting, "%d %d %n", &stop, &result, &consumed) != 2) std::_Exit(90);
  IZUArray::SetDataDirectory(std::filesystem::path(setting + consumed).wstring());
  long calls = 0;
  for (;;) {
    IZUArray::CleanTmpFiles();
    ++calls;
    struct pollfd p = {stop, POLLIN, 0};
    if (poll(&p, 1, 0) > 0) break;  // EOF: the first process is done
  }
  const bool sent = write(result, &calls, sizeof(calls)) == sizeof(calls);
  std::_Exit(sent ? 0 : 91);
}();

// Names of the data files (and legacy temporary files) in `dir`, sorted.
std::vector<std::string> DataFiles(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string ext = entry.path().extension().string();
    if (ext == ".KMB" || ext == ".kmt") names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The files a file array's description names.
std::vector<std::filesystem::path> FilesOf(IZUArray& array) {
  std::vector<std::filesystem::path> paths;
  base::DictionaryValue* saved = nullptr;
  if (!array.SaveDescription(&saved) || saved == nullptr) return paths;
  std::unique_ptr<base::DictionaryValue> owned(saved);
  base::ListValue* files = nullptr;
  if (!owned->GetList("files", &files) || files == nullptr) return paths;
  for (size_t i = 0; i < files->GetSize(); ++i) {
    base::DictionaryValue* entry = nullptr;
    std::wstring path;
    if (files->GetDictionary(i, &entry) && entry->GetString("file_path", &path)) {
      paths.emplace_back(path);
    }
  }
  return paths;
}

// A file array with the elements it was given.
struct Tracked {
  std::unique_ptr<IZUArray> array;
  int type = 1;
  std::vector<unsigned char> bytes;

  Tracked(int number, size_t elements) {
    static const int kTypes[] = {1, 2, 4, 8};
    type = kTypes[number % 4];
    CArrayFactory factory;
    array.reset(factory.AllocFileArray(type));
    bytes.resize(elements * static_cast<size_t>(type));
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<unsigned char>(number + i / static_cast<size_t>(type) / 97);
    }
  }
  size_t elements() const { return bytes.size() / static_cast<size_t>(type); }
  bool Intact() {
    if (array->GetSize() != elements()) return false;
    std::vector<unsigned char> back(bytes.size());
    array->CopyOut(back.data(), 0, static_cast<unsigned int>(elements()));
    return back == bytes;
  }
};

// The child of the crash test: makes, fills and releases file arrays of every element type
// until it is killed (or gives up after a while).
[[noreturn]] void AppendUntilKilled(unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::unique_ptr<IZUArray>> arrays;
  const std::vector<uint64_t> block(300000, 0x0123456789ABCDEFull);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  CArrayFactory factory;
  while (std::chrono::steady_clock::now() < deadline) {
    const int type = 1 << (random() % 4);
    arrays.emplace_back(factory.AllocFileArray(type));
    IZUArray& a = *arrays.back();
    // Bulk pieces (some crossing a chunk), then single appends through the mapped view.
    const size_t pieces = 1 + random() % 4;
    for (size_t p = 0; p < pieces; ++p) {
      a.AppendBuffer(block.data(), (random() % 300000) * 8 / static_cast<size_t>(type));
    }
    for (int k = 0; k < 500; ++k) a.Append(block.data());
    if (arrays.size() > 6) arrays.erase(arrays.begin() + static_cast<long>(random() % 6));
  }
  std::_Exit(0);
}

TEST(PosixCleanup, KilledWritersLeaveFilesThatCleanTmpFilesRemoves) {
  TempDataDir dir;
  dir.Touch("notes.txt", "not the library's");
  dir.Keep("notes.txt");
  // An array of this process stays alive over all runs: the clean-up must spare it.
  Tracked mine(3, 5000);
  ASSERT_EQ(mine.array->AppendBuffer(mine.bytes.data(), mine.elements()), kZuOk);
  const std::vector<std::string> own_files = DataFiles(dir.path());
  ASSERT_EQ(own_files.size(), 1u);
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  constexpr int kRuns = 50;
  int killed = 0;
  int with_leftovers = 0;
  int leftovers = 0;
  int remaining = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::fflush(stdout);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) AppendUntilKilled(seed + static_cast<unsigned>(run));
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + random() % 60000));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "run " << run << ": the writer ended by itself or crashed (status " << status << ")";
    killed += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    // The killed writer's files, and this process's one live file.
    const int files = static_cast<int>(DataFiles(dir.path()).size()) - 1;
    leftovers += files;
    with_leftovers += files > 0;
    IZUArray::CleanTmpFiles();
    const std::vector<std::string> after = DataFiles(dir.path());
    remaining += static_cast<int>(after.size()) - 1;
    EXPECT_EQ(after, own_files) << "run " << run << ": only the live array's file stays";
    EXPECT_TRUE(mine.Intact()) << "run " << run;
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "notes.txt"));
  }
  EXPECT_GT(with_leftovers, 0) << "no writer was caught with files: the test proves nothing";
  std::printf(
      "crash leftovers (seed %u): %d writers killed with SIGKILL, %d of them left %d files, "
      "CleanTmpFiles left %d of them, the live array and the user's file stayed\n",
      seed, killed, with_leftovers, leftovers, remaining);
}

// A description re-attached in another process: the loader clears and destroys its array and
// goes, and the creator's files and elements stay; the clean-up spares them too. The files go
// with the last holder.
TEST(PosixCleanup, LoaderInAnotherProcessLeavesTheCreatorsFiles) {
  TempDataDir dir;
  Tracked maker(3, 5000);
  ASSERT_EQ(maker.array->AppendBuffer(maker.bytes.data(), maker.elements()), kZuOk);
  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(maker.array->SaveDescription(&saved) && saved != nullptr);
  std::unique_ptr<base::DictionaryValue> description(saved);
  const std::vector<std::string> files = DataFiles(dir.path());
  ASSERT_EQ(files.size(), 1u);

  std::fflush(stdout);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    CArrayFactory factory;
    std::unique_ptr<IZUArray> loader(factory.AllocFileArray(maker.type));
    const bool loaded = loader->LoadDescription(description.get()) &&
                        loader->GetSize() == maker.elements();
    loader->Clear();
    loader.reset();
    std::_Exit(loaded ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  IZUArray::CleanTmpFiles();
  EXPECT_EQ(DataFiles(dir.path()), files);
  EXPECT_TRUE(maker.Intact());

  // A third holder still finds them; after the creator has gone, the last holder deletes.
  CArrayFactory factory;
  std::unique_ptr<IZUArray> third(factory.AllocFileArray(maker.type));
  ASSERT_TRUE(third->LoadDescription(description.get()));
  maker.array.reset();
  EXPECT_EQ(DataFiles(dir.path()), files);
  EXPECT_EQ(third->GetSize(), maker.elements());
  third.reset();
  EXPECT_TRUE(DataFiles(dir.path()).empty());
}

TEST(PosixCleanup, CleanTmpFilesLoopInAnotherProcessSparesLiveFiles) {
  TempDataDir dir;
  // Leftovers of an earlier run for the other process to find.
  const char* const strays[] = {"{00000000-0000-4000-8000-000000000001}.KMB",
                                "{00000000-0000-4000-8000-000000000002}.KMB", "old.kmt"};
  for (const char* stray : strays) dir.Touch(stray);
  dir.Touch("notes.txt");
  dir.Keep("notes.txt");

  int stop[2];
  int result[2];
  ASSERT_EQ(pipe(stop), 0);
  ASSERT_EQ(pipe(result), 0);
  const std::string setting =
      std::to_string(stop[0]) + " " + std::to_string(result[1]) + " " + dir.path().string();
  const std::string self = SelfExecutable().string();
  std::fflush(stdout);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(stop[1]);
    close(result[0]);
    setenv(kCleanLoopVariable, setting.c_str(), 1);
    execl(self.c_str(), self.c_str(), static_cast<char*>(nullptr));
    _exit(93);
  }
  close(stop[0]);
  close(result[1]);

  // This process: a ring of live arrays, one new array per step, every live file checked
  // after each step; every tenth step it runs the clean-up itself.
  std::vector<Tracked> live;
  int made = 0;
  int checks = 0;
  int own_cleanups = 0;
  std::set<std::string> deleted;  // names of live files found missing
  int damaged = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (std::chrono::steady_clock::now() < deadline || made < 50) {
    // Mostly small arrays (the clean-up meets many fresh files); every fifth crosses chunks.
    live.emplace_back(made, made % 5 == 0 ? 700000 : 2000);
    Tracked& fresh = live.back();
    if (fresh.array->AppendBuffer(fresh.bytes.data(), fresh.elements()) != kZuOk) ++damaged;
    ++made;
    if (made % 10 == 0) {
      IZUArray::CleanTmpFiles();
      ++own_cleanups;
    }
    for (Tracked& t : live) {
      for (const auto& file : FilesOf(*t.array)) {
        if (!std::filesystem::exists(file) && deleted.insert(file.filename().string()).second) {
          ADD_FAILURE() << "a live file was deleted: " << file;
        }
      }
      if (!t.Intact()) {
        ++damaged;
        ADD_FAILURE() << "array " << made << " lost its elements";
      }
      ++checks;
    }
    if (live.size() > 8) live.erase(live.begin());
  }
  close(stop[1]);
  long their_cleanups = 0;
  const bool got = read(result[0], &their_cleanups, sizeof(their_cleanups)) ==
                   static_cast<ssize_t>(sizeof(their_cleanups));
  close(result[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  EXPECT_TRUE(got);
  EXPECT_GT(their_cleanups, 0);
  EXPECT_TRUE(deleted.empty());
  EXPECT_EQ(damaged, 0);
  for (const char* stray : strays) {
    EXPECT_FALSE(std::filesystem::exists(dir.path() / stray)) << stray << " was not cleaned up";
  }
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "notes.txt"));
  EXPECT_FALSE(kIsCleanLoopChild);
  live.clear();
  std::printf(
      "clean-up loop: %ld CleanTmpFiles calls by a second process and %d by this one while %d "
      "arrays were made; %d live-array checks, %zu live files deleted, %d arrays damaged, "
      "%zu strays removed\n",
      their_cleanups, own_cleanups, made, checks, deleted.size(), damaged, std::size(strays));
}

}  // namespace
}  // namespace zu_test
