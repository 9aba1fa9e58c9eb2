// The contended half of the POSIX RecursiveLock: a futex on the state word (the classic
// three-state mutex: free, locked, locked with possible waiters). The uncontended half is
// inline in platform.h.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "src/platform/platform.h"

namespace zu {
namespace platform {

namespace {
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is a plain word");

uint32_t* Word(std::atomic<uint32_t>* state) { return reinterpret_cast<uint32_t*>(state); }
}  // namespace

void RecursiveLock::LockContended() {
  // Announce a waiter by setting kContended; whoever unlocks then wakes one. Taking the lock
  // this way leaves kContended behind, which costs at most one needless wake-up.
  while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
    ::syscall(SYS_futex, Word(&state_), FUTEX_WAIT_PRIVATE, kContended, nullptr, nullptr, 0);
  }
}

void RecursiveLock::WakeOne() {
  ::syscall(SYS_futex, Word(&state_), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace platform
}  // namespace zu
