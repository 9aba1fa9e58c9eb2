// Leftovers of crashed processes and clean-up while arrays are alive, between real processes.
//
// A process killed with SIGKILL leaves its data files behind (nothing of the library runs on
// the way out); CleanTmpFiles of a later process must remove every one of them and nothing
// else. A holder of the same files in another process (a loader of a description) that goes
// away leaves them to the others; the last holder deletes them. And CleanTmpFiles running over
// and over in another process must never delete a file that an array of this process still
// uses, while this process keeps making, filling and releasing arrays (and cleans up itself as
// well).
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "src/platform/platform.h"
#include "tests/support/filled_array.h"
#include "tests/support/posix_child_process.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

// The second process: CleanTmpFiles in a loop until the test says stop, then the number of
// calls goes back.
void Cleaner(ChildPipes pipes, const std::string& dir) {
  IZUArray::SetDataDirectory(std::filesystem::path(dir).wstring());
  long calls = 0;
  for (struct pollfd stop = {pipes.stop, POLLIN, 0}; poll(&stop, 1, 0) == 0; ++calls) {
    IZUArray::CleanTmpFiles();
  }
  Send(pipes.out, calls);
}
const bool kIsCleanerChild = RunIfChild("cleaner", &Cleaner);

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

// The writer killed by the crash test: makes, fills and releases file arrays of every element
// type until it is killed (or gives up after a while).
void AppendUntilKilled(unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::unique_ptr<IZUArray>> arrays;
  const std::vector<uint64_t> block(300000, 0x0123456789ABCDEFull);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    const int type = 1 << (random() % 4);
    arrays.emplace_back(CArrayFactory().AllocFileArray(type));
    // Bulk pieces (some crossing a chunk), then single appends through the mapped view.
    for (size_t p = random() % 4; p < 4; ++p) {
      arrays.back()->AppendBuffer(block.data(), (random() % 300000) * 8 / type);
    }
    for (int k = 0; k < 500; ++k) arrays.back()->Append(block.data());
    if (arrays.size() > 6) arrays.erase(arrays.begin() + static_cast<long>(random() % 6));
  }
}

TEST(PosixCleanup, KilledWritersLeaveFilesThatCleanTmpFilesRemoves) {
  TempDataDir dir;
  dir.Touch("notes.txt", "not the library's");
  dir.Keep("notes.txt");
  // An array of this process stays alive over all runs: the clean-up must spare it.
  FilledFileArray mine(3, 5000);
  ASSERT_EQ(mine.Fill(), kZuOk);
  const std::vector<std::string> own_files = DataFiles(dir.path());
  ASSERT_EQ(own_files.size(), 1u);
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  int with_leftovers = 0, leftovers = 0;
  for (int run = 0; run < 50; ++run) {
    ChildProcess writer(nullptr, [&](ChildPipes) { AppendUntilKilled(seed + run); });
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + random() % 60000));
    kill(writer.pid(), SIGKILL);
    EXPECT_EQ(writer.Finish(), 128 + SIGKILL) << "run " << run << ": the writer ended by itself";
    const int files = static_cast<int>(DataFiles(dir.path()).size()) - 1;
    leftovers += files;
    with_leftovers += files > 0;
    IZUArray::CleanTmpFiles();
    EXPECT_EQ(DataFiles(dir.path()), own_files)
        << "run " << run << ": only the live array's file stays";
    EXPECT_TRUE(mine.Intact()) << "run " << run;
  }
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "notes.txt"));
  EXPECT_GT(with_leftovers, 0) << "no writer was caught with files: the test proves nothing";
  std::printf(
      "crash leftovers (seed %u): 50 writers killed, %d of them left %d files, all removed\n", seed,
      with_leftovers, leftovers);
}

// Operators see every open data file under its own name, in the descriptors and in the views:
// a "#inode (deleted)" entry (the name a file made without one keeps) reads as a leak and
// invites a clean-up by hand.
TEST(PosixCleanup, OpenDataFilesShowUnderTheirNames) {
  TempDataDir dir;
  FilledFileArray filled(3, 300000);  // more than a chunk: the write and read views are mapped
  ASSERT_EQ(filled.Fill(), kZuOk);
  ASSERT_TRUE(filled.Intact());
  const std::vector<std::string> files = DataFiles(dir.path());
  ASSERT_EQ(files.size(), 1u);
  const std::filesystem::path home = std::filesystem::canonical(dir.path());
  const std::string expected = (home / files[0]).string();
  int descriptors = 0, views = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
    if (error || target.parent_path() != home) continue;
    ++descriptors;
    EXPECT_EQ(target.string(), expected);
  }
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(home.string() + "/") == std::string::npos) continue;
    ++views;
    EXPECT_TRUE(line.size() >= expected.size() &&
                line.compare(line.size() - expected.size(), expected.size(), expected) == 0)
        << line;
  }
  EXPECT_EQ(descriptors, 1);
  EXPECT_GE(views, 1);
}

