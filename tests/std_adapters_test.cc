#include "src/auto/std_adapters.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "tests/support/test_values.h"

namespace {

using zu_test::MakeValue;

template <typename Storage>
class CStdContainer : public ::testing::Test {};

using Storages =
    ::testing::Types<zu::CStdVector<uint16_t>, zu::CStdDeque<uint16_t>, zu::CStdDeque<int64_t>,
                     zu::CStdVector<SimpleBigData<32>>, zu::CStdDeque<SimpleBigData<512>>>;
TYPED_TEST_SUITE(CStdContainer, Storages);

template <typename T>
struct ElementOf;
template <template <typename, typename> class S, typename T, typename A>
struct ElementOf<S<T, A>> {
  using type = T;
};

template <typename T>
std::vector<T> Sequence(uint64_t n, uint64_t from = 0) {
  std::vector<T> values;
  for (uint64_t i = 0; i < n; ++i) values.push_back(MakeValue<T>(from + i));
  return values;
}

// Appends `values` as one range through the adaptor's iterators; stride in elements.
template <typename T, typename Storage>
void AppendAll(Storage& storage, std::vector<T>& values, bool assign = false) {
  SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(values.data()),
                                      static_cast<unsigned int>(values.size()), sizeof(T));
  auto last = first.Clone();
  last->Seek(static_cast<unsigned int>(values.size()));
  if (assign) {
    storage.Assign(zu::ZuArrayIter<T>(&first), zu::ZuArrayIter<T>(last.get()));
  } else {
    storage.Append(zu::ZuArrayIter<T>(&first), zu::ZuArrayIter<T>(last.get()));
  }
  EXPECT_EQ(first.GetPosition(), values.size());
}

TYPED_TEST(CStdContainer, AccessGrowthAndClear) {
  using T = typename ElementOf<TypeParam>::type;
  TypeParam storage;
  EXPECT_EQ(storage.GetSize(), 0);
  EXPECT_EQ(storage.GetBackReadPtr(), nullptr);
  // Enough elements for several deque blocks, half pushed, half as one range.
  constexpr uint64_t kCount = zu::kStdDequeBlockLength * 2 + 100;
  std::vector<T> values = Sequence<T>(kCount);
  for (uint64_t i = 0; i < kCount / 2; ++i) storage.PushBack(values[i]);
  std::vector<T> rest(values.begin() + kCount / 2, values.end());
  AppendAll<T>(storage, rest);
  ASSERT_EQ(storage.GetSize(), static_cast<int64_t>(kCount));
  for (uint64_t i = 0; i < kCount; i += 997) ASSERT_TRUE(*storage.GetReadPtr(i) == values[i]);
  EXPECT_TRUE(*storage.GetBackReadPtr() == values.back());
  *storage.GetWritePtr(3) = values[7];
  EXPECT_TRUE(*storage.GetReadPtr(3) == values[7]);
  *storage.GetBackWritePtr() = values[0];
  EXPECT_TRUE(*storage.GetReadPtr(kCount - 1) == values[0]);

  std::vector<T> fresh = Sequence<T>(5, 1000);
  AppendAll<T>(storage, fresh, /*assign=*/true);
  ASSERT_EQ(storage.GetSize(), 5);
  EXPECT_TRUE(*storage.GetReadPtr(0) == fresh[0]);
  std::vector<T> none;
  AppendAll<T>(storage, none, /*assign=*/true);
  EXPECT_EQ(storage.GetSize(), 0);
  storage.PushBack(fresh[1]);
  storage.Clear();
  EXPECT_EQ(storage.GetSize(), 0);
}

TYPED_TEST(CStdContainer, ReadDataStopsAtTheEnd) {
  using T = typename ElementOf<TypeParam>::type;
  TypeParam storage;
  std::vector<T> values = Sequence<T>(10, 1);
  AppendAll<T>(storage, values);
  std::vector<T> out(12, MakeValue<T>(0));
  int64_t count = 5;
  storage.ReadData(out.data(), 8, count);
  EXPECT_EQ(count, 2);  // only what exists is copied
  EXPECT_TRUE(out[0] == values[8] && out[1] == values[9]);
  EXPECT_TRUE(out[2] == MakeValue<T>(0));
  count = 4;
  storage.ReadData(out.data(), 10, count);
  EXPECT_EQ(count, 0);
  count = 4;
  storage.ReadData(out.data(), 11, count);
  EXPECT_EQ(count, 0);
  count = 4;
  storage.ReadData(out.data(), -1, count);
  EXPECT_EQ(count, 0);
  count = 10;
  storage.ReadData(out.data(), 0, count);
  EXPECT_EQ(count, 10);
  EXPECT_TRUE(std::equal(values.begin(), values.end(), out.begin()));
}

TEST(CStdDeque, BlocksHoldSixteenThousandElements) {
  using Deque = std::xdeque<SimpleBigData<512>, zu::kStdDequeBlockLength>;
  EXPECT_EQ(Deque::block_length * sizeof(SimpleBigData<512>), 8u << 20);
  EXPECT_EQ(Deque::max_map_size(), 511u);
}

}  // namespace
