// A Platform for tests: forwards every call to the OS backend, counts the calls of the
// operations that can fail for lack of room, and fails the Nth call of a chosen operation,
// once or from then on. Installing it (construction) makes it the library's current platform;
// destruction restores the OS backend.
#ifndef ZU_TESTS_SUPPORT_FAULT_PLATFORM_H_
#define ZU_TESTS_SUPPORT_FAULT_PLATFORM_H_

#include <array>
#include <cstdint>

#include "src/platform/platform.h"

namespace zu_test {

enum class FaultOp { kCreateFile, kOpenFile, kCreateMapping, kMapView, kWriteAt, kCount };

class FaultPlatform : public zu::platform::Platform {
 public:
  FaultPlatform();
  ~FaultPlatform() override;
  FaultPlatform(const FaultPlatform&) = delete;
  FaultPlatform& operator=(const FaultPlatform&) = delete;

  // Fails call number `nth` (1-based, counted from now) of `op`; with `forever` every later
  // call fails too. Mapping creation and writes report "no space".
  void Fail(FaultOp op, int nth, bool forever = false);
  int Calls(FaultOp op) const { return calls_[Index(op)]; }
  // Makes segments created from now on use one-chunk read views, as on Windows and in 32-bit
  // builds, even where the OS backend lets a read view cover the whole file.
  void UseChunkReadViews(bool chunk_views) { chunk_read_views_ = chunk_views; }

  using FileHandle = zu::platform::FileHandle;
  using MappingHandle = zu::platform::MappingHandle;
  using IoStatus = zu::platform::IoStatus;

  // The operations that can fail.
  FileHandle CreateFile(const std::wstring& path) override;
  FileHandle OpenFile(const std::wstring& path) override;
  IoStatus WriteAt(FileHandle file, uint64_t offset, const void* data, size_t length) override;
  MappingHandle CreateMapping(FileHandle file, uint64_t bytes, IoStatus* status) override;
  void* MapView(MappingHandle mapping, uint64_t offset, size_t length, bool writable,
                void* hint) override;
  // Counted and failed as a MapView.
  void* MapViewAt(MappingHandle mapping, uint64_t offset, size_t length, void* address) override;
  bool ViewsReachPastFileEnd() override {
    return !chunk_read_views_ && native_.ViewsReachPastFileEnd();
  }
  // Forwarded as they are.
  void CloseFile(FileHandle file) override { native_.CloseFile(file); }
  bool CloseAndDeleteFile(FileHandle file, const std::wstring& path) override {
    return native_.CloseAndDeleteFile(file, path);
  }
  bool DeleteFileIfUnused(const std::wstring& path) override {
    return native_.DeleteFileIfUnused(path);
  }
  int64_t FileLength(FileHandle file) override { return native_.FileLength(file); }
  void CloseMapping(MappingHandle mapping) override { native_.CloseMapping(mapping); }
  void UnmapView(void* view, size_t length) override { native_.UnmapView(view, length); }
  void* ReserveAddresses(size_t bytes) override { return native_.ReserveAddresses(bytes); }
  void ReleaseAddresses(void* base, size_t bytes) override {
    native_.ReleaseAddresses(base, bytes);
  }
  void UnmapViewAt(void* address, size_t length) override { native_.UnmapViewAt(address, length); }
  void FlushView(void* address, size_t length) override { native_.FlushView(address, length); }
  void AdviseView(const void* address, size_t length, zu::platform::ViewAdvice advice) override {
    native_.AdviseView(address, length, advice);
  }
  size_t PageSize() override { return native_.PageSize(); }
  size_t AllocationGranularity() override { return native_.AllocationGranularity(); }
  void CreateDirectories(const std::wstring& path) override { native_.CreateDirectories(path); }
  std::vector<std::wstring> ListFiles(const std::wstring& dir,
                                      const std::wstring& extension) override {
    return native_.ListFiles(dir, extension);
  }
  std::wstring NewGuid() override { return native_.NewGuid(); }
  wchar_t PathSeparator() override { return native_.PathSeparator(); }
  void RaiseOpenFileLimit() override { native_.RaiseOpenFileLimit(); }

 private:
  static constexpr size_t kOps = static_cast<size_t>(FaultOp::kCount);
  static size_t Index(FaultOp op) { return static_cast<size_t>(op); }
  // Counts the call and answers whether it must fail.
  bool ShouldFail(FaultOp op);

  zu::platform::Platform& native_;    // the OS backend every call is forwarded to
  std::array<int, kOps> calls_{};     // calls per operation since construction
  std::array<int, kOps> fail_at_{};   // 0 = never; else the call number that fails first
  std::array<bool, kOps> forever_{};  // fail every call from fail_at_ on
  bool chunk_read_views_ = false;     // answer "no" to ViewsReachPastFileEnd
};

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_FAULT_PLATFORM_H_
