// Which storage each self-spilling flavour starts on (internal view of the array).
#include <gtest/gtest.h>

#include "src/auto/auto_array.h"

namespace {

static_assert(zu::kSpillThreshold == 8388608, "arrays move into files at 8,388,608 elements");
static_assert(zu::kMigrateChunk == 8192, "the move copies 8192 elements per step");

TEST(CZUAutoVectorArray, StartsOnAVectorStorage) {
  zu::CZUAutoVectorArray<int64_t> vector_flavour;
  zu::CZUAutoDequeArray<int64_t> deque_flavour;
  EXPECT_NE(dynamic_cast<zu::CStdVector<int64_t>*>(vector_flavour.storage()), nullptr);
  EXPECT_NE(dynamic_cast<zu::CStdDeque<int64_t>*>(deque_flavour.storage()), nullptr);
  EXPECT_FALSE(vector_flavour.spilled());
  EXPECT_EQ(vector_flavour.GetSize(), 0u);
  int64_t out = 0;
  EXPECT_EQ(vector_flavour.GetLast(&out), nullptr);
}

}  // namespace
