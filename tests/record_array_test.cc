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
constexpr char kNotImplemented[] = "The method or operation is not implemented.";

std::vector<unsigned char> RecordOf(unsigned char fill) {
  return std::vector<unsigned char>(kRecordSize, fill);
}

// Records of kRecordSize bytes, record i filled with first + i.
std::vector<unsigned char> Records(int count, unsigned char first, int gap = 0) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < count; ++i) {
    bytes.insert(bytes.end(), kRecordSize, static_cast<unsigned char>(first + i));
    bytes.insert(bytes.end(), gap, 0xEE);
  }
  return bytes;
}

template <typename Exception, typename Fn>
void ExpectRefusal(Fn&& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), kNotImplemented);
  }
}

TEST(CZUDequeRecordArray, RecordsAreOwnedCopies) {
  CZUDequeRecordArray array(kRecordSize);
  std::vector<unsigned char> value = RecordOf(5);
  ASSERT_EQ(array.Append(value.data()), kZuOk);
  std::vector<unsigned char> out(kRecordSize, 0);
  void* address = array.GetAt(0, out.data());
  ASSERT_NE(address, nullptr);
  EXPECT_NE(address, value.data());
  EXPECT_EQ(out, value);
  EXPECT_EQ(array.GetAt(1, out.data()), nullptr);
  EXPECT_EQ(array.GetItemPtr(0), address);
  EXPECT_EQ(array.GetItemPtrAt(1), nullptr);

  std::vector<unsigned char> changed = RecordOf(9);
  array.SetAt(0, changed.data());
  array.SetAt(3, changed.data());           // out of range: ignored
  EXPECT_EQ(array.GetItemPtr(0), address);  // changed in place
  EXPECT_EQ(std::memcmp(address, changed.data(), kRecordSize), 0);
  EXPECT_EQ(array.CopyItemAt(0, out.data()), address);
  EXPECT_EQ(out, changed);

  // AppendRange appends nothing and answers 0.
  std::vector<unsigned char> more = Records(3, 20);
  SimpleDataIter<unsigned char> first(more.data(), 3, kRecordSize);
  auto last = first.Clone();
  last->Seek(3);
  EXPECT_EQ(array.AppendRange(&first, last.get()), kZuOk);
  EXPECT_EQ(array.GetSize(), 1u);

  // Assign takes a range of record addresses (each position holds an unsigned char*, like
  // the array's own elements), stores copies of the records behind them and frees the ones it
  // replaces. The addresses sit in a heap block of exactly three pointers, so reading a whole
  // record at a position would run past it (and store pointer bytes as records).
  std::vector<RecordPtr> addresses = {more.data() + 2 * kRecordSize, more.data(),
                                      more.data() + kRecordSize};
  SimpleDataIter<unsigned char> from(reinterpret_cast<unsigned char*>(addresses.data()), 3,
                                     sizeof(RecordPtr));
  auto to = from.Clone();
  to->Seek(3);
  ASSERT_EQ(array.Assign(&from, to.get()), kZuOk);
  ASSERT_EQ(array.GetSize(), 3u);
  EXPECT_EQ(from.GetPosition(), 3u);
  std::fill(more.begin(), more.end(), 0);  // the array must not see the caller's memory
  const unsigned char expected[] = {22, 20, 21};
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(array.GetAt(i, out.data()), nullptr);
    EXPECT_EQ(out, RecordOf(expected[i]));
    EXPECT_NE(array.GetItemPtr(i), addresses[i]);
  }
  EXPECT_EQ(array.GetLast(out.data()), array.GetItemPtr(2));

  // A null address is refused before anything is replaced.
  std::vector<RecordPtr> with_null = {more.data(), nullptr};
  SimpleDataIter<unsigned char> null_first(reinterpret_cast<unsigned char*>(with_null.data()), 2,
                                           sizeof(RecordPtr));
  auto null_last = null_first.Clone();
  null_last->Seek(2);
  EXPECT_EQ(array.Assign(&null_first, null_last.get()), kZuFailed);
  ASSERT_EQ(array.GetSize(), 3u);

  // A range that ends before it starts is refused and replaces nothing.
  SimpleDataIter<unsigned char> late(reinterpret_cast<unsigned char*>(addresses.data()), 3,
                                     sizeof(RecordPtr));
  late.Seek(2);
  auto early = late.Clone();
  early->Seek(1);
  EXPECT_EQ(array.Assign(&late, early.get()), kZuFailed);
  ASSERT_EQ(array.GetSize(), 3u);
  ASSERT_NE(array.GetAt(0, out.data()), nullptr);
  EXPECT_EQ(out, RecordOf(22));

  array.Clear();
  EXPECT_EQ(array.GetSize(), 0u);
  EXPECT_EQ(array.GetLast(out.data()), nullptr);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(array.Append(value.data()), kZuOk);
  array.FreeItems();
  EXPECT_EQ(array.GetSize(), 0u);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(array.Append(value.data()), kZuOk);
  // The rest is freed by the destructor; the sanitizer build reports any record left over.
}

