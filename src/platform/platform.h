// The operating-system seam. Every OS call the library makes goes through here, so that one
// file set per OS (posix/, win32/) carries all platform knowledge and the tests can wrap the
// active Platform to inject faults ("fail the Nth call", "no space").
//
// The shape follows the Windows model the library was designed around: a file handle, a
// mapping object that fixes the file's size (creating it grows the file), and views of the
// mapping. On POSIX the mapping object is the file descriptor itself, and creating it extends
// the file with reserved blocks, so that a later write through a view cannot fault on a full
// disk.
//
// Paths are wide strings everywhere above this layer; the POSIX backend converts to UTF-8.
// Thread-safety: Platform implementations are stateless apart from the descriptor-limit raise,
// which happens once; all methods may be called from any thread.
#ifndef ZU_PLATFORM_PLATFORM_H_
#define ZU_PLATFORM_PLATFORM_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zu {
namespace platform {

// An open file (a descriptor on POSIX, a HANDLE on Windows). kInvalidFile when none.
using FileHandle = intptr_t;
constexpr FileHandle kInvalidFile = -1;

// A mapping object sized to a file length. kNoMapping when none. On POSIX it carries the
// descriptor of the file it was made from.
using MappingHandle = intptr_t;
constexpr MappingHandle kNoMapping = 0;

// How a view is going to be read, so the system can fetch the right amount of data.
enum class ViewAdvice {
  kRandom,    // isolated reads: fetch only the page touched (no read-ahead around it)
  kWillNeed,  // this range is read next: start fetching all of it now
  kPopulate,  // this range was just written: map what the system holds of it for reading now
};

// Outcome of an operation that may run out of room.
enum class IoStatus {
  kOk,
  kNoSpace,  // the disk (or a file-size limit) refused more room
  kFailed,   // any other failure
};

class Platform {
 public:
  virtual ~Platform() = default;

  // --- files -----------------------------------------------------------------------------
  // Creates a new, empty read-write file. Returns kInvalidFile on failure. Other arrays may
  // open it read-write too (a description re-attaches while its maker lives), but while it is
  // open nobody deletes it through DeleteFileIfUnused (POSIX: a shared lock held while open,
  // taken before the file is visible under `path`; Windows: no delete sharing). That is what
  // keeps CleanTmpFiles away from it.
  virtual FileHandle CreateFile(const std::wstring& path) = 0;
  // Opens an existing regular file read-write (never follows a symbolic link). kInvalidFile
  // on failure or when the path names anything but a regular file.
  virtual FileHandle OpenFile(const std::wstring& path) = 0;
  virtual void CloseFile(FileHandle file) = 0;
  // Closes a data file this holder made or opened and deletes it by name, unless another
  // holder (of any process) still keeps it open: then the file stays, and the last holder's
  // call deletes it. True when the file was deleted.
  virtual bool CloseAndDeleteFile(FileHandle file, const std::wstring& path) = 0;
  // Deletes the file only when no process holds it open through this library.
  virtual bool DeleteFileIfUnused(const std::wstring& path) = 0;
  // Current length of an open file in bytes; -1 on failure.
  virtual int64_t FileLength(FileHandle file) = 0;
  // Writes `length` bytes at `offset` (no mapping involved). The range must already lie
  // within the file's current length (a mapping made it so).
  virtual IoStatus WriteAt(FileHandle file, uint64_t offset, const void* data, size_t length) = 0;

  // --- mappings --------------------------------------------------------------------------
  // Makes a read-write mapping object of `bytes` bytes for the file, growing the file to that
  // length with its blocks reserved. kNoMapping on failure; *status tells why.
  virtual MappingHandle CreateMapping(FileHandle file, uint64_t bytes, IoStatus* status) = 0;
  virtual void CloseMapping(MappingHandle mapping) = 0;
  // Maps `length` bytes at `offset` (a multiple of the allocation granularity), preferring
  // the address `hint` (never forcing it). Null on failure.
  virtual void* MapView(MappingHandle mapping, uint64_t offset, size_t length, bool writable,
                        void* hint) = 0;
  virtual void UnmapView(void* view, size_t length) = 0;
  // Starts write-back of a range of a view; never waits for it.
  virtual void FlushView(void* address, size_t length) = 0;
  // True when a view may reach past the end of its file and then serves the file as it grows:
  // pages beyond the end are only reachable once the file covers them, and the view stays
  // valid when the mapping object it came from is replaced by a larger one. A file then needs
  // one read view for its whole life instead of one per chunk. False where a view is bounded
  // by its mapping object (Windows) or address space is scarce (32-bit builds).
  virtual bool ViewsReachPastFileEnd() = 0;
  // Reserves `bytes` of address space that holds no memory and into which nothing is mapped
  // but what MapViewAt places there; null where the platform offers none (views are then
  // mapped wherever the system likes). ReleaseAddresses gives the whole range back.
  virtual void* ReserveAddresses(size_t bytes) = 0;
  virtual void ReleaseAddresses(void* base, size_t bytes) = 0;
  // Maps a read-only view of `length` bytes of `mapping` from `offset` exactly at `address`,
  // inside a reserved range, in place of the reservation there; null on failure (the range
  // stays reserved). UnmapViewAt turns the view back into reserved, empty address space.
  virtual void* MapViewAt(MappingHandle mapping, uint64_t offset, size_t length, void* address) = 0;
  virtual void UnmapViewAt(void* address, size_t length) = 0;
  // A hint about how a range of a view will be read; it never changes what the view holds.
  virtual void AdviseView(const void* address, size_t length, ViewAdvice advice) = 0;
  virtual size_t PageSize() = 0;
  virtual size_t AllocationGranularity() = 0;

