// PodVector against std::vector: random runs of pushes, block inserts at the back and the
// front (some taken from the vector itself while it must grow, which reads freed memory if the
// source is not followed into the grown block) and clears; then the length limit.
#include "src/memory/pod_vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

TEST(PodVector, GrowsAndInsertsAsAStandardVector) {
  std::mt19937 rng(17);
  zu::PodVector<uint64_t> v;
  std::vector<uint64_t> model;
  uint64_t next = 0;
  for (int step = 0; step < 3000; ++step) {
    const size_t capacity = v.capacity();
    switch (rng() % 8) {
      case 0:
      case 1:
      case 2:
        v.push_back(next);
        model.push_back(next++);
        break;
      case 3: {  // a fresh block at the back
        std::vector<uint64_t> block(rng() % 300);
        for (uint64_t& x : block) x = next++;
        v.insert(v.end(), block.data(), block.data() + block.size());
        model.insert(model.end(), block.begin(), block.end());
        break;
      }
      case 4:
      case 5: {  // a copy of the vector's own elements, at the back or the front
        if (v.empty()) break;
        const size_t from = rng() % v.size();
        const size_t n = std::min<size_t>(v.size() - from, 1 + rng() % 400);
        const bool front = rng() % 4 == 0;
        v.insert(front ? v.begin() : v.end(), v.data() + from, v.data() + from + n);
        std::vector<uint64_t> copy(model.begin() + from, model.begin() + from + n);
        model.insert(front ? model.begin() : model.end(), copy.begin(), copy.end());
        break;
      }
      case 6:
        if (rng() % 20 == 0) {
          v.clear();
          model.clear();
          ASSERT_EQ(v.capacity(), capacity) << "clear keeps the block";
        }
        break;
      default:
        v.reserve(v.size() + rng() % 100);
        break;
    }
    ASSERT_GE(v.capacity(), v.size());
    ASSERT_TRUE(std::equal(v.begin(), v.end(), model.begin(), model.end())) << "step " << step;
  }
}

TEST(PodVector, ACapacityPastTheAddressSpaceIsALengthErrorThatKeepsTheElements) {
  zu::PodVector<uint64_t> v;
  for (uint64_t i = 0; i < 10; ++i) v.push_back(i);
  EXPECT_THROW(v.reserve(SIZE_MAX / 4), std::length_error);
  ASSERT_EQ(v.size(), 10u);
  for (uint64_t i = 0; i < 10; ++i) EXPECT_EQ(v[i], i);
}

}  // namespace
