// The OS backend through the seam: the properties the file storage relies on.
#include <gtest/gtest.h>

#include <cwctype>
#include <filesystem>
#include <fstream>
#include <set>

#include "src/platform/platform.h"
#include "tests/support/temp_dir.h"

namespace zu_test {
namespace {

using zu::platform::IoStatus;
using zu::platform::kInvalidFile;
using zu::platform::kNoMapping;
using zu::platform::Native;

TEST(PosixPlatform, GuidsAreVersionFourUpperCaseAndDistinct) {
  std::set<std::wstring> seen;
  for (int i = 0; i < 64; ++i) {
    std::wstring guid = Native().NewGuid();
    ASSERT_EQ(guid.size(), 38u);
    EXPECT_EQ(guid[0], L'{');
    EXPECT_EQ(guid[37], L'}');
    for (size_t dash : {9u, 14u, 19u, 24u}) EXPECT_EQ(guid[dash], L'-');
    EXPECT_EQ(guid[15], L'4') << "version nibble";
    EXPECT_NE(std::wstring(L"89AB").find(guid[20]), std::wstring::npos) << "variant";
    for (wchar_t c : guid) EXPECT_FALSE(std::iswlower(static_cast<wint_t>(c)));
    seen.insert(guid);
  }
  EXPECT_EQ(seen.size(), 64u);
}

TEST(PosixPlatform, FilesGrowWithReservedBlocksAndViewsSeeWrites) {
  TempDataDir dir;
  auto& os = Native();
  std::wstring path = dir.wide() + L"/a.KMB";
  auto file = os.CreateFile(path);
  ASSERT_NE(file, kInvalidFile);
  const size_t bytes = 3 * os.PageSize();
  IoStatus status = IoStatus::kFailed;
  auto mapping = os.CreateMapping(file, bytes, &status);
  ASSERT_NE(mapping, kNoMapping);
  EXPECT_EQ(status, IoStatus::kOk);
  EXPECT_EQ(os.FileLength(file), static_cast<int64_t>(bytes));

  auto* view = static_cast<unsigned char*>(os.MapView(mapping, 0, bytes, true, nullptr));
  ASSERT_NE(view, nullptr);
  const char text[] = "written by pwrite";
  ASSERT_EQ(os.WriteAt(file, os.PageSize(), text, sizeof(text)), IoStatus::kOk);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(view + os.PageSize())), text);
  view[0] = 42;
  os.FlushView(view, bytes);
  os.UnmapView(view, bytes);
  os.CloseMapping(mapping);
  std::ifstream in(dir.path() / "a.KMB", std::ios::binary);
  EXPECT_EQ(in.get(), 42);
  EXPECT_TRUE(os.CloseAndDeleteFile(file, path));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "a.KMB"));
}

TEST(PosixPlatform, OpenRefusesLinksDirectoriesAndMissingFiles) {
  TempDataDir dir;
  auto& os = Native();
  auto target = dir.Touch("target.KMB");
  dir.Keep("target.KMB");
  std::filesystem::create_symlink(target, dir.path() / "link.KMB");
  std::filesystem::create_directory(dir.path() / "sub.KMB");
  EXPECT_EQ(os.OpenFile((dir.path() / "link.KMB").wstring()), kInvalidFile);
  EXPECT_EQ(os.OpenFile((dir.path() / "sub.KMB").wstring()), kInvalidFile);
  EXPECT_EQ(os.OpenFile((dir.path() / "missing.KMB").wstring()), kInvalidFile);
  EXPECT_EQ(os.OpenFile(L""), kInvalidFile);
  EXPECT_EQ(os.CreateFile(L""), kInvalidFile);
  // A link is not listed either, so the clean-up never deletes through one.
  auto names = os.ListFiles(dir.wide(), L".kmb");
  EXPECT_EQ(std::set<std::wstring>(names.begin(), names.end()),
            std::set<std::wstring>{L"target.KMB"});
  auto file = os.OpenFile(target.wstring());
  ASSERT_NE(file, kInvalidFile);
  os.CloseFile(file);
}

// Neither the clean-up nor a holder's own delete removes a file another holder keeps open; the
// last holder's delete does. A new file never replaces an existing one.
TEST(PosixPlatform, DeletesSpareFilesOthersHold) {
  TempDataDir dir;
  auto& os = Native();
  std::wstring path = dir.wide() + L"/live.KMB";
  auto maker = os.CreateFile(path);
  ASSERT_NE(maker, kInvalidFile);
  EXPECT_EQ(os.CreateFile(path), kInvalidFile);
  auto loader = os.OpenFile(path);
  ASSERT_NE(loader, kInvalidFile);
  EXPECT_FALSE(os.DeleteFileIfUnused(path));
  EXPECT_FALSE(os.CloseAndDeleteFile(loader, path));
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "live.KMB"));
  EXPECT_FALSE(os.DeleteFileIfUnused(path));
  EXPECT_TRUE(os.CloseAndDeleteFile(maker, path));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "live.KMB"));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));  // nothing left under another name

  auto unused = os.CreateFile(path);
  ASSERT_NE(unused, kInvalidFile);
  os.CloseFile(unused);
  EXPECT_TRUE(os.DeleteFileIfUnused(path));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "live.KMB"));
}

}  // namespace
}  // namespace zu_test