TEST(CZUDequeRecordArray, ItemLessAndBackwardSearch) {
  CZUDequeRecordArray pairs(2);
  const unsigned char a[] = {1, 2}, b[] = {2, 3}, c[] = {1, 5};
  EXPECT_TRUE(pairs.ItemLess(a, b));
  EXPECT_FALSE(pairs.ItemLess(c, b));  // not lexicographic: every byte must be less
  EXPECT_FALSE(pairs.ItemLess(a, a));
  EXPECT_TRUE(pairs.ItemNotLess(c, b));
  CZUDequeRecordArray empty_records(0);
  EXPECT_TRUE(empty_records.ItemLess(a, b));

  CZUDequeRecordArray array(kRecordSize);
  std::vector<unsigned char> probe = RecordOf(7);
  EXPECT_EQ(array.UpperBound(probe.data()), 0u);
  for (unsigned char fill : {10, 20, 30, 40, 50, 60, 70, 80}) {
    ASSERT_EQ(array.Append(RecordOf(fill).data()), kZuOk);
  }
  const struct {
    unsigned char value;
    uint64_t index;
  } table[] = {{5, 0}, {10, 0}, {45, 3}, {80, 7}, {95, 7}};
  for (const auto& row : table) {
    probe = RecordOf(row.value);
    EXPECT_EQ(array.UpperBound(probe.data()), row.index) << int{row.value};
  }

  ExpectRefusal<std::logic_error>([&] { array.Find(probe.data()); });
  ExpectRefusal<std::logic_error>([&] { array.LowerBound(probe.data()); });
  ExpectRefusal<std::logic_error>([&] { array.FindFloor(probe.data()); });
  ExpectRefusal<std::logic_error>([&] { array.FindNearest(probe.data(), 0); });
  ExpectRefusal<std::logic_error>([&] { array.LocateLowerBound(probe.data()); });
  ExpectRefusal<std::logic_error>([&] { array.AppendBuffer(probe.data(), 1); });
  ExpectRefusal<std::logic_error>([&] { array.CopyOut(probe.data(), 0, 1); });
}