  // --- directories and names -------------------------------------------------------------
  // Creates the directory and its missing parents. Failure (including "exists") is ignored
  // by the callers, so nothing is reported.
  virtual void CreateDirectories(const std::wstring& path) = 0;
  // Names (not paths) of the regular files directly inside `dir` whose extension equals
  // `extension` (with its dot, e.g. L".KMB"), compared case-insensitively. Empty when the
  // directory cannot be read.
  virtual std::vector<std::wstring> ListFiles(const std::wstring& dir,
                                              const std::wstring& extension) = 0;
  // A fresh version-4 GUID as upper-case "{8-4-4-4-12}" text (38 characters).
  virtual std::wstring NewGuid() = 0;
  // The separator used when composing a path for deletion ('/' or '\\').
  virtual wchar_t PathSeparator() = 0;
  // Raises the soft limit on open files towards the hard limit, once per process.
  virtual void RaiseOpenFileLimit() = 0;
};

// The platform the library uses: the OS backend unless a test installed another one.
Platform& Current();
// The OS backend for this build.
Platform& Native();
// Installs `platform` as Current() (null restores Native()). Tests only; not thread-safe.
void SetCurrentForTesting(Platform* platform);

// A re-entrant lock (a critical section on Windows; on POSIX an owner-checked lock whose
// uncontended path is inline, since a file segment takes one for every element appended).
#if defined(_WIN32)
class RecursiveLock {
 public:
  RecursiveLock();
  ~RecursiveLock();
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;
  void Lock();
  void Unlock();

 private:
  // Storage for the critical section; never touched outside the backend's .cc file.
  alignas(16) unsigned char storage_[64];
};
#else
class RecursiveLock {
 public:
  RecursiveLock() = default;
  ~RecursiveLock() = default;
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

  void Lock() {
    const uintptr_t self = ThreadTag();
    // Only this thread can have stored its own tag, so a relaxed read decides re-entry.
    if (owner_.load(std::memory_order_relaxed) == self) {
      ++depth_;
      return;
    }
    uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      LockContended();
    }
    owner_.store(self, std::memory_order_relaxed);
    depth_ = 1;
  }

  void Unlock() {
    if (--depth_ != 0) return;
    owner_.store(0, std::memory_order_relaxed);
    if (state_.exchange(kFree, std::memory_order_release) == kContended) WakeOne();
  }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kLocked = 1;     // held, nobody waiting
  static constexpr uint32_t kContended = 2;  // held, and a thread may be waiting

  // A value that differs between any two live threads: the thread pointer.
  static uintptr_t ThreadTag() { return reinterpret_cast<uintptr_t>(__builtin_thread_pointer()); }
  // Out of line in the backend: waits until the lock is free and takes it (state kContended).
  void LockContended();
  // Wakes one thread waiting in LockContended.
  void WakeOne();

  std::atomic<uint32_t> state_{kFree};
  std::atomic<uintptr_t> owner_{0};  // ThreadTag() of the holder; 0 when free
  uint32_t depth_ = 0;               // re-entries of the holder; written by the holder only
};
#endif

// The one diagnostic channel of the library ("write conflict"). By default a message goes to
// the debugger output on Windows and to stderr as one line on POSIX; a host can replace the
// sink (null restores the default).
using DiagnosticSink = void (*)(const char* message);
void SetDiagnosticSink(DiagnosticSink sink);
void EmitDiagnostic(const char* message);

}  // namespace platform
}  // namespace zu

#endif  // ZU_PLATFORM_PLATFORM_H_
