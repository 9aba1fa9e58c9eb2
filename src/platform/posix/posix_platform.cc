// The POSIX backend of the platform seam.
//
// Windows semantics the library was designed around, and how they are kept here:
//  * A data file stays share-locked (flock LOCK_SH) while open; the clean-up only deletes a
//    file after it obtained LOCK_EX without waiting, so a live array of any process keeps its
//    files, as an open file without delete sharing does on Windows.
//  * A new data file gets its name only once it is share-locked (it is made nameless, or under
//    a name the clean-up never matches, and then linked or renamed), so no clean-up can take
//    it between its creation and its lock; it is then opened again by that name, so that /proc
//    shows it under the name.
//  * A holder's own delete removes the file only when it is the last holder (it must get
//    LOCK_EX without waiting), as Windows refuses to delete a file another handle keeps open.
//  * A "mapping object" fixes the file's length; creating one extends the file with reserved
//    blocks (fallocate), so a write through a view can never fault on a full disk.
//  * Views are never placed with MAP_FIXED: the old address is only a hint.
//  * Flushing starts write-back and never waits (MS_ASYNC).
//  * Views may reach past the end of the file (one read view covers a whole data file).
// Every errno is translated in StatusFromErrno.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <utility>

#include "src/base/utf8.h"
#include "src/platform/platform.h"

namespace zu {
namespace platform {
namespace {

constexpr mode_t kDataFileMode = 0600;          // the files hold the host's data: owner only
constexpr mode_t kDirectoryMode = 0777;         // umask applies, as for any created directory
constexpr size_t kGuidBytes = 16;               // a GUID is 128 bits
constexpr rlim_t kFallbackFileLimit = 1 << 20;  // used when the hard limit is "unlimited"
// Appended to a new file's name while it is made: the clean-up matches exact extensions only.
constexpr char kUnlockedSuffix[] = ".new";
// madvise: map the pages of a range for reading from the page cache (Linux 5.14; older kernels
// refuse it; elsewhere there is none).
#ifdef MADV_POPULATE_READ
constexpr int kPopulateRead = MADV_POPULATE_READ;
#else
constexpr int kPopulateRead = -1;
#endif

// The one place where errno becomes an IoStatus.
IoStatus StatusFromErrno(int error) {
  switch (error) {
    case ENOSPC:
    case EFBIG:
    case EDQUOT:
      return IoStatus::kNoSpace;
    default:
      return IoStatus::kFailed;
  }
}

// An owned descriptor, closed on destruction unless released.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
  ScopedFd& operator=(ScopedFd&&) = delete;
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;  // -1 when empty
};

// A directory stream, closed on destruction.
class ScopedDir {
 public:
  explicit ScopedDir(DIR* dir) : dir_(dir) {}
  ~ScopedDir() {
    if (dir_ != nullptr) ::closedir(dir_);
  }
  ScopedDir(const ScopedDir&) = delete;
  ScopedDir& operator=(const ScopedDir&) = delete;
  DIR* get() const { return dir_; }

