// The data directory: where files are made and how they are named (also under a name that is
// not ASCII), what happens without one, and the clean-up of leftover files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process_state.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

std::unique_ptr<IZUArray> FileArrayWithOneElement() {
  std::unique_ptr<IZUArray> array(CArrayFactory().AllocFileArray(4));
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

// A data file's name is a version-4 GUID in upper case, in braces, with the extension .KMB.
const std::regex kGuidName(
    R"(\{[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\}\.KMB)");

TEST(DataDirectory, WithoutADirectoryNothingIsCreated) {
  auto top_level = [] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/"))
      names.insert(entry.path().string());
    return names;
  };
  const std::set<std::string> root = top_level();
  std::unique_ptr<IZUArray> array(CArrayFactory().AllocFileArray(8));
  int64_t values[3] = {1, 2, 3};
  EXPECT_EQ(array->AppendBuffer(values, 3), kZuNoSpace);
  EXPECT_EQ(array->Append(values), kZuOk) << "a single value is ignored by the dead segment";
  EXPECT_EQ(array->GetSize(), 0u);
  EXPECT_EQ(top_level(), root);
  IZUArray::CleanTmpFiles();  // no directory: nothing to do, nothing to fail
}

TEST(DataDirectory, CleanTmpFilesRemovesOnlyLeftoversAtTheTopLevel) {
  TempDataDir dir;
  // Only the exact extension counts (a Windows search pattern also matches 8.3 short names,
  // and the short name of "x.KMBX" ends in ".KMB").
  const char* kNotDataFiles[] = {"keep.txt", "x.KMBX", "x.kmtx", "x.KM", "sub/e.KMB"};
  for (const char* name : {"a.KMB", "b.kmt", "c.kMb", "d.KMT"}) dir.Touch(name);
  for (const char* name : kNotDataFiles) {
    dir.Keep(dir.Touch(name).filename().string());
  }
  std::filesystem::create_directory(dir.path() / "f.KMB");
  if (kCanMakeSymlinks)
    std::filesystem::create_symlink(dir.path() / "keep.txt", dir.path() / "g.KMB");
  auto live = FileArrayWithOneElement();
  const auto before = Names(dir.path());
  IZUArray::CleanTmpFiles();
  auto after = Names(dir.path());
  for (const char* gone : {"a.KMB", "b.kmt", "c.kMb", "d.KMT"})
    EXPECT_EQ(after.count(gone), 0u) << gone;
  for (const char* kept : kNotDataFiles) EXPECT_EQ(after.count(kept), 1u) << kept;
  EXPECT_EQ(after.count("f.KMB"), 1u);
  EXPECT_EQ(before.size() - after.size(), 4u) << "the live array's file and a link stay";
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "keep.txt")) << "not deleted through a link";
  uint32_t out = 0;
  EXPECT_NE(live->GetAt(0, &out), nullptr);
  IZUArray::SetDataDirectory((dir.path() / "missing").wstring());
  IZUArray::CleanTmpFiles();  // a missing directory is no error
}

// The directory a host names holds the files, made with its parents, also when its name is not
// ASCII: paths are wide strings in the interface, on Windows they reach the file system as they
// are, on POSIX as UTF-8. Descriptions carry the name through JSON, and the clean-up finds
// leftovers there.
TEST(DataDirectory, FilesAreMadeThereWithItsParentsUnderGuidNames) {
  EXPECT_TRUE(IZUArray::GetDataDirectory().empty()) << "empty by default";
  TempDataDir dir;
  const std::wstring wide = dir.wide() + L"/d\u00e9j\u00e0-\u6570\u636e/b";
  const std::filesystem::path on_disk =
      dir.path() / std::filesystem::u8path("d\xc3\xa9j\xc3\xa0-\xe6\x95\xb0\xe6\x8d\xae") / "b";
  IZUArray::SetDataDirectory(wide);
  EXPECT_EQ(IZUArray::GetDataDirectory(), wide);
  std::vector<std::unique_ptr<IZUArray>> arrays;
  for (int i = 0; i < 20; ++i) arrays.push_back(FileArrayWithOneElement());
  const std::set<std::string> names = Names(on_disk);
  EXPECT_EQ(names.size(), 20u) << "one distinct file per array";
  for (const std::string& name : names) EXPECT_TRUE(std::regex_match(name, kGuidName)) << name;

  std::vector<uint32_t> values(0x40000 + 1000);  // crosses a chunk
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint32_t>(i * 7 + 3);
  ASSERT_EQ(arrays[0]->AppendBuffer(values.data(), values.size()), kZuOk);
  values.insert(values.begin(), 1);
  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(arrays[0]->SaveDescription(&saved));
  std::unique_ptr<base::DictionaryValue> owned(saved);
  std::unique_ptr<base::DictionaryValue> parsed = base::ReadJsonDictionary(base::WriteJson(*owned));
  std::unique_ptr<IZUArray> copy(CArrayFactory().AllocFileArray(4));
  ASSERT_TRUE(parsed && copy->LoadDescription(parsed.get()));
  std::vector<uint32_t> back(values.size());
  copy->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
  EXPECT_EQ(back, values);
  const std::filesystem::path stray = on_disk / "{00000000-0000-4000-8000-0000000000AB}.KMB";
  std::ofstream(stray) << "old";
  IZUArray::CleanTmpFiles();
  EXPECT_FALSE(std::filesystem::exists(stray));
  EXPECT_EQ(Names(on_disk), names) << "the live files stay";
  copy.reset();
  arrays.clear();
  EXPECT_TRUE(std::filesystem::is_empty(on_disk));
}

}  // namespace
}  // namespace zu_test
