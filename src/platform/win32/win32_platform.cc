// The Windows backend of the platform seam: the Win32 file, mapping, directory, GUID and
// search calls the library was designed around.
//
// An open data file shares reading and writing but never deletion. Writing is shared so that a
// description can be loaded while the array that made it is still alive: the loading array
// opens the same file read-write, exactly as a second open(O_RDWR) succeeds on POSIX. Deletion
// is not shared, so while any array (of this or another process) holds the file, DeleteFileW
// is refused: that is what keeps CleanTmpFiles, and the destructor of the other holder, away
// from a live file here. The last holder to close deletes it.
#include <objbase.h>
#include <shlobj.h>
#include <windows.h>

// <windows.h> turns these names into macros; the seam's methods keep their plain names.
#undef CreateFile
#undef DeleteFile

#include <cwctype>

#include "src/platform/platform.h"

namespace zu {
namespace platform {
namespace {

constexpr DWORD kDataFileAccess = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kDataFileShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD kDataFileFlags = FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL;
constexpr int kGuidTextCapacity = 64;  // StringFromGUID2 needs 39; the library uses 64

HANDLE AsHandle(intptr_t value) { return reinterpret_cast<HANDLE>(value); }

// The one place where a Win32 error becomes an IoStatus.
IoStatus StatusFromLastError() {
  switch (GetLastError()) {
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_FILE_TOO_LARGE:
    case ERROR_NOT_ENOUGH_QUOTA:
      return IoStatus::kNoSpace;
    default:
      return IoStatus::kFailed;
  }
}

std::wstring WithBackslashes(std::wstring path) {
  for (auto& c : path) {
    if (c == L'/') c = L'\\';
  }
  return path;
}

// Whether `name` ends with `extension`, compared case-insensitively as the file system does.
bool HasExtension(const std::wstring& name, const std::wstring& extension) {
  if (name.size() < extension.size()) return false;
  const size_t offset = name.size() - extension.size();
  for (size_t i = 0; i < extension.size(); ++i) {
    if (std::towupper(static_cast<wint_t>(name[offset + i])) !=
        std::towupper(static_cast<wint_t>(extension[i]))) {
      return false;
    }
  }
  return true;
}

SYSTEM_INFO SystemInfo() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info;
}

class Win32Platform : public Platform {
 public:
  FileHandle CreateFile(const std::wstring& path) override {
    if (path.empty()) return kInvalidFile;
    HANDLE file = CreateFileW(path.c_str(), kDataFileAccess, kDataFileShare, nullptr, CREATE_ALWAYS,
                              kDataFileFlags, nullptr);
    return file == INVALID_HANDLE_VALUE ? kInvalidFile : reinterpret_cast<FileHandle>(file);
  }

