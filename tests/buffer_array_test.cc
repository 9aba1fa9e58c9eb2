// The views over a caller's buffer beyond what the contract model checks: what they refuse
// (and with which exception), the unchecked reads of the interleaved view, and the record
// views with their address-based quirks. None of them ever writes or frees the buffer.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

// Expects the not-implemented refusal: a std::logic_error, or with `plain` a std::exception
// that is not one.
template <typename Fn>
void ExpectRefusal(bool plain, Fn&& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_FALSE(plain) << "a logic_error where the plain exception belongs";
    EXPECT_STREQ(e.what(), "The method or operation is not implemented.");
  } catch (const std::exception& e) {
    EXPECT_TRUE(plain) << "a plain exception where a logic_error belongs";
    EXPECT_STREQ(e.what(), "The method or operation is not implemented.");
  }
}

// Every change an attached view refuses: Append and Clear plainly, the rest as logic errors.
void ExpectChangesRefused(IZUArray& array, unsigned char* element, bool searches_refused) {
  SimpleDataIter<unsigned char> first(element, 1, 1);
  auto last = first.Clone();
  last->Seek(1);
  ExpectRefusal(true, [&] { array.Append(element); });
  ExpectRefusal(true, [&] { array.Clear(); });
  ExpectRefusal(false, [&] { array.SetAt(0, element); });
  ExpectRefusal(false, [&] { array.Assign(&first, last.get()); });
  ExpectRefusal(false, [&] { array.AppendRange(&first, last.get()); });
  if (!searches_refused) return;
  ExpectRefusal(false, [&] { array.Find(element); });
  ExpectRefusal(false, [&] { array.LowerBound(element); });
  ExpectRefusal(false, [&] { array.FindFloor(element); });
  ExpectRefusal(false, [&] { array.FindNearest(element, 0); });
  ExpectRefusal(false, [&] { array.AppendBuffer(element, 1); });
  ExpectRefusal(false, [&] { array.CopyOut(element, 0, 1); });
}

TEST(CZUBufferArray, ViewsRefuseChangesAndLeaveTheBufferAlone) {
  CArrayFactory factory;
  std::vector<unsigned char> buffer(240);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i / 12);
  const std::vector<unsigned char> original = buffer;
  unsigned char probe[16] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
  for (int code : {2, 12}) {
    std::unique_ptr<IZUArray> plain(factory.AllocAttachBufferArray(code, buffer.data(), 120));
    ExpectChangesRefused(*plain, probe, true);
    std::unique_ptr<IZUArray> cross(
        factory.AllocAttachCrossBufferArray(code, buffer.data(), 96, 4));
    ExpectChangesRefused(*cross, probe, false);
  }
  EXPECT_EQ(buffer, original);
}

TEST(CZUCrossBufferArray, GetAtIsUncheckedAtTheStrideOfTheBuffer) {
  std::vector<unsigned char> buffer(100 * 4 + 8, 0x77);
  for (size_t i = 0; i < 100; ++i) buffer[4 * i] = static_cast<unsigned char>(i);
  std::unique_ptr<IZUArray> array(
      CArrayFactory().AllocAttachCrossBufferArray(1, buffer.data(), 100, 3));
  uint8_t out = 0;
  EXPECT_EQ(array->GetAt(99, &out), &out);
  EXPECT_EQ(out, 99);
  EXPECT_EQ(array->GetAt(100, &out), &out) << "the strided address past the last element";
  EXPECT_EQ(out, 0x77);
}

TEST(CZUBufferArray, RecordViewHandsOutAddressesInTheBuffer) {
  std::vector<unsigned char> buffer(120);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i / 12);
  std::unique_ptr<IZUArray> array(CArrayFactory().AllocAttachBufferArray(12, buffer.data(), 120));
  std::vector<unsigned char> out(12), probe(12, 5);
  EXPECT_EQ(array->GetSize(), 10u);
  EXPECT_EQ(array->GetAt(4, out.data()), buffer.data() + 48);
  EXPECT_EQ(out, std::vector<unsigned char>(12, 4));
  EXPECT_EQ(array->GetAt(10, out.data()), nullptr);
  EXPECT_EQ(array->GetLast(out.data()), buffer.data() + 108);
  EXPECT_EQ(array->UpperBound(probe.data()), 5u) << "the exact match";
}

TEST(CZUCrossBufferArray, RecordChannelCountsTheSpanAndSearchesByAddress) {
  constexpr int kSize = 16;
  std::vector<unsigned char> buffer(100 * 2 * kSize);  // 100 records, each followed by 16 bytes
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i / 32 + 1);
  std::unique_ptr<IZUArray> array(
      CArrayFactory().AllocAttachCrossBufferArray(kSize, buffer.data(), 1600, kSize));
  EXPECT_EQ(array->GetSize(), 200u) << "the span's record count, not the payload's";
  std::vector<unsigned char> out(kSize);
  EXPECT_EQ(array->GetAt(3, out.data()), buffer.data() + 96);
  EXPECT_EQ(out, std::vector<unsigned char>(kSize, 4));
  EXPECT_EQ(array->GetLast(out.data()), buffer.data() + 99 * 32) << "the last the span holds";
  // UpperBound compares the value's first four bytes with the records' addresses.
  auto low32 = [](const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); };
  const uint32_t base = low32(buffer.data());
  if (base < low32(buffer.data() + 199 * 32)) {  // the addresses do not wrap at 4 GiB
    std::vector<unsigned char> value(kSize, 0);
    for (const auto& [address, index] :
         {std::pair<uint32_t, uint64_t>{base + 5 * 32, 5}, {base - 1, 0}, {base + 199 * 32, 199}}) {
      std::memcpy(value.data(), &address, sizeof(address));
      EXPECT_EQ(array->UpperBound(value.data()), index) << address - base;
    }
  }
}

}  // namespace
