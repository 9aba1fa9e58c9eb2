#include "src/memory/deque_array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <numeric>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

using zu::CZUDequeArrayOf;

// An iterator of a host that claims more elements than it can yield: GetCurrent turns null
// at `real` while positions run on to `count`.
class DryIter : public ArrayIterBase {
 public:
  DryIter(const uint32_t* data, unsigned int real, unsigned int count)
      : data_(data), real_(real), count_(count) {}
  void* GetCurrent() override { return GetAt(position_); }
  void* GetAt(unsigned int i) override {
    return i < real_ ? const_cast<uint32_t*>(data_ + i) : nullptr;
  }
  bool IsCurrentMarked() override { return false; }
  bool IsMarked(unsigned int) override { return false; }
  unsigned int GetCount() override { return count_; }
  bool IsEnd() override { return position_ >= count_; }
  void Next() override { position_ = std::min(position_ + 1, real_); }
  void Seek(unsigned int i) override { position_ = std::min(i, count_); }
  unsigned int GetPosition() override { return position_; }
  std::shared_ptr<ArrayIterBase> Clone() override {
    auto copy = std::make_shared<DryIter>(data_, real_, count_);
    copy->position_ = position_;
    return copy;
  }

 private:
  const uint32_t* data_;
  unsigned int real_;
  unsigned int count_;
  unsigned int position_ = 0;
};

TEST(CZUDequeArray, SecondBlockAndIndexLimits) {
  constexpr uint32_t kBlock = zu::kDequeBlockBytes;
  CZUDequeArrayOf<uint8_t> array;
  EXPECT_EQ(array.GetSize(), 0u);
  std::vector<uint8_t> bytes(kBlock + 1);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i % 251);
  bytes[kBlock] = 0xC3;
  ASSERT_EQ(array.AppendBuffer(bytes.data(), bytes.size()), kZuOk);
  ASSERT_EQ(array.GetSize(), kBlock + 1u);
  uint8_t out = 0;
  EXPECT_EQ(array.GetAt(kBlock, &out), &out);
  EXPECT_EQ(out, 0xC3);
  EXPECT_EQ(array.GetAt(kBlock + 1, &out), nullptr);
  EXPECT_EQ(array.GetAt(uint64_t{1} << 32, &out), nullptr);
  EXPECT_EQ(array.GetLast(&out), &out);
  EXPECT_EQ(out, 0xC3);

  std::vector<uint8_t> copy(5, 0);
  array.CopyOut(copy.data(), kBlock - 2, 5);  // crosses the block edge and stops at the end
  EXPECT_EQ(copy, (std::vector<uint8_t>{bytes[kBlock - 2], bytes[kBlock - 1], 0xC3, 0, 0}));
  array.CopyOut(copy.data(), kBlock + 5, 3);  // a start beyond the end copies nothing
  EXPECT_EQ(copy[0], bytes[kBlock - 2]);

  array.Clear();
  EXPECT_EQ(array.GetSize(), 0u);
  EXPECT_EQ(array.GetLast(&out), nullptr);
  uint8_t one = 9;
  EXPECT_EQ(array.Append(&one), kZuOk);
  EXPECT_EQ(array.GetAt(0, &out), &out);
  EXPECT_EQ(out, 9);
}

TEST(CZUDequeArray, RangesKeepOrderAndLeaveFirstAtLast) {
  CZUDequeArrayOf<uint32_t> array;
  std::vector<uint32_t> three = {30, 10, 20};
  SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(three.data()), 3, 4);
  auto last = first.Clone();
  last->Seek(3);
  ASSERT_EQ(array.AppendRange(&first, last.get()), kZuOk);
  EXPECT_EQ(first.GetPosition(), 3u);
  std::vector<uint32_t> out(3);
  array.CopyOut(out.data(), 0, 3);
  EXPECT_EQ(out, three);

  // A strided source (every other element) is walked element by element.
  std::vector<uint32_t> wide = {1, 99, 2, 99, 3, 99};
  SimpleDataIter<unsigned char> strided(reinterpret_cast<unsigned char*>(wide.data()), 3, 8);
  auto strided_end = strided.Clone();
  strided_end->Seek(3);
  ASSERT_EQ(array.AppendRange(&strided, strided_end.get()), kZuOk);
  EXPECT_EQ(strided.GetPosition(), 3u);
  out.resize(6);
  array.CopyOut(out.data(), 0, 6);
  EXPECT_EQ(out, (std::vector<uint32_t>{30, 10, 20, 1, 2, 3}));

  // Assign replaces everything.
  std::vector<uint32_t> fresh(1000);
  std::iota(fresh.begin(), fresh.end(), 5u);
  SimpleDataIter<unsigned char> from(reinterpret_cast<unsigned char*>(fresh.data()), 1000, 4);
  auto to = from.Clone();
  to->Seek(1000);
  ASSERT_EQ(array.Assign(&from, to.get()), kZuOk);
  EXPECT_EQ(from.GetPosition(), 1000u);
  ASSERT_EQ(array.GetSize(), 1000u);
  uint32_t probe = 505;
  EXPECT_EQ(array.Find(&probe), 500u);
  EXPECT_EQ(array.LowerBound(&probe), 500u);
  EXPECT_EQ(array.UpperBound(&probe), 501u);
}