  FileHandle OpenFile(const std::wstring& path) override {
    if (path.empty()) return kInvalidFile;
    // Only plain files: never a directory, and never through a link.
    DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES ||
        (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
      return kInvalidFile;
    }
    HANDLE file = CreateFileW(path.c_str(), kDataFileAccess, kDataFileShare, nullptr, OPEN_EXISTING,
                              kDataFileFlags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return kInvalidFile;
    // A data file has exactly one name. A second one (a hard link) means the data file's name
    // may stand for someone else's file, which attaching would extend and write.
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(file, &info) || info.nNumberOfLinks != 1 ||
        (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
      CloseHandle(file);
      return kInvalidFile;
    }
    return reinterpret_cast<FileHandle>(file);
  }

  void CloseFile(FileHandle file) override {
    if (file != kInvalidFile) CloseHandle(AsHandle(file));
  }

  // A file that another handle (of any process) keeps open refuses deletion by itself (no
  // delete sharing), so the last holder's delete is the one that succeeds.
  bool CloseAndDeleteFile(FileHandle file, const std::wstring& path) override {
    CloseFile(file);
    return !path.empty() && DeleteFileW(path.c_str()) != 0;
  }

  bool DeleteFileIfUnused(const std::wstring& path) override {
    return !path.empty() && DeleteFileW(path.c_str()) != 0;
  }

  int64_t FileLength(FileHandle file) override {
    LARGE_INTEGER size;
    if (file == kInvalidFile || !GetFileSizeEx(AsHandle(file), &size)) return -1;
    return size.QuadPart;
  }

  IoStatus WriteAt(FileHandle file, uint64_t offset, const void* data, size_t length) override {
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (length > 0) {
      DWORD chunk = length > 0x40000000u ? 0x40000000u : static_cast<DWORD>(length);
      OVERLAPPED at = {};
      at.Offset = static_cast<DWORD>(offset);
      at.OffsetHigh = static_cast<DWORD>(offset >> 32);
      DWORD written = 0;
      if (!WriteFile(AsHandle(file), bytes, chunk, &written, &at)) return StatusFromLastError();
      if (written == 0) return IoStatus::kNoSpace;
      bytes += written;
      offset += written;
      length -= written;
    }
    return IoStatus::kOk;
  }

  MappingHandle CreateMapping(FileHandle file, uint64_t bytes, IoStatus* status) override {
    HANDLE mapping =
        CreateFileMappingW(AsHandle(file), nullptr, PAGE_READWRITE, static_cast<DWORD>(bytes >> 32),
                           static_cast<DWORD>(bytes), nullptr);
    if (mapping == nullptr) {
      *status = StatusFromLastError();
      return kNoMapping;
    }
    *status = IoStatus::kOk;
    return reinterpret_cast<MappingHandle>(mapping);
  }

  void CloseMapping(MappingHandle mapping) override {
    if (mapping != kNoMapping) CloseHandle(AsHandle(mapping));
  }

  void* MapView(MappingHandle mapping, uint64_t offset, size_t length, bool writable,
                void* hint) override {
    if (mapping == kNoMapping) return nullptr;
    return MapViewOfFileEx(AsHandle(mapping), writable ? FILE_MAP_WRITE : FILE_MAP_READ,
                           static_cast<DWORD>(offset >> 32), static_cast<DWORD>(offset), length,
                           hint);
  }

  void UnmapView(void* view, size_t /*length*/) override {
    if (view != nullptr) UnmapViewOfFile(view);
  }

  void FlushView(void* address, size_t length) override {
    if (address != nullptr) FlushViewOfFile(address, length);
  }

  // A view never reaches past the size of its mapping object, which is replaced whenever the
  // file grows: read views stay one chunk long and follow the reads.
  bool ViewsReachPastFileEnd() override { return false; }

  // A view is bounded by its mapping object here, so the segments keep one-chunk read views
  // and nothing is placed: no reserved ranges.
  void* ReserveAddresses(size_t /*bytes*/) override { return nullptr; }
  void ReleaseAddresses(void* /*base*/, size_t /*bytes*/) override {}
  void* MapViewAt(MappingHandle /*mapping*/, uint64_t /*offset*/, size_t /*length*/,
                  void* /*address*/) override {
    return nullptr;
  }
  void UnmapViewAt(void* /*address*/, size_t /*length*/) override {}

  // The memory manager's own read-ahead of mapped files is kept.
  void AdviseView(const void* /*address*/, size_t /*length*/, ViewAdvice /*advice*/) override {}

  size_t PageSize() override { return SystemInfo().dwPageSize; }
  size_t AllocationGranularity() override { return SystemInfo().dwAllocationGranularity; }

  void CreateDirectories(const std::wstring& path) override {
    if (path.empty()) return;
    // The shell call wants a full path with backslashes; the result is ignored (an existing
    // directory is the usual case).
    wchar_t full[MAX_PATH];
    std::wstring native = WithBackslashes(path);
    DWORD length = GetFullPathNameW(native.c_str(), MAX_PATH, full, nullptr);
    if (length == 0 || length >= MAX_PATH) return;
    SHCreateDirectoryExW(nullptr, full, nullptr);
  }

  std::vector<std::wstring> ListFiles(const std::wstring& dir,
                                      const std::wstring& extension) override {
    std::vector<std::wstring> names;
    std::wstring pattern = dir + L"\\*" + extension;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return names;
    do {
      // The pattern also matches 8.3 short names: "keep.KMBX" is found as "KEEP~EDY.KMB".
      // Only the long name's own extension counts.
      if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 &&
          HasExtension(found.cFileName, extension)) {
        names.push_back(found.cFileName);
      }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return names;
  }

  std::wstring NewGuid() override {
    GUID guid;
    if (CoCreateGuid(&guid) != S_OK) return std::wstring();
    wchar_t text[kGuidTextCapacity];
    int length = StringFromGUID2(guid, text, kGuidTextCapacity);
    return length > 0 ? std::wstring(text) : std::wstring();
  }

  wchar_t PathSeparator() override { return L'\\'; }

  // Handles are not limited the way descriptors are on POSIX.
  void RaiseOpenFileLimit() override {}
};

}  // namespace

Platform& Native() {
  static Win32Platform* native = new Win32Platform();  // stateless; lives for the process
  return *native;
}

}  // namespace platform
}  // namespace zu
