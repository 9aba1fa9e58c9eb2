// What a test can observe about its own process on each operating system: open handles and
// mapped views. The promises checked with these are the same everywhere (nothing left open,
// nothing left mapped); only the way to look differs, so the branching on the OS lives here
// and not in the tests.
#ifndef ZU_TESTS_SUPPORT_PROCESS_STATE_H_
#define ZU_TESTS_SUPPORT_PROCESS_STATE_H_

#ifdef _WIN32
#include <windows.h>
#endif

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace zu_test {

#ifdef _WIN32

// Windows offers symbolic links only to privileged or developer-mode accounts, and Wine does not
// implement them at all, so link cases cannot be set up there.
constexpr bool kCanMakeSymlinks = false;

// Handles this process holds open (files, mappings and every other kind).
inline int OpenHandleCount() {
  DWORD count = 0;
  GetProcessHandleCount(GetCurrentProcess(), &count);
  return static_cast<int>(count);
}

// Views of mapped files (not loaded images) in this process's address space. Windows does not
// tell cheaply which file a view belongs to, so this counts all of them; a test compares the
// count before and after.
inline int MappedViewCount(const std::filesystem::path& /*dir*/) {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  std::set<void*> views;
  auto* address = static_cast<char*>(info.lpMinimumApplicationAddress);
  auto* end = static_cast<char*>(info.lpMaximumApplicationAddress);
  MEMORY_BASIC_INFORMATION region;
  while (address < end && VirtualQuery(address, &region, sizeof(region)) == sizeof(region)) {
    if (region.State != MEM_FREE && region.Type == MEM_MAPPED) views.insert(region.AllocationBase);
    address = static_cast<char*>(region.BaseAddress) + region.RegionSize;
  }
  return static_cast<int>(views.size());
}

#else  // POSIX

constexpr bool kCanMakeSymlinks = true;

// Open descriptors of this process (the listing's own descriptor is counted every time, so
// differences are exact).
inline int OpenHandleCount() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

// Lines of /proc/self/maps that name a file under `dir`.
inline int MappedViewCount(const std::filesystem::path& dir) {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(dir.string()) != std::string::npos) ++count;
  }
  return count;
}

#endif

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_PROCESS_STATE_H_
