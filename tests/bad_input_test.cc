// Bad input at every public entry: out-of-range type codes and buffer arguments, null
// pointers where the interface takes them, reversed ranges, out-of-range indexes, and
// malformed or hostile descriptions. Each gives its documented answer or a clean refusal;
// none crashes, and a description can never make the library touch a file it did not make.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

using Alloc = IZUArray* (CArrayFactory::*)(int);

struct OwningKind {
  const char* name;
  Alloc alloc;
};

const OwningKind kOwningKinds[] = {
    {"vector", &CArrayFactory::AllocVectorArray},
    {"deque", &CArrayFactory::AllocDequeArray},
    {"file", &CArrayFactory::AllocFileArray},
    {"auto vector", &CArrayFactory::AllocAutoVectorArray},
    {"auto deque", &CArrayFactory::AllocAutoDequeArray},
};

std::unique_ptr<IZUArray> Make(Alloc alloc, int type) {
  CArrayFactory factory;
  return std::unique_ptr<IZUArray>((factory.*alloc)(type));
}

TEST(BadInputFactory, TypeCodesNoKindSupportsGiveNull) {
  TempDataDir dir;
  int refused = 0;
  int tried = 0;
  for (const OwningKind& kind : kOwningKinds) {
    for (int type : {-1, -8, 3, 5, 6, 7, 12, 1000, 1024, 4096, INT_MAX, INT_MIN}) {
      // Deques hold records of any power-of-two size above 8.
      if (kind.alloc == &CArrayFactory::AllocDequeArray && (type == 1024 || type == 4096)) {
        continue;
      }
      std::unique_ptr<IZUArray> array = Make(kind.alloc, type);
      EXPECT_EQ(array, nullptr) << kind.name << " type " << type;
      refused += array == nullptr;
      ++tried;
    }
  }
  std::printf("bad type codes: %d of %d refused with null\n", refused, tried);
}

TEST(BadInputFactory, AttachArgumentsThatDescribeNoBufferGiveNull) {
  CArrayFactory factory;
  unsigned char buffer[64] = {0};
  EXPECT_EQ(factory.AllocAttachBufferArray(1, buffer, -1), nullptr);
  EXPECT_EQ(factory.AllocAttachBufferArray(-1, buffer, 8), nullptr);
  EXPECT_EQ(factory.AllocAttachBufferArray(INT_MIN, buffer, 8), nullptr);
  EXPECT_EQ(factory.AllocAttachBufferArray(4, nullptr, 8), nullptr);
  EXPECT_EQ(factory.AllocAttachBufferArray(8, buffer, INT64_MIN), nullptr);
  EXPECT_EQ(factory.AllocAttachCrossBufferArray(4, buffer, 16, -1), nullptr);
  EXPECT_EQ(factory.AllocAttachCrossBufferArray(4, buffer, -16, 4), nullptr);
  EXPECT_EQ(factory.AllocAttachCrossBufferArray(1, buffer, INT64_MAX, INT_MAX), nullptr)
      << "a span that overflows";
  EXPECT_EQ(factory.AllocAttachCrossBufferArray(2, nullptr, 2, 0), nullptr);
  // An empty view of no buffer is a real (empty) buffer.
  std::unique_ptr<IZUArray> empty(factory.AllocAttachBufferArray(4, nullptr, 0));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->GetSize(), 0u);
  uint32_t out = 7;
  EXPECT_EQ(empty->GetAt(0, &out), nullptr);
  EXPECT_EQ(empty->GetLast(&out), nullptr);
  EXPECT_THROW(empty->Find(&out), std::logic_error) << "not offered by attached views";
}

