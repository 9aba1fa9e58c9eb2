// Which storage each self-spilling flavour starts on, and which storage single appends reach
// after the storage is replaced (internal view of the array).
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "src/auto/auto_array.h"
#include "tests/support/temp_dir.h"

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

template <typename T>
void ExpectAppendsLandInStorage(zu::CZUAutoDequeArray<T>& array, uint32_t count) {
  ASSERT_EQ(array.GetSize(), 0u);
  for (uint32_t i = 0; i < count; ++i) {
    T v = static_cast<T>(i * 7);
    ASSERT_EQ(array.Append(&v), kZuOk);
  }
  ASSERT_EQ(array.GetSize(), count);
  ASSERT_EQ(static_cast<uint64_t>(array.storage()->GetSize()), count);
  for (uint32_t i = 0; i < count; ++i) {
    T out{};
    ASSERT_NE(array.GetAt(i, &out), nullptr);
    ASSERT_EQ(out, static_cast<T>(i * 7)) << i;
  }
}

// Init replaces the in-memory storage (the old one is destroyed at once); the appends that
// follow must reach the new one, in both flavours.
TEST(CZUAutoDequeArray, AppendsReachTheStorageOfTheLatestInit) {
  zu::CZUAutoDequeArray<int64_t> deque_flavour;
  zu::CZUAutoVectorArray<int64_t> vector_flavour;
  for (zu::CZUAutoDequeArray<int64_t>* array :
       {&deque_flavour, static_cast<zu::CZUAutoDequeArray<int64_t>*>(&vector_flavour)}) {
    ASSERT_NO_FATAL_FAILURE(ExpectAppendsLandInStorage(*array, 20000));
    ASSERT_TRUE(array->Init());
    EXPECT_FALSE(array->spilled());
    ASSERT_NO_FATAL_FAILURE(ExpectAppendsLandInStorage(*array, 20000));
  }
  EXPECT_NE(dynamic_cast<zu::CStdDeque<int64_t>*>(deque_flavour.storage()), nullptr);
  EXPECT_NE(dynamic_cast<zu::CStdVector<int64_t>*>(vector_flavour.storage()), nullptr);
}

// Once moved, appends go to the files; an Init afterwards brings the array back to a fresh
// in-memory storage of its flavour, and appends follow it there.
TEST(CZUAutoDequeArray, AppendsFollowTheMoveIntoFilesAndABackToMemoryInit) {
  zu_test::TempDataDir dir;
  zu::CZUAutoDequeArray<uint8_t> deque_flavour;
  zu::CZUAutoVectorArray<uint8_t> vector_flavour;
  std::vector<uint8_t> values(zu::kSpillThreshold, 3);
  for (zu::CZUAutoDequeArray<uint8_t>* array :
       {&deque_flavour, static_cast<zu::CZUAutoDequeArray<uint8_t>*>(&vector_flavour)}) {
    ASSERT_EQ(array->AppendBuffer(values.data(), values.size() - 1), kZuOk);
    uint8_t last = 4;
    ASSERT_EQ(array->Append(&last), kZuOk);
    EXPECT_FALSE(array->spilled());
    uint8_t over = 5;
    ASSERT_EQ(array->Append(&over), kZuOk);
    ASSERT_TRUE(array->spilled());
    ASSERT_EQ(array->Append(&over), kZuOk);
    ASSERT_EQ(static_cast<uint64_t>(array->storage()->GetSize()), zu::kSpillThreshold + 2);
    uint8_t out = 0;
    ASSERT_NE(array->GetAt(zu::kSpillThreshold - 1, &out), nullptr);
    EXPECT_EQ(out, 4);
    ASSERT_NE(array->GetAt(zu::kSpillThreshold + 1, &out), nullptr);
    EXPECT_EQ(out, 5);

    ASSERT_TRUE(array->Init());
    EXPECT_FALSE(array->spilled());
    ASSERT_NO_FATAL_FAILURE(ExpectAppendsLandInStorage(*array, 1000));
  }
  EXPECT_NE(dynamic_cast<zu::CStdDeque<uint8_t>*>(deque_flavour.storage()), nullptr);
  EXPECT_NE(dynamic_cast<zu::CStdVector<uint8_t>*>(vector_flavour.storage()), nullptr);
}

}  // namespace
