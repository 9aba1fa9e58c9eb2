#include <gtest/gtest.h>

#include <cstdint>

#include "src/core/zu_array_iter.h"
#include "zu_data_manager/iterators.h"

namespace {

TEST(SimpleDataIter, AddressesClampAndEnd) {
  uint16_t data[3] = {7, 8, 9};
  SimpleDataIter<unsigned char> it(reinterpret_cast<unsigned char*>(data), 3, 2);
  EXPECT_EQ(it.GetAt(2), reinterpret_cast<unsigned char*>(data) + 4);
  EXPECT_EQ(it.GetAt(3), nullptr);
  EXPECT_EQ(it.GetCurrent(), data);
  it.Next();
  it.Next();
  EXPECT_FALSE(it.IsEnd());
  it.Next();
  EXPECT_TRUE(it.IsEnd());
  EXPECT_EQ(it.GetCurrent(), nullptr);
  it.Next();
  EXPECT_EQ(it.GetPosition(), 3u);
  it.Seek(10);
  EXPECT_EQ(it.GetPosition(), 3u);
  it.Seek(1);
  EXPECT_EQ(*static_cast<uint16_t*>(it.GetCurrent()), 8);
}

TEST(SimpleDataIter, CloneIsIndependentAndCarriesMarks) {
  uint32_t data[4] = {1, 2, 3, 4};
  SimpleDataIter<unsigned char> it(reinterpret_cast<unsigned char*>(data), 4, 4);
  EXPECT_FALSE(it.IsMarked(0));
  EXPECT_FALSE(it.IsCurrentMarked());
  it.Seek(2);
  it.Mark(3);
  auto clone = it.Clone();
  EXPECT_EQ(clone->GetPosition(), 2u);
  EXPECT_EQ(clone->GetCount(), 4u);
  EXPECT_TRUE(clone->IsMarked(3));
  clone->Next();
  EXPECT_TRUE(clone->IsCurrentMarked());
  EXPECT_EQ(it.GetPosition(), 2u);  // moving the clone left the original alone
  EXPECT_EQ(*static_cast<uint32_t*>(clone->GetCurrent()), 4u);
}

TEST(ZuArrayIter, CopiesShareTheWrappedIterator) {
  int64_t data[3] = {-1, 0, 1};
  SimpleDataIter<unsigned char> base(reinterpret_cast<unsigned char*>(data), 3, 8);
  auto end = base.Clone();
  end->Seek(3);
  zu::ZuArrayIter<int64_t> first(&base);
  zu::ZuArrayIter<int64_t> copy = first;
  zu::ZuArrayIter<int64_t> last(end.get());
  EXPECT_EQ(last - first, 3);
  EXPECT_EQ(first - last, -3);
  ++copy;
  EXPECT_EQ(*first, 0);  // advancing the copy advanced the original
  EXPECT_NE(first, last);
  ++first;
  ++first;
  EXPECT_EQ(first, last);
}

}  // namespace