// Null pointers, out-of-range indexes and reversed ranges on every owning kind.
TEST(BadInputArray, NullsIndexesAndReversedRangesOnEveryOwningKind) {
  TempDataDir dir;
  int probes = 0;
  for (const OwningKind& kind : kOwningKinds) {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IZUArray> array = Make(kind.alloc, 4);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->AppendBuffer(nullptr, 0), kZuOk);
    EXPECT_EQ(array->GetSize(), 0u);
    const std::vector<uint32_t> values = {2, 4, 6, 8, 10};
    ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
    EXPECT_EQ(array->AppendBuffer(nullptr, 0), kZuOk);
    uint32_t out = 0;
    for (uint64_t index : {uint64_t{5}, uint64_t{6}, uint64_t{1} << 32, UINT64_MAX}) {
      EXPECT_EQ(array->GetAt(index, &out), nullptr) << index;
      const uint32_t x = 99;
      array->SetAt(index, &x);
      ++probes;
    }
    EXPECT_EQ(array->GetSize(), values.size());

    // A range whose end lies before its start is refused with code 1 and adds nothing.
    std::vector<uint32_t> source = {1, 2, 3, 4};
    SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(source.data()), 4, 4);
    std::shared_ptr<ArrayIterBase> last = first.Clone();
    first.Seek(3);
    last->Seek(1);
    EXPECT_EQ(array->AppendRange(&first, last.get()), kZuFailed);
    const uint64_t after_range = array->GetSize();
    // The self-spilling arrays clear themselves on a failed add; the others keep what they had.
    if (kind.alloc == &CArrayFactory::AllocAutoVectorArray ||
        kind.alloc == &CArrayFactory::AllocAutoDequeArray) {
      EXPECT_EQ(after_range, 0u);
    } else {
      EXPECT_EQ(after_range, values.size());
    }
    ASSERT_EQ(array->AppendBuffer(values.data(), values.size() - after_range), kZuOk);
    first.Seek(3);
    EXPECT_EQ(array->Assign(&first, last.get()), kZuFailed);

    // Copies that start at or beyond the end, or before the start, write nothing.
    array->Clear();
    ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
    std::vector<uint32_t> dest(8, 0xABCDEF01u);
    array->CopyOut(dest.data(), 5, 3);
    array->CopyOut(dest.data(), 1000, 3);
    array->CopyOut(dest.data(), INT_MAX, UINT_MAX);
    EXPECT_EQ(dest, std::vector<uint32_t>(8, 0xABCDEF01u));
    array->CopyOut(dest.data(), 3, UINT_MAX);  // clamped to the two that exist
    EXPECT_EQ(dest[0], 8u);
    EXPECT_EQ(dest[1], 10u);
    EXPECT_EQ(dest[2], 0xABCDEF01u);
    probes += 4;

    // Descriptions: a null argument is refused by arrays with files and ignored otherwise.
    const bool has_files = kind.alloc == &CArrayFactory::AllocFileArray;
    EXPECT_EQ(array->LoadDescription(nullptr), !has_files);
    EXPECT_EQ(array->SaveDescription(nullptr), !has_files);
    probes += 2;
    if (!has_files) {
      EXPECT_EQ(array->GetSize(), values.size());
    }

    // Searches on an emptied array.
    array->Clear();
    const uint32_t probe = 5;
    EXPECT_EQ(array->Find(&probe), 0u);
    EXPECT_EQ(array->LowerBound(&probe), 0u);
    EXPECT_EQ(array->UpperBound(&probe), 0u);
    uint32_t nearest = probe;
    array->FindNearest(&nearest, 0);
    array->FindFloor(&probe);
    array->LocateLowerBound(&probe);
    probes += 6;
  }
  std::printf("bad arguments: %d probes over %d kinds, no crash\n", probes,
              static_cast<int>(std::size(kOwningKinds)));
}

// --- descriptions ----------------------------------------------------------------------

std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const char kGuidName[] = "{0123ABCD-4567-89AB-CDEF-0123456789AB}.KMB";

// A description with one file entry; `entry` is filled by the caller.
std::unique_ptr<base::DictionaryValue> OneEntry(base::DictionaryValue* entry) {
  auto description = std::make_unique<base::DictionaryValue>();
  auto* files = new base::ListValue();
  files->Append(entry);
  description->Set("files", files);
  return description;
}

base::DictionaryValue* Entry(const std::string& path, int size) {
  auto* entry = new base::DictionaryValue();
  entry->SetString("file_path", std::filesystem::path(path).wstring());
  entry->SetInteger("size", size);
  return entry;
}

// Loads `description` into a fresh file array, uses it (reads, searches, appends across a
// chunk) and destroys it. Returns the size right after the load.
uint64_t LoadUseAndDestroy(const base::DictionaryValue* description, bool* loaded) {
  std::unique_ptr<IZUArray> array = Make(&CArrayFactory::AllocFileArray, 2);
  *loaded = array->LoadDescription(description);
  const uint64_t size = array->GetSize();
  uint16_t out = 0;
  for (uint64_t i = 0; i < std::min<uint64_t>(size, 4) + 1; ++i) array->GetAt(i, &out);
  const uint16_t x = 3;
  array->Find(&x);
  array->FindFloor(&x);
  std::vector<uint16_t> more(600000, 7);
  const int code = array->AppendBuffer(more.data(), more.size());
  EXPECT_TRUE(code >= 0 && code <= 2) << code;
  array->Append(&x);
  array->SetAt(0, &x);
  return size;
}

