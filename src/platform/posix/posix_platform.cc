// Placeholder POSIX backend: answers the queries that need no file system and refuses every
// file operation, so that file storage reports itself dead. Replaced by the real backend.
#include <unistd.h>

#include "src/platform/platform.h"

namespace zu {
namespace platform {
namespace {

class PosixPlatform : public Platform {
 public:
  FileHandle CreateFile(const std::wstring&) override { return kInvalidFile; }
  FileHandle OpenFile(const std::wstring&) override { return kInvalidFile; }
  void CloseFile(FileHandle) override {}
  bool DeleteFile(const std::wstring&) override { return false; }
  bool DeleteFileIfUnused(const std::wstring&) override { return false; }
  int64_t FileLength(FileHandle) override { return -1; }
  IoStatus WriteAt(FileHandle, uint64_t, const void*, size_t) override { return IoStatus::kFailed; }
  MappingHandle CreateMapping(FileHandle, uint64_t, IoStatus* status) override {
    *status = IoStatus::kFailed;
    return kNoMapping;
  }
  void CloseMapping(MappingHandle) override {}
  void* MapView(MappingHandle, uint64_t, size_t, bool, void*) override { return nullptr; }
  void UnmapView(void*, size_t) override {}
  void FlushView(void*, size_t) override {}
  size_t PageSize() override { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  size_t AllocationGranularity() override { return PageSize(); }
  void CreateDirectories(const std::wstring&) override {}
  std::vector<std::wstring> ListFiles(const std::wstring&, const std::wstring&) override {
    return {};
  }
  std::wstring NewGuid() override { return L"{00000000-0000-4000-8000-000000000000}"; }
  wchar_t PathSeparator() override { return L'/'; }
  void RaiseOpenFileLimit() override {}
};

}  // namespace

Platform& Native() {
  static PosixPlatform* native = new PosixPlatform();
  return *native;
}

}  // namespace platform
}  // namespace zu
