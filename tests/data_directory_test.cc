// The data directory and the clean-up of leftover files, also against a second process.
#include "src/file/data_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process_state.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

const char kCleanChildVariable[] = "ZU_TEST_CLEAN_DIRECTORY";

// When started as the clean-up child, run the clean-up on the given directory and exit before
// any test runs.
const bool kIsCleanChild = [] {
  if (const char* dir = std::getenv(kCleanChildVariable)) {
    IZUArray::SetDataDirectory(std::filesystem::path(dir).wstring());
    IZUArray::CleanTmpFiles();
    std::_Exit(0);
  }
  return false;
}();

std::unique_ptr<IZUArray> FileArrayWithOneElement() {
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocFileArray(4));
  uint32_t value = 1;
  EXPECT_EQ(array->Append(&value), kZuOk);
  return array;
}

std::set<std::string> Names(const std::filesystem::path& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    names.insert(std::filesystem::relative(entry.path(), dir).generic_u8string());
  }
  return names;
}

TEST(DataDirectory, EmptyByDefaultAndCreatedWithParentsOnFirstFile) {
  EXPECT_TRUE(IZUArray::GetDataDirectory().empty());
  TempDataDir dir;
  const auto nested = dir.path() / "a" / "b";
  IZUArray::SetDataDirectory(nested.wstring());
  EXPECT_EQ(IZUArray::GetDataDirectory(), nested.wstring());
  {
    auto array = FileArrayWithOneElement();
    ASSERT_TRUE(std::filesystem::is_directory(nested));
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(nested)) {
      files.push_back(entry.path().filename().string());
    }
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(zu::IsDataFileName(std::wstring(files[0].begin(), files[0].end()))) << files[0];
    EXPECT_FALSE(zu::IsDataFileName(L"notes.KMB"));
    EXPECT_TRUE(zu::NewDataFilePath().find(nested.wstring() + L"//{") == 0);
  }
  EXPECT_TRUE(std::filesystem::is_empty(nested));
}

TEST(DataDirectory, WithoutADirectoryNothingIsCreated) {
  IZUArray::SetDataDirectory(L"");
  std::set<std::string> root_before;
  for (const auto& entry : std::filesystem::directory_iterator("/")) {
    root_before.insert(entry.path().string());
  }
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocFileArray(8));
  int64_t values[3] = {1, 2, 3};
  EXPECT_EQ(array->AppendBuffer(values, 3), kZuNoSpace);
  EXPECT_EQ(array->Append(values), kZuOk) << "a single value is ignored by the dead segment";
  EXPECT_EQ(array->GetSize(), 0u);
  std::set<std::string> root_after;
  for (const auto& entry : std::filesystem::directory_iterator("/")) {
    root_after.insert(entry.path().string());
  }
  EXPECT_EQ(root_before, root_after);
  IZUArray::CleanTmpFiles();  // no directory: nothing to do, nothing to fail
}

TEST(DataDirectory, CleanTmpFilesRemovesOnlyLeftoversAtTheTopLevel) {
  TempDataDir dir;
  dir.Touch("a.KMB");
  dir.Touch("b.kmt");
  dir.Touch("c.kMb");
  dir.Touch("d.KMT");
  // Only the exact extension counts (a Windows search pattern also matches 8.3 short names,
  // and the short name of "x.KMBX" ends in ".KMB").
  const char* kNotDataFiles[] = {"keep.txt", "x.KMBX", "x.kmtx", "x.KM"};
  for (const char* name : kNotDataFiles) {
    dir.Touch(name);
    dir.Keep(name);
  }
  dir.Touch("sub/e.KMB");
  std::filesystem::create_directory(dir.path() / "f.KMB");
  dir.Keep("e.KMB");
  auto live = FileArrayWithOneElement();
  const auto before = Names(dir.path());
  IZUArray::CleanTmpFiles();
  auto after = Names(dir.path());
  EXPECT_EQ(
      after.count("a.KMB") + after.count("b.kmt") + after.count("c.kMb") + after.count("d.KMT"),
      0u);
  for (const char* name : kNotDataFiles) EXPECT_EQ(after.count(name), 1u) << name;
  EXPECT_EQ(after.count("sub/e.KMB"), 1u);
  EXPECT_EQ(after.count("f.KMB"), 1u);
  EXPECT_EQ(before.size() - after.size(), 4u) << "the live array's file stays";
  uint32_t out = 0;
  EXPECT_NE(live->GetAt(0, &out), nullptr);
  live.reset();
  EXPECT_EQ(dir.CountFiles(), 0);

  // A missing directory is no error.
  IZUArray::SetDataDirectory((dir.path() / "missing").wstring());
  IZUArray::CleanTmpFiles();
}

TEST(DataDirectory, AnotherProcessCleaningUpSparesLiveFiles) {
  TempDataDir dir;
  dir.Touch("{00000000-0000-4000-8000-000000000000}.KMB");
  auto live = FileArrayWithOneElement();
  ASSERT_EQ(dir.CountFiles(), 2);
  ASSERT_EQ(RunSelfWith(kCleanChildVariable, dir.path()), 0);
  EXPECT_EQ(dir.CountFiles(), 1) << "the stray file went, the live one stayed";
  uint32_t out = 0;
  EXPECT_NE(live->GetAt(0, &out), nullptr);
  EXPECT_FALSE(kIsCleanChild);
}

}  // namespace
}  // namespace zu_test
