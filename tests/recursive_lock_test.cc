// The platform's re-entrant lock, which guards a file segment's views: re-entry by the holder,
// and exclusion of every other thread, also while the holder is several levels deep.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "src/core/critical_section.h"

namespace zu_test {
namespace {

TEST(RecursiveLock, OthersWaitForTheLastReleaseAndNeverOverlap) {
  zu::CZUCriticalSection section;
  std::atomic<bool> taken{false};
  std::thread other;
  {
    zu::CZUScopedLock outer(section);
    {
      zu::CZUScopedLock inner(section);
      other = std::thread([&] {
        zu::CZUScopedLock lock(section);
        taken = true;
      });
    }
    // One of two levels released: the other thread must still be waiting.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(taken.load());
  }
  other.join();
  EXPECT_TRUE(taken.load());

  int64_t counter = 0;  // guarded by section; not atomic on purpose
  std::atomic<int> inside{0}, overlaps{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < 20000; ++r) {
        zu::CZUScopedLock outer(section);
        overlaps += ++inside != 1;
        zu::CZUScopedLock inner(section);  // re-entry while others wait
        ++counter;
        if (r % 1000 == 0) std::this_thread::yield();  // let waiters pile up
        --inside;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 4 * 20000);
  EXPECT_EQ(overlaps.load(), 0);
}

}  // namespace
}  // namespace zu_test
