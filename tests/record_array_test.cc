// The deque of records (codes above 8): records are owned copies, ranges add nothing but
// Assign copies, the order is "every byte less", and the searches it does not offer refuse.
#include "src/memory/record_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

using zu::CZUDequeRecordArray;
using zu::RecordPtr;

constexpr int kRecordSize = 16;

std::vector<unsigned char> RecordOf(unsigned char fill) {
  return std::vector<unsigned char>(kRecordSize, fill);
}

// `count` records, record i filled with first + i.
std::vector<unsigned char> Records(int count, unsigned char first) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < count; ++i)
    bytes.insert(bytes.end(), kRecordSize, static_cast<unsigned char>(first + i));
  return bytes;
}

// The range of all `count` elements of `stride` bytes at `data`, as the arrays take ranges.
struct Range {
  Range(void* data, unsigned int count, unsigned int stride)
      : first(static_cast<unsigned char*>(data), count, stride), last(first.Clone()) {
    last->Seek(count);
  }
  SimpleDataIter<unsigned char> first;
  std::shared_ptr<ArrayIterBase> last;
};

TEST(CZUDequeRecordArray, RecordsAreOwnedCopies) {
  CZUDequeRecordArray array(kRecordSize);
  std::vector<unsigned char> value = RecordOf(5), out(kRecordSize);
  ASSERT_EQ(array.Append(value.data()), kZuOk);
  void* address = array.GetAt(0, out.data());
  ASSERT_NE(address, nullptr);
  EXPECT_NE(address, value.data());
  EXPECT_EQ(out, value);
  EXPECT_EQ(array.GetAt(1, out.data()), nullptr);
  const std::vector<unsigned char> changed = RecordOf(9);
  array.SetAt(0, changed.data());
  array.SetAt(3, changed.data());  // out of range: ignored
  EXPECT_EQ(array.GetAt(0, out.data()), address) << "changed in place";
  EXPECT_EQ(out, changed);

  // AppendRange appends nothing and answers 0.
  std::vector<unsigned char> more = Records(3, 20);
  Range records(more.data(), 3, kRecordSize);
  EXPECT_EQ(array.AppendRange(&records.first, records.last.get()), kZuOk);
  EXPECT_EQ(array.GetSize(), 1u);

  // Assign takes a range of record addresses (each position holds an unsigned char*, like
  // the array's own elements), stores copies of the records behind them and frees the ones it
  // replaces. The addresses sit in a heap block of exactly three pointers, so reading a whole
  // record at a position would run past it (and store pointer bytes as records).
  std::vector<RecordPtr> addresses = {more.data() + 2 * kRecordSize, more.data(),
                                      more.data() + kRecordSize};
  Range range(addresses.data(), 3, sizeof(RecordPtr));
  ASSERT_EQ(array.Assign(&range.first, range.last.get()), kZuOk);
  ASSERT_EQ(array.GetSize(), 3u);
  EXPECT_EQ(range.first.GetPosition(), 3u);
  std::fill(more.begin(), more.end(), 0);  // the array must not see the caller's memory
  const unsigned char expected[] = {22, 20, 21};
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(array.GetAt(i, out.data()), nullptr);
    EXPECT_EQ(out, RecordOf(expected[i]));
    EXPECT_NE(array.GetItemPtr(i), addresses[i]);
  }
  EXPECT_EQ(array.GetLast(out.data()), array.GetAt(2, out.data()));

  // A null address is refused before anything is replaced.
  std::vector<RecordPtr> with_null = {more.data(), nullptr};
  Range null_range(with_null.data(), 2, sizeof(RecordPtr));
  EXPECT_EQ(array.Assign(&null_range.first, null_range.last.get()), kZuFailed);
  ASSERT_EQ(array.GetSize(), 3u);

  // A range that ends before it starts is refused and replaces nothing.
  range.first.Seek(2);
  range.last->Seek(1);
  EXPECT_EQ(array.Assign(&range.first, range.last.get()), kZuFailed);
  ASSERT_EQ(array.GetSize(), 3u);
  ASSERT_NE(array.GetAt(0, out.data()), nullptr);
  EXPECT_EQ(out, RecordOf(22));
  array.Clear();
  EXPECT_EQ(array.GetLast(out.data()), nullptr);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(array.Append(value.data()), kZuOk);
  // Freed by the destructor; the sanitizer build reports any record left over.
}

TEST(CZUDequeRecordArray, EveryByteLessOrderAndBackwardSearch) {
  CZUDequeRecordArray pairs(2);
  const unsigned char a[] = {1, 2}, b[] = {2, 3}, c[] = {1, 5};
  EXPECT_TRUE(pairs.ItemLess(a, b));
  EXPECT_FALSE(pairs.ItemLess(c, b)) << "not lexicographic: every byte must be less";
  EXPECT_FALSE(pairs.ItemLess(a, a));
  EXPECT_TRUE(CZUDequeRecordArray(0).ItemLess(a, b));

  CZUDequeRecordArray array(kRecordSize);
  std::vector<unsigned char> probe = RecordOf(7);
  EXPECT_EQ(array.UpperBound(probe.data()), 0u);
  for (unsigned char fill : {10, 20, 30, 40, 50, 60, 70, 80}) {
    ASSERT_EQ(array.Append(RecordOf(fill).data()), kZuOk);
  }
  for (const auto& [value, index] :
       {std::pair<unsigned char, uint64_t>{5, 0}, {10, 0}, {45, 3}, {80, 7}, {95, 7}}) {
    probe = RecordOf(value);
    EXPECT_EQ(array.UpperBound(probe.data()), index) << int{value};
  }
  for (auto refused :
       {+[](IZUArray&r, void*v) { r.Find(v); }, +[](IZUArray&r, void*v) { r.LowerBound(v); },
        +[](IZUArray&r, void*v) { r.FindFloor(v); },
        +[](IZUArray&r, void*v) { r.FindNearest(v, 0); },
        +[](IZUArray&r, void*v) { r.LocateLowerBound(v); },
        +[](IZUArray&r, void*v) { r.AppendBuffer(v, 1); },
        +[](IZUArray&r, void*v) { r.CopyOut(v, 0, 1); }}) {
    EXPECT_THROW(refused(array, probe.data()), std::logic_error);
  }
}

}  // namespace
