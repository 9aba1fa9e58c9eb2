// Descriptions a host hands to LoadDescription: malformed ones are refused cleanly, a file the
// library did not make is never extended or deleted whatever the description claims, and a
// load attaches the entries up to the first one it cannot use.
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process_state.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

const char kGuidName[] = "{0123ABCD-4567-89AB-CDEF-0123456789AB}.KMB";

base::DictionaryValue* Entry(const std::filesystem::path& path, int size) {
  auto* entry = new base::DictionaryValue();
  entry->SetString("file_path", path.wstring());
  entry->SetInteger("size", size);
  return entry;
}

// A description of the given entries (taken over).
std::unique_ptr<base::DictionaryValue> Describing(std::vector<base::Value*> entries) {
  auto description = std::make_unique<base::DictionaryValue>();
  auto* files = new base::ListValue();
  for (base::Value* entry : entries) files->Append(entry);
  description->Set("files", files);
  return description;
}

std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Loads `description` into a fresh file array, uses it (reads, searches, an add across a chunk)
// and destroys it. Returns the size right after the load.
uint64_t LoadUseAndDestroy(const base::DictionaryValue& description) {
  std::unique_ptr<IZUArray> array(CArrayFactory().AllocFileArray(2));
  array->LoadDescription(&description);
  const uint64_t size = array->GetSize();
  uint16_t x = 3;
  array->GetAt(0, &x);
  array->Find(&x);
  array->FindFloor(&x);
  std::vector<uint16_t> more(600000, 7);
  const int code = array->AppendBuffer(more.data(), more.size());
  EXPECT_TRUE(code >= 0 && code <= 2) << code;
  array->SetAt(0, &x);
  return size;
}

TEST(BadInputDescription, MalformedDescriptionsAreRefusedCleanly) {
  TempDataDir dir;
  base::DictionaryValue none, wrong_type;
  wrong_type.SetInteger("files", 3);
  std::unique_ptr<IZUArray> array(CArrayFactory().AllocFileArray(2));
  EXPECT_FALSE(array->LoadDescription(&none)) << "no files key";
  EXPECT_FALSE(array->LoadDescription(&wrong_type)) << "files is not a list";
  auto* no_path = new base::DictionaryValue();
  no_path->SetInteger("size", 4);
  auto* wrong_fields = new base::DictionaryValue();
  wrong_fields->SetInteger("file_path", 12);
  wrong_fields->SetString("size", std::string("twelve"));
  std::filesystem::create_directory(dir.path() / "sub.KMB");
  const std::unique_ptr<base::DictionaryValue> cases[] = {
      Describing({new base::ListValue()}),
      Describing({no_path}),
      Describing({wrong_fields}),
      Describing({Entry(dir.path() / kGuidName, 4)}),
      Describing({Entry("", 0)}),
      Describing({Entry("/", 0)}),
      Describing({Entry(dir.path() / "sub.KMB", 0)})};
  for (const auto& description : cases) EXPECT_EQ(LoadUseAndDestroy(*description), 0u);
  EXPECT_EQ(LoadUseAndDestroy(none), 0u);
  EXPECT_EQ(LoadUseAndDestroy(wrong_type), 0u);
}

// By name, through links of the library's own name shape, with a size larger than the file,
// negative or extreme: the user's files stay byte for byte as they were.
TEST(BadInputDescription, ForeignFilesAreNeverExtendedOrDeleted) {
  TempDataDir dir;
  const std::string content(5000, 'u');
  const std::filesystem::path user = dir.Touch("user.bin", content);
  const std::filesystem::path short_data =
      dir.Touch("{11111111-2222-3333-4444-555555555555}.KMB", std::string(10, 's'));
  // A second name of another user file, shaped like a data file's (user.bin has one name only,
  // so that nothing but the link itself can keep the library from following the link).
  const std::filesystem::path shared = dir.Touch("shared.bin", content);
  const std::filesystem::path hard = dir.path() / "{99999999-8888-7777-6666-555555555555}.KMB";
  std::filesystem::create_hard_link(shared, hard);
  const std::filesystem::path link = dir.path() / kGuidName;
  if (kCanMakeSymlinks) std::filesystem::create_symlink(user, link);
  for (const auto& name : {user, shared, short_data, hard}) dir.Keep(name.filename().string());
  const std::pair<std::filesystem::path, int> cases[] = {
      {user, 100},           {user, 0},
      {link, 100},           {link, 0},
      {hard, 100},           {hard, 0},
      {short_data, 1000},    {short_data, -5},
      {short_data, INT_MIN}, {short_data, INT_MAX}};
  for (const auto& [path, size] : cases) {
    if (!kCanMakeSymlinks && path == link) continue;  // no link to follow on this system
    SCOPED_TRACE(path.filename().string() + " " + std::to_string(size));
    EXPECT_EQ(LoadUseAndDestroy(*Describing({Entry(path, size)})), 0u);
    EXPECT_EQ(ReadBytes(user), content);
    EXPECT_EQ(ReadBytes(shared), content);
    EXPECT_EQ(ReadBytes(short_data), std::string(10, 's'));
    EXPECT_EQ(std::filesystem::is_symlink(link), kCanMakeSymlinks);
    EXPECT_TRUE(std::filesystem::exists(hard));
  }
}

TEST(BadInputDescription, LoadingStopsAtTheFirstUnusableEntry) {
  TempDataDir dir;
  std::vector<uint32_t> values(300000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint32_t>(i * 5);
  std::unique_ptr<IZUArray> original(CArrayFactory().AllocFileArray(4));
  ASSERT_EQ(original->AppendBuffer(values.data(), values.size()), kZuOk);
  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(original->SaveDescription(&saved));
  std::unique_ptr<base::DictionaryValue> owned(saved);
  base::ListValue* files = nullptr;
  base::DictionaryValue* good = nullptr;
  ASSERT_TRUE(owned->GetList("files", &files) && files->GetDictionary(0, &good));
  std::unique_ptr<IZUArray> copy(CArrayFactory().AllocFileArray(4));
  // The bogus first entry ends the load; a partly filled entry does not: both copies attach.
  EXPECT_TRUE(copy->LoadDescription(Describing({Entry("/etc/passwd", 1), good->DeepCopy()}).get()));
  EXPECT_EQ(copy->GetSize(), 0u);
  EXPECT_TRUE(copy->LoadDescription(Describing({good->DeepCopy(), good->DeepCopy()}).get()));
  EXPECT_EQ(copy->GetSize(), 2 * values.size());
  // Three arrays own the same file now: it goes with the last of them.
}

}  // namespace
}  // namespace zu_test