// A description re-attached in another process: the loader clears and destroys its array and
// goes, and the creator's files and elements stay; the clean-up spares them too. The files go
// with the last holder.
TEST(PosixCleanup, LoaderInAnotherProcessLeavesTheCreatorsFiles) {
  TempDataDir dir;
  FilledFileArray maker(3, 5000);
  ASSERT_EQ(maker.Fill(), kZuOk);
  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(maker.array->SaveDescription(&saved) && saved != nullptr);
  std::unique_ptr<base::DictionaryValue> description(saved);
  const std::vector<std::string> files = DataFiles(dir.path());
  ASSERT_EQ(files.size(), 1u);
  ChildProcess loader(nullptr, [&](ChildPipes) {
    std::unique_ptr<IZUArray> array(CArrayFactory().AllocFileArray(maker.type));
    const bool loaded = array->LoadDescription(description.get()) && array->GetSize() == 5000;
    array->Clear();
    array.reset();
    std::_Exit(loaded ? 0 : 1);
  });
  EXPECT_EQ(loader.Finish(), 0);
  IZUArray::CleanTmpFiles();
  EXPECT_EQ(DataFiles(dir.path()), files);
  EXPECT_TRUE(maker.Intact());

  // A third holder still finds them; after the creator has gone, the last holder deletes.
  std::unique_ptr<IZUArray> third(CArrayFactory().AllocFileArray(maker.type));
  ASSERT_TRUE(third->LoadDescription(description.get()));
  maker.array.reset();
  EXPECT_EQ(DataFiles(dir.path()), files);
  EXPECT_EQ(third->GetSize(), 5000u);
  third.reset();
  EXPECT_TRUE(DataFiles(dir.path()).empty());
}

// The same at the platform seam: neither the clean-up nor a holder's own delete removes a file
// another holder keeps open; the last holder's delete does. A new file never replaces an
// existing one.
TEST(PosixCleanup, DeletesSpareFilesOthersHold) {
  TempDataDir dir;
  auto& os = zu::platform::Native();
  std::wstring path = dir.wide() + L"/live.KMB";
  auto maker = os.CreateFile(path);
  ASSERT_NE(maker, zu::platform::kInvalidFile);
  EXPECT_EQ(os.CreateFile(path), zu::platform::kInvalidFile);
  auto loader = os.OpenFile(path);
  ASSERT_NE(loader, zu::platform::kInvalidFile);
  EXPECT_FALSE(os.DeleteFileIfUnused(path));
  EXPECT_FALSE(os.CloseAndDeleteFile(loader, path));
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "live.KMB"));
  EXPECT_FALSE(os.DeleteFileIfUnused(path));
  EXPECT_TRUE(os.CloseAndDeleteFile(maker, path));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "nothing left under another name";
  auto unused = os.CreateFile(path);
  ASSERT_NE(unused, zu::platform::kInvalidFile);
  os.CloseFile(unused);
  EXPECT_TRUE(os.DeleteFileIfUnused(path));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "live.KMB"));
}

TEST(PosixCleanup, CleanTmpFilesLoopInAnotherProcessSparesLiveFiles) {
  TempDataDir dir;
  // Leftovers of an earlier run for the other process to find.
  const char* const strays[] = {"{00000000-0000-4000-8000-000000000001}.KMB",
                                "{00000000-0000-4000-8000-000000000002}.KMB", "old.kmt"};
  for (const char* stray : strays) dir.Touch(stray);
  dir.Touch("notes.txt");
  dir.Keep("notes.txt");
  ChildProcess cleaner("cleaner", dir.path().string());

  // This process: a ring of live arrays, one new array per step, every live array checked after
  // each step (a deleted file would take its elements along); every tenth step it cleans up too.
  std::vector<FilledFileArray> live;
  int made = 0, checks = 0, damaged = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (std::chrono::steady_clock::now() < deadline || made < 50) {
    // Mostly small arrays (the clean-up meets many fresh files); every fifth crosses chunks.
    live.emplace_back(made, made % 5 == 0 ? 700000 : 2000);
    damaged += live.back().Fill() != kZuOk;
    if (++made % 10 == 0) IZUArray::CleanTmpFiles();
    for (FilledFileArray& t : live) damaged += !t.Intact();
    checks += static_cast<int>(live.size());
    if (live.size() > 8) live.erase(live.begin());
  }
  live.clear();
  cleaner.Stop();
  long their_calls = 0;
  EXPECT_TRUE(cleaner.Receive(&their_calls));
  EXPECT_EQ(cleaner.Finish(), 0);
  EXPECT_GT(their_calls, 0);
  EXPECT_EQ(damaged, 0) << "live arrays lost their files or elements";
  for (const char* stray : strays)
    EXPECT_FALSE(std::filesystem::exists(dir.path() / stray)) << stray;
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "notes.txt"));
  EXPECT_FALSE(kIsCleanerChild);
  std::printf(
      "clean-up loop: %ld CleanTmpFiles calls by a second process while %d arrays were "
      "made here; %d live-array checks, %d damaged\n",
      their_calls, made, checks, damaged);
}

}  // namespace
}  // namespace zu_test
