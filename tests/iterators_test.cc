// SimpleDataIter, the range a host hands to the bulk operations: positions clamp to the count,
// addresses follow the stride, and a clone is independent but carries position and marks.
#include "zu_data_manager/iterators.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(SimpleDataIter, PositionsClampAndClonesAreIndependent) {
  uint16_t data[3] = {7, 8, 9};
  SimpleDataIter<unsigned char> it(reinterpret_cast<unsigned char*>(data), 3, 2);
  EXPECT_EQ(it.GetAt(2), &data[2]);
  EXPECT_EQ(it.GetAt(3), nullptr);
  it.Seek(2);
  it.Mark(1);
  auto clone = it.Clone();
  clone->Next();
  EXPECT_TRUE(clone->IsEnd());
  EXPECT_EQ(clone->GetCurrent(), nullptr);
  clone->Next();
  EXPECT_EQ(clone->GetPosition(), 3u);
  EXPECT_EQ(it.GetPosition(), 2u) << "moving the clone left the original alone";
  EXPECT_EQ(it.GetCurrent(), &data[2]);
  clone->Seek(10);
  EXPECT_EQ(clone->GetPosition(), 3u);
  clone->Seek(1);
  EXPECT_TRUE(clone->IsCurrentMarked());
  EXPECT_FALSE(clone->IsMarked(2));
}

}  // namespace
