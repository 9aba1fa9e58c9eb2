#include <windows.h>

#include "src/platform/platform.h"

namespace zu {
namespace platform {

static_assert(sizeof(CRITICAL_SECTION) <= 64, "RecursiveLock storage too small");

namespace {
CRITICAL_SECTION* AsSection(unsigned char* storage) {
  return reinterpret_cast<CRITICAL_SECTION*>(storage);
}
}  // namespace

// A critical section is re-entrant for its owning thread, which is what the segment relies on
// when a locked routine calls another locked routine.
RecursiveLock::RecursiveLock() { InitializeCriticalSection(AsSection(storage_)); }
RecursiveLock::~RecursiveLock() { DeleteCriticalSection(AsSection(storage_)); }
void RecursiveLock::Lock() { EnterCriticalSection(AsSection(storage_)); }
void RecursiveLock::Unlock() { LeaveCriticalSection(AsSection(storage_)); }

}  // namespace platform
}  // namespace zu
