// The platform's re-entrant lock, which guards a file segment's views: re-entry by the holder,
// exclusion of every other thread (also while the holder is inside several levels), and
// hand-over under contention without lost wake-ups.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "src/core/critical_section.h"
#include "src/platform/platform.h"

namespace zu_test {
namespace {

using zu::platform::RecursiveLock;

TEST(RecursiveLock, TheHolderReentersAndOthersWaitForTheLastRelease) {
  RecursiveLock lock;
  std::atomic<bool> taken{false};
  lock.Lock();
  lock.Lock();
  lock.Lock();
  std::thread other([&] {
    lock.Lock();
    taken = true;
    lock.Unlock();
  });
  lock.Unlock();
  lock.Unlock();
  // Two of three levels released: the other thread must still be waiting.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(taken.load());
  lock.Unlock();
  other.join();
  EXPECT_TRUE(taken.load());
  // Free again, and re-entrant for this thread as before.
  lock.Lock();
  lock.Lock();
  lock.Unlock();
  lock.Unlock();
}

TEST(RecursiveLock, ExcludesOtherThreadsUnderContention) {
  zu::CZUCriticalSection section;
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  int64_t counter = 0;  // guarded by section; not atomic on purpose
  int inside = 0;       // threads inside at once; must stay at most 1
  std::atomic<int> overlaps{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < kRounds; ++r) {
        zu::CZUScopedLock outer(section);
        if (++inside != 1) ++overlaps;
        {
          zu::CZUScopedLock inner(section);  // re-entry while others wait
          counter += 1;
        }
        if (r % 1000 == 0) std::this_thread::yield();  // let waiters pile up
        --inside;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, int64_t{kThreads} * kRounds);
  EXPECT_EQ(overlaps.load(), 0);
}

}  // namespace
}  // namespace zu_test
