// A data directory whose name is not ASCII. Paths are wide strings in the interface; on Windows
// they reach the file system as they are, on POSIX as UTF-8. Either way the directory a host
// names is the one that holds the files, descriptions carry the name through JSON, and the
// clean-up finds the leftovers there.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

// "déjà-数据": Latin letters with accents and two ideographs (outside any 8-bit code page).
const wchar_t kWideName[] = L"d\u00e9j\u00e0-\u6570\u636e";
const char kUtf8Name[] = "d\xc3\xa9j\xc3\xa0-\xe6\x95\xb0\xe6\x8d\xae";

// One file chunk of 4-byte elements is 1 MiB / 4.
constexpr uint64_t kChunkElements = 0x40000;

std::vector<std::string> FileNamesIn(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().u8string());
  }
  return names;
}

std::vector<uint32_t> ReadAll(IZUArray* array) {
  std::vector<uint32_t> out(array->GetSize());
  if (!out.empty()) array->CopyOut(out.data(), 0, static_cast<unsigned int>(out.size()));
  return out;
}

TEST(UnicodeDataDirectory, FileArraysLiveAndAreCleanedUpThere) {
  TempDataDir dir;
  const std::wstring wide = dir.wide() + L"/" + kWideName;
  const std::filesystem::path on_disk = dir.path() / std::filesystem::u8path(kUtf8Name);
  IZUArray::SetDataDirectory(wide);
  EXPECT_EQ(IZUArray::GetDataDirectory(), wide);

  std::vector<uint32_t> values(kChunkElements + 1000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint32_t>(i * 7 + 3);

  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocFileArray(4));
  ASSERT_NE(array, nullptr);
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  ASSERT_EQ(array->GetSize(), values.size());
  EXPECT_EQ(ReadAll(array.get()), values);
  uint32_t out = 0;
  ASSERT_NE(array->GetAt(kChunkElements, &out), nullptr);
  EXPECT_EQ(out, values[kChunkElements]) << "the first element of the second chunk";

  // The file sits in the directory of exactly that name, spelled in UTF-8 on POSIX.
  ASSERT_TRUE(std::filesystem::is_directory(on_disk));
  const auto names = FileNamesIn(on_disk);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(names[0].substr(names[0].size() - 4), ".KMB");
  EXPECT_GE(std::filesystem::file_size(on_disk / std::filesystem::u8path(names[0])),
            values.size() * sizeof(uint32_t));

  // A description names the file in the directory; it survives JSON text and re-attaches
  // while the array that made it is alive.
  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(array->SaveDescription(&saved));
  std::unique_ptr<base::DictionaryValue> owned(saved);
  const std::string json = base::WriteJson(*owned);
  std::unique_ptr<base::DictionaryValue> parsed = base::ReadJsonDictionary(json);
  ASSERT_NE(parsed, nullptr) << json;
  std::unique_ptr<IZUArray> copy(factory.AllocFileArray(4));
  ASSERT_TRUE(copy->LoadDescription(parsed.get())) << json;
  EXPECT_EQ(ReadAll(copy.get()), values);

  // A stray leftover there goes, a live file and other files stay.
  const std::string stray = "{00000000-0000-4000-8000-0000000000AB}.KMB";
  std::ofstream(on_disk / std::filesystem::u8path(stray)) << "old";
  std::ofstream(on_disk / "keep.txt") << "mine";
  dir.Keep("keep.txt");
  IZUArray::CleanTmpFiles();
  EXPECT_FALSE(std::filesystem::exists(on_disk / std::filesystem::u8path(stray)));
  EXPECT_TRUE(std::filesystem::exists(on_disk / "keep.txt"));
  EXPECT_EQ(FileNamesIn(on_disk).size(), 2u) << "the live data file and keep.txt";
  EXPECT_EQ(ReadAll(array.get()), values);

  copy.reset();
  array.reset();
  EXPECT_EQ(FileNamesIn(on_disk), std::vector<std::string>{"keep.txt"})
      << "both arrays are gone, and so is their file";
}

}  // namespace
}  // namespace zu_test
