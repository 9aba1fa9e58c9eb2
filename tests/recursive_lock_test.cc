// The platform's re-entrant lock, which guards a file segment's views: the holder re-enters,
// and no other thread gets in until the holder's last level is released.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "src/core/critical_section.h"

namespace zu_test {
namespace {

TEST(RecursiveLock, OthersWaitForTheLastReleaseOfTheHolder) {
  zu::CZUCriticalSection section;
  int64_t counter = 0;  // guarded by section; not atomic on purpose
  std::atomic<int> inside{0}, overlaps{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < 20000; ++r) {
        zu::CZUScopedLock outer(section);
        overlaps += ++inside != 1;
        {
          zu::CZUScopedLock inner(section);  // re-entry while others wait
          ++counter;
        }
        // One level released, one held: nobody else may enter yet.
        if (r % 1000 == 0) std::this_thread::yield();
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