TEST(CZUDequeArray, MalformedRangesFailSafely) {
  CZUDequeArrayOf<uint32_t> array;
  std::vector<uint32_t> values = {4, 5, 6, 7};
  SimpleDataIter<unsigned char> a(reinterpret_cast<unsigned char*>(values.data()), 4, 4);
  auto b = a.Clone();
  b->Seek(2);
  a.Seek(4);
  EXPECT_EQ(array.AppendRange(&a, b.get()), kZuFailed);  // last before first
  EXPECT_EQ(array.GetSize(), 0u);

  // A host iterator that runs dry after two of its four positions: what it yields arrives,
  // nothing is read through a null address.
  DryIter dry(values.data(), 2, 4);
  DryIter end(values.data(), 2, 4);
  end.Seek(4);
  EXPECT_EQ(array.AppendRange(&dry, &end), kZuOk);
  ASSERT_EQ(array.GetSize(), 2u);
  uint32_t out = 0;
  array.GetAt(1, &out);
  EXPECT_EQ(out, 5u);
}

TEST(CZUDequeArray, SearchesFollowElementOrder) {
  CZUDequeArrayOf<int64_t> array;
  int64_t probe = 0;
  EXPECT_EQ(array.LowerBound(&probe), 0u);
  EXPECT_EQ(array.UpperBound(&probe), 0u);
  EXPECT_EQ(array.Find(&probe), 0u);
  std::vector<int64_t> values = {-5, -1, 0, 0, 7};
  ASSERT_EQ(array.AppendBuffer(values.data(), values.size()), kZuOk);
  probe = -1;
  EXPECT_EQ(array.LowerBound(&probe), 1u);  // signed: -1 sorts before 0
  probe = 0;
  EXPECT_EQ(array.Find(&probe), 2u);
  EXPECT_EQ(array.UpperBound(&probe), 4u);
  EXPECT_EQ(array.FindFloor(&probe), 2u);
  probe = 3;
  EXPECT_EQ(array.FindFloor(&probe), 3u);
  EXPECT_EQ(array.FindNearest(&probe, 0), 4u);
  EXPECT_EQ(probe, 7);
}

// Which codes AllocDequeArray accepts, and the element size of what comes back.
TEST(CZUDequeArray, FactoryDispatch) {
  CArrayFactory factory;
  const struct {
    int code;
    int element_size;  // 0: null expected; above 8: record size
  } table[] = {{0, 1},       {1, 1},  {2, 2},         {3, 0},  {4, 4},   {5, 0},
               {8, 8},       {9, 0},  {16, 16},       {48, 0}, {64, 64}, {512, 512},
               {1024, 1024}, {-1, 0}, {INT32_MIN, 0}, {-16, 0}};
  for (const auto& row : table) {
    std::unique_ptr<IZUArray> array(factory.AllocDequeArray(row.code));
    if (row.element_size == 0) {
      EXPECT_EQ(array, nullptr) << "code " << row.code;
      continue;
    }
    ASSERT_NE(array, nullptr) << "code " << row.code;
    std::vector<unsigned char> in(row.element_size), out(row.element_size + 1, 0xEE);
    std::iota(in.begin(), in.end(), 1);
    ASSERT_EQ(array->Append(in.data()), kZuOk) << "code " << row.code;
    ASSERT_NE(array->GetAt(0, out.data()), nullptr);
    EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin())) << "code " << row.code;
    EXPECT_EQ(out[row.element_size], 0xEE) << "code " << row.code;  // nothing written beyond
  }
}

}  // namespace