TEST(CZUBufferArray, RecordViewOfACallersBuffer) {
  CArrayFactory factory;
  constexpr int kTwelve = 12;
  std::vector<unsigned char> buffer(120);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i / kTwelve);
  const std::vector<unsigned char> original = buffer;
  std::unique_ptr<IZUArray> array(factory.AllocAttachBufferArray(kTwelve, buffer.data(), 120));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 10u);
  auto* records = dynamic_cast<zu::CZUBufferArray<RecordPtr>*>(array.get());
  ASSERT_NE(records, nullptr);
  std::vector<unsigned char> out(kTwelve);
  EXPECT_EQ(array->GetAt(4, out.data()), buffer.data() + 4 * kTwelve);
  EXPECT_EQ(out, std::vector<unsigned char>(kTwelve, 4));
  EXPECT_EQ(array->GetAt(10, out.data()), nullptr);
  EXPECT_EQ(records->GetItemPtr(10), nullptr);
  EXPECT_EQ(array->GetLast(out.data()), buffer.data() + 9 * kTwelve);
  std::vector<unsigned char> probe(kTwelve, 5);
  EXPECT_EQ(array->UpperBound(probe.data()), 5u);

  ExpectRefusal<std::exception>([&] { array->Append(probe.data()); });
  ExpectRefusal<std::exception>([&] { array->Clear(); });
  ExpectRefusal<std::logic_error>([&] { array->SetAt(0, probe.data()); });
  ExpectRefusal<std::logic_error>([&] { records->FreeItems(); });
  SimpleDataIter<unsigned char> first(probe.data(), 1, kTwelve);
  auto last = first.Clone();
  last->Seek(1);
  ExpectRefusal<std::logic_error>([&] { array->Assign(&first, last.get()); });
  ExpectRefusal<std::logic_error>([&] { array->AppendRange(&first, last.get()); });
  try {
    array->Append(probe.data());
  } catch (const std::logic_error&) {
    ADD_FAILURE() << "Append refuses with the plain exception";
  } catch (const std::exception&) {
  }
  array.reset();
  EXPECT_EQ(buffer, original);
}

TEST(CZUCrossBufferArray, RecordChannelKeepsTheUnstridedCount) {
  CArrayFactory factory;
  std::vector<unsigned char> buffer = Records(100, 1, kRecordSize);  // 3200 bytes
  std::unique_ptr<IZUArray> array(
      factory.AllocAttachCrossBufferArray(kRecordSize, buffer.data(), 1600, kRecordSize));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 200u);
  auto* cross = dynamic_cast<zu::CZUCrossBufferArray<RecordPtr>*>(array.get());
  ASSERT_NE(cross, nullptr);
  EXPECT_EQ(cross->GetItemPtr(3), buffer.data() + 3 * 2 * kRecordSize);
  std::vector<unsigned char> out(kRecordSize);
  EXPECT_EQ(array->GetAt(3, out.data()), buffer.data() + 96);
  EXPECT_EQ(out, RecordOf(4));
  // The last record is the last one the interleaved span holds, not the count's.
  EXPECT_EQ(array->GetLast(out.data()), buffer.data() + 99 * 2 * kRecordSize);
  EXPECT_EQ(out, RecordOf(100));

  // UpperBound compares the value's first four bytes with record addresses.
  auto low32 = [](const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); };
  uint32_t base = low32(buffer.data());
  uint32_t top = low32(cross->GetItemPtr(199));
  if (base < top) {  // the addresses do not wrap at 4 GiB inside the span
    std::vector<unsigned char> value(kRecordSize, 0);
    uint32_t at_five = low32(cross->GetItemPtr(5));
    std::memcpy(value.data(), &at_five, sizeof(at_five));
    EXPECT_EQ(array->UpperBound(value.data()), 5u);
    uint32_t below = base - 1;
    std::memcpy(value.data(), &below, sizeof(below));
    EXPECT_EQ(array->UpperBound(value.data()), 0u);
    std::memcpy(value.data(), &top, sizeof(top));
    EXPECT_EQ(array->UpperBound(value.data()), 199u);
  }
  ExpectRefusal<std::exception>([&] { array->Clear(); });
}

TEST(CZUDequeRecordArray, FactoryRecordCodes) {
  CArrayFactory factory;
  for (int code : {16, 64, 512, 1024}) {
    std::unique_ptr<IZUArray> array(factory.AllocDequeArray(code));
    auto* records = dynamic_cast<CZUDequeRecordArray*>(array.get());
    ASSERT_NE(records, nullptr) << code;
    EXPECT_EQ(records->record_size(), code);
  }
  for (int code : {48, 9, -16}) EXPECT_EQ(factory.AllocDequeArray(code), nullptr) << code;
  unsigned char buffer[40] = {};
  std::unique_ptr<IZUArray> nine(factory.AllocAttachBufferArray(9, buffer, 40));
  ASSERT_NE(dynamic_cast<zu::CZUBufferArray<RecordPtr>*>(nine.get()), nullptr);
  EXPECT_EQ(nine->GetSize(), 4u);
}

}  // namespace