 private:
  DIR* dir_;  // null when the directory could not be opened
};

int RetryOpen(const std::string& path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool RetryFlock(int fd, int operation) {
  int rc;
  do {
    rc = ::flock(fd, operation);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

// The directory part of a path ("." when it has none).
std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A new, share-locked file without a name in `directory` (O_TMPFILE); -1 where the kernel or
// the file system cannot make one.
int CreateNamelessLockedFile(const std::string& directory) {
#ifdef O_TMPFILE
  ScopedFd fd(RetryOpen(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, kDataFileMode));
  if (!fd.valid() || !RetryFlock(fd.get(), LOCK_SH)) return -1;
  return fd.release();
#else
  (void)directory;
  return -1;
#endif
}

// Gives the nameless file `fd` the name `path`. An unprivileged process links it through its
// /proc entry; never replaces an existing file.
bool NameFile(int fd, const std::string& path) {
  const std::string proc_entry = "/proc/self/fd/" + std::to_string(fd);
  return ::linkat(AT_FDCWD, proc_entry.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

// Where a nameless file cannot be made or named: the file is made and locked under a name the
// clean-up never matches, then given its own name; the lock travels with the file. A link
// never replaces an existing file; only a file system without links gets a rename.
int CreateLockedFileByRename(const std::string& path) {
  const std::string unlocked = path + kUnlockedSuffix;
  ScopedFd fd(
      RetryOpen(unlocked, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kDataFileMode));
  if (!fd.valid()) return -1;
  bool named = RetryFlock(fd.get(), LOCK_SH);
  if (named && ::link(unlocked.c_str(), path.c_str()) != 0) {
    named =
        (errno == EPERM || errno == EOPNOTSUPP) && ::rename(unlocked.c_str(), path.c_str()) == 0;
  }
  ::unlink(unlocked.c_str());
  return named ? fd.release() : -1;
}

// A descriptor of the file `fd` stands for, opened again through `path`, the name just given
// to it; `fd` itself is closed. A descriptor keeps the name it was opened by: the nameless
// file's, or the temporary name's, would show in /proc (and so in lsof) as "#inode (deleted)"
// or "... .new (deleted)", which reads as a leaked file. The new descriptor is share-locked
// before the first closes (shared locks coexist), so the file is never unlocked in between.
// On any failure the first descriptor stays: the file works the same, only its name in /proc
// differs.
int ReopenByName(ScopedFd fd, const std::string& path) {
  ScopedFd named(RetryOpen(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat made, found;
  if (!named.valid() || ::fstat(fd.get(), &made) != 0 || ::fstat(named.get(), &found) != 0 ||
      made.st_dev != found.st_dev || made.st_ino != found.st_ino ||
      !RetryFlock(named.get(), LOCK_SH | LOCK_NB)) {
    return fd.release();
  }
  return named.release();
}

bool IsRegularFile(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// A data file has exactly one name. A second one (a hard link) means the data file's name
// may stand for someone else's file, which attaching would extend and write.
bool HasSingleName(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 && st.st_nlink == 1;
}

// On POSIX a mapping is the descriptor it was made from; +1 keeps descriptor 0 distinct from
// kNoMapping.
MappingHandle MappingFromFd(int fd) { return static_cast<MappingHandle>(fd) + 1; }
int FdFromMapping(MappingHandle mapping) { return static_cast<int>(mapping - 1); }

bool FillRandom(unsigned char* out, size_t length) {
  size_t done = 0;
  while (done < length) {
    ssize_t n = ::getrandom(out + done, length - done, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (done == length) return true;
  // Kernels without getrandom: the device gives the same bytes.
  ScopedFd fd(RetryOpen("/dev/urandom", O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return false;
  while (done < length) {
    ssize_t n = ::read(fd.get(), out + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool EndsWithIgnoringCase(const std::wstring& name, const std::wstring& suffix) {
  if (name.size() < suffix.size()) return false;
  size_t offset = name.size() - suffix.size();
  for (size_t i = 0; i < suffix.size(); ++i) {
    if (std::towlower(static_cast<wint_t>(name[offset + i])) !=
        std::towlower(static_cast<wint_t>(suffix[i]))) {
      return false;
    }
  }
  return true;
}

class PosixPlatform : public Platform {
 public:
  FileHandle CreateFile(const std::wstring& path) override {
    if (path.empty()) return kInvalidFile;
    const std::string native = WideToUtf8(path);
    ScopedFd fd(CreateNamelessLockedFile(DirectoryOf(native)));
    if (fd.valid()) {
      if (NameFile(fd.get(), native)) return ReopenByName(std::move(fd), native);
      // The name is taken (never replaced), or the file cannot be linked here.
      if (errno == EEXIST) return kInvalidFile;
    }
    ScopedFd renamed(CreateLockedFileByRename(native));
    if (!renamed.valid()) return kInvalidFile;
    return ReopenByName(std::move(renamed), native);
  }

  FileHandle OpenFile(const std::wstring& path) override {
    if (path.empty()) return kInvalidFile;
    ScopedFd fd(RetryOpen(WideToUtf8(path), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.valid() || !IsRegularFile(fd.get()) || !HasSingleName(fd.get())) return kInvalidFile;
    if (!RetryFlock(fd.get(), LOCK_SH | LOCK_NB)) return kInvalidFile;
    return fd.release();
  }

  void CloseFile(FileHandle file) override {
    if (file >= 0) ::close(static_cast<int>(file));
  }

  bool CloseAndDeleteFile(FileHandle file, const std::wstring& path) override {
    if (file < 0) return false;
    ScopedFd fd(static_cast<int>(file));
    if (path.empty()) return false;
    // Every holder keeps LOCK_SH, so only the last one gets LOCK_EX. (A refused conversion
    // drops this holder's shared lock; the file is closed right after anyway.)
    if (!RetryFlock(fd.get(), LOCK_EX | LOCK_NB)) return false;
    // Delete the name only while it still stands for this file.
    const std::string native = WideToUtf8(path);
    struct stat open_file, named_file;
    if (::fstat(fd.get(), &open_file) != 0 || ::lstat(native.c_str(), &named_file) != 0 ||
        open_file.st_dev != named_file.st_dev || open_file.st_ino != named_file.st_ino) {
      return false;
    }
    return ::unlink(native.c_str()) == 0;
  }

  bool DeleteFileIfUnused(const std::wstring& path) override {
    std::string native = WideToUtf8(path);
    ScopedFd fd(RetryOpen(native, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.valid() || !IsRegularFile(fd.get())) return false;
    // Every live holder keeps LOCK_SH, so an exclusive lock proves nobody uses the file.
    if (!RetryFlock(fd.get(), LOCK_EX | LOCK_NB)) return false;
    return ::unlink(native.c_str()) == 0;
  }

  int64_t FileLength(FileHandle file) override {
    struct stat st;
    if (file < 0 || ::fstat(static_cast<int>(file), &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
  }

  IoStatus WriteAt(FileHandle file, uint64_t offset, const void* data, size_t length) override {
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (length > 0) {
      ssize_t n = ::pwrite(static_cast<int>(file), bytes, length, static_cast<off_t>(offset));
      if (n < 0) {
        if (errno == EINTR) continue;
        return StatusFromErrno(errno);
      }
      if (n == 0) return IoStatus::kNoSpace;  // a zero-length write means no more room
      bytes += n;
      offset += static_cast<uint64_t>(n);
      length -= static_cast<size_t>(n);
    }
    return IoStatus::kOk;
  }

  MappingHandle CreateMapping(FileHandle file, uint64_t bytes, IoStatus* status) override {
    *status = IoStatus::kFailed;
    if (file < 0) return kNoMapping;
    int fd = static_cast<int>(file);
    // Reserve every block up to the new length, so no later store through a view can meet a
    // full disk (which would be SIGBUS instead of an error).
    int rc;
    do {
      rc = ::fallocate(fd, 0, 0, static_cast<off_t>(bytes));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      if (errno != EOPNOTSUPP) {
        *status = StatusFromErrno(errno);
        return kNoMapping;
      }
      // File systems that cannot reserve: the length is all we can fix.
      struct stat st;
      if (::fstat(fd, &st) != 0) return kNoMapping;
      if (static_cast<uint64_t>(st.st_size) < bytes &&
          ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        *status = StatusFromErrno(errno);
        return kNoMapping;
      }
    }
    *status = IoStatus::kOk;
    return MappingFromFd(fd);
  }

  // The descriptor belongs to the file handle; nothing to release.
  void CloseMapping(MappingHandle) override {}

  void* MapView(MappingHandle mapping, uint64_t offset, size_t length, bool writable,
                void* hint) override {
    if (mapping == kNoMapping) return nullptr;
    int protection = PROT_READ | (writable ? PROT_WRITE : 0);
    void* view = ::mmap(hint, length, protection, MAP_SHARED, FdFromMapping(mapping),
                        static_cast<off_t>(offset));
    return view == MAP_FAILED ? nullptr : view;
  }

  void UnmapView(void* view, size_t length) override {
    if (view != nullptr) ::munmap(view, length);
  }

  // The range starts at a multiple of 2 MiB: the system maps the large pieces the page cache
  // holds a file in by one page-table entry each only at such addresses (the TLB then covers
  // 512 times more), and views placed at multiples of their size from there keep that.
  // None under an address-space limit: the reserved range would count against the host's
  // own allocations.
  void* ReserveAddresses(size_t bytes) override {
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY) return nullptr;
    constexpr size_t kAlign = size_t{2} << 20;
    void* raw = ::mmap(nullptr, bytes + kAlign, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    const uintptr_t start = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t base = (start + kAlign - 1) / kAlign * kAlign;
    if (base > start) ::munmap(raw, base - start);
    if (kAlign > base - start) {
      ::munmap(reinterpret_cast<void*>(base + bytes), kAlign - (base - start));
    }
    return reinterpret_cast<void*>(base);
  }

  void ReleaseAddresses(void* base, size_t bytes) override {
    if (base != nullptr) ::munmap(base, bytes);
  }

  // MAP_FIXED replaces whatever stands in the range: only ever the caller's own reservation.
  void* MapViewAt(MappingHandle mapping, uint64_t offset, size_t length, void* address) override {
    if (mapping == kNoMapping || address == nullptr) return nullptr;
    void* view = ::mmap(address, length, PROT_READ, MAP_SHARED | MAP_FIXED, FdFromMapping(mapping),
                        static_cast<off_t>(offset));
    return view == MAP_FAILED ? nullptr : view;
  }

  void UnmapViewAt(void* address, size_t length) override {
    if (address == nullptr) return;
    // Replaced in one step, so that no other mapping can slip into the range meanwhile. Should
    // that fail, the view stays where it is rather than leave a hole in the range that a
    // later view placed there would take from whoever had moved in.
    static_cast<void>(::mmap(address, length, PROT_NONE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0));
  }

  void FlushView(void* address, size_t length) override {
    if (address != nullptr && length > 0) ::msync(address, length, MS_ASYNC);
  }

  // A shared file mapping may reach past the end of the file; the part the file covers is
  // readable, whatever length the file had when it was mapped. 32-bit builds keep their
  // address space for chunk-sized views.
  bool ViewsReachPastFileEnd() override { return sizeof(void*) >= 8; }

  void AdviseView(const void* address, size_t length, ViewAdvice advice) override {
    if (address == nullptr || length == 0) return;
    // madvise wants a page-aligned start; widen the range down to its page.
    const uintptr_t page = PageSize();
    const uintptr_t start = reinterpret_cast<uintptr_t>(address) / page * page;
    const size_t span = length + (reinterpret_cast<uintptr_t>(address) - start);
    // Populating fills the page tables from the page cache in one call (older kernels refuse
    // the advice, which then costs nothing: the pages are mapped on first touch as before).
    const int native = advice == ViewAdvice::kRandom     ? MADV_RANDOM
                       : advice == ViewAdvice::kWillNeed ? MADV_WILLNEED
                                                         : kPopulateRead;
    if (native >= 0) ::madvise(reinterpret_cast<void*>(start), span, native);
  }

  size_t PageSize() override {
    static const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return page;
  }
  size_t AllocationGranularity() override { return PageSize(); }

  void CreateDirectories(const std::wstring& path) override {
    std::string native = WideToUtf8(path);
    // The usual case, an existing directory (or one whose parents exist), takes one call; only
    // missing parents make the walk from the root necessary.
    if (native.empty()) return;
    if (::mkdir(native.c_str(), kDirectoryMode) == 0 || errno == EEXIST) return;
    for (size_t slash = native.find('/', 1); !native.empty(); slash = native.find('/', slash + 1)) {
      std::string prefix = native.substr(0, slash);
      if (!prefix.empty()) ::mkdir(prefix.c_str(), kDirectoryMode);
      if (slash == std::string::npos) break;
    }
  }

  std::vector<std::wstring> ListFiles(const std::wstring& dir,
                                      const std::wstring& extension) override {
    std::vector<std::wstring> names;
    std::string native = WideToUtf8(dir);
    ScopedDir stream(::opendir(native.c_str()));
    if (stream.get() == nullptr) return names;
    while (dirent* entry = ::readdir(stream.get())) {
      std::wstring name = Utf8ToWide(entry->d_name);
      if (!EndsWithIgnoringCase(name, extension)) continue;
      struct stat st;
      if (::fstatat(::dirfd(stream.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISREG(st.st_mode)) {
        continue;
      }
      names.push_back(name);
    }
    return names;
  }

  std::wstring NewGuid() override {
    unsigned char bytes[kGuidBytes] = {};
    if (!FillRandom(bytes, sizeof(bytes))) return std::wstring();
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char text[64];
    std::snprintf(text, sizeof(text),
                  "{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7],
                  bytes[8], bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14],
                  bytes[15]);
    return Utf8ToWide(text);
  }

  wchar_t PathSeparator() override { return L'/'; }

  void RaiseOpenFileLimit() override {
    static std::atomic<bool> raised{false};
    if (raised.exchange(true)) return;
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    rlim_t wanted = limit.rlim_max;
    limit.rlim_cur = wanted;
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
    // An "unlimited" hard limit is capped by the kernel's own maximum.
    if (wanted == RLIM_INFINITY) {
      limit.rlim_cur = kFallbackFileLimit;
      ::setrlimit(RLIMIT_NOFILE, &limit);
    }
  }
};

}  // namespace

Platform& Native() {
  static PosixPlatform* native = new PosixPlatform();  // stateless; lives for the process
  return *native;
}

}  // namespace platform
}  // namespace zu