TEST(BadInputDescription, MalformedDescriptionsAreRefusedCleanly) {
  TempDataDir dir;
  int cases = 0;
  auto expect_empty = [&](const base::DictionaryValue& description, const char* what) {
    SCOPED_TRACE(what);
    bool loaded = false;
    EXPECT_EQ(LoadUseAndDestroy(&description, &loaded), 0u);
    ++cases;
  };
  {
    base::DictionaryValue none;
    std::unique_ptr<IZUArray> array = Make(&CArrayFactory::AllocFileArray, 2);
    EXPECT_FALSE(array->LoadDescription(&none)) << "no files key";
    expect_empty(none, "no files key");
  }
  {
    base::DictionaryValue wrong_type;
    wrong_type.SetInteger("files", 3);
    std::unique_ptr<IZUArray> array = Make(&CArrayFactory::AllocFileArray, 2);
    EXPECT_FALSE(array->LoadDescription(&wrong_type)) << "files is not a list";
    expect_empty(wrong_type, "files is an integer");
  }
  {
    base::DictionaryValue list_of_junk;
    auto* files = new base::ListValue();
    files->Append(new base::ListValue());
    auto* no_path = new base::DictionaryValue();
    no_path->SetInteger("size", 4);
    files->Append(no_path);
    list_of_junk.Set("files", files);
    expect_empty(list_of_junk, "entries of the wrong type");
  }
  {
    auto* entry = new base::DictionaryValue();
    entry->SetInteger("file_path", 12);
    entry->SetString("size", std::string("twelve"));
    expect_empty(*OneEntry(entry), "fields of the wrong type");
  }
  expect_empty(*OneEntry(Entry((dir.path() / kGuidName).string(), 4)), "missing file");
  expect_empty(*OneEntry(Entry("", 0)), "empty path");
  expect_empty(*OneEntry(Entry("/", 0)), "the root");
  {
    std::filesystem::create_directory(dir.path() / kGuidName);
    expect_empty(*OneEntry(Entry((dir.path() / kGuidName).string(), 0)), "a directory");
    std::filesystem::remove(dir.path() / kGuidName);
  }
  std::printf("malformed descriptions: %d refused, no crash, nothing left behind\n", cases);
}

// A file the library did not make stays byte for byte as it was, whatever the description
// claims about it: by name, through a link of the library's own name shape, with a size larger
// than the file or a negative one.
TEST(BadInputDescription, ForeignFilesAreNeverExtendedOrDeleted) {
  TempDataDir dir;
  const std::string content(5000, 'u');
  const std::filesystem::path user = dir.Touch("user.bin", content);
  dir.Keep("user.bin");
  // A data-shaped file made by the test, shorter than the size the entry claims.
  const std::filesystem::path short_data =
      dir.Touch("{11111111-2222-3333-4444-555555555555}.KMB", std::string(10, 's'));
  dir.Keep(short_data.filename().string());
  const std::filesystem::path link = dir.path() / kGuidName;
  if (kCanMakeSymlinks) std::filesystem::create_symlink(user, link);
  // A second name of the user's file, shaped like a data file's.
  const std::filesystem::path hard = dir.path() / "{99999999-8888-7777-6666-555555555555}.KMB";
  std::filesystem::create_hard_link(user, hard);
  dir.Keep(hard.filename().string());

  struct Case {
    const char* what;
    std::filesystem::path path;
    int size;
  };
  const Case cases[] = {
      {"by its own name", user, 100},
      {"by its own name, size 0", user, 0},
      {"through a symbolic link", link, 100},
      {"through a symbolic link, size 0", link, 0},
      {"through a hard link", hard, 100},
      {"through a hard link, size 0", hard, 0},
      {"size larger than the file", short_data, 1000},
      {"negative size", short_data, -5},
      {"size INT_MIN", short_data, INT_MIN},
      {"size INT_MAX", short_data, INT_MAX},
  };
  for (const Case& c : cases) {
    if (!kCanMakeSymlinks && c.path == link) continue;  // no link to follow on this system
    SCOPED_TRACE(c.what);
    bool loaded = true;
    EXPECT_EQ(LoadUseAndDestroy(OneEntry(Entry(c.path.string(), c.size)).get(), &loaded), 0u);
    EXPECT_EQ(ReadBytes(user), content);
    EXPECT_EQ(std::filesystem::file_size(user), content.size());
    EXPECT_EQ(ReadBytes(short_data), std::string(10, 's'));
    EXPECT_EQ(std::filesystem::is_symlink(link), kCanMakeSymlinks);
    EXPECT_TRUE(std::filesystem::exists(hard));
  }
  std::filesystem::remove(link);
  std::printf("foreign files: %d hostile descriptions, user files unchanged\n",
              static_cast<int>(std::size(cases)));
}

}  // namespace
}  // namespace zu_test
