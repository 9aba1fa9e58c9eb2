#include <mutex>
#include <new>

#include "src/platform/platform.h"

namespace zu {
namespace platform {

static_assert(sizeof(std::recursive_mutex) <= 64, "RecursiveLock storage too small");

namespace {
std::recursive_mutex* AsMutex(unsigned char* storage) {
  return std::launder(reinterpret_cast<std::recursive_mutex*>(storage));
}
}  // namespace

RecursiveLock::RecursiveLock() { new (storage_) std::recursive_mutex(); }
RecursiveLock::~RecursiveLock() { AsMutex(storage_)->~recursive_mutex(); }
void RecursiveLock::Lock() { AsMutex(storage_)->lock(); }
void RecursiveLock::Unlock() { AsMutex(storage_)->unlock(); }

}  // namespace platform
}  // namespace zu
