// The contract every mutable array kind shares, run over each kind and element type listed in
// support/array_kinds.h.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "tests/support/array_kinds.h"
#include "tests/support/test_values.h"

namespace zu_test {
namespace {

template <typename K>
class ArrayContract : public ::testing::Test {
 protected:
  using T = typename K::Element;

  void SetUp() override {
    if (K::kNeedsDataDirectory) {
      // A random name: tests run as parallel processes, and neither gtest's time-based seed
      // nor a heap address (fixed under ASan) tells two of them apart.
      std::random_device random;
      dir_ = std::filesystem::temp_directory_path() /
             ("zu-contract-" + std::to_string(random()) + "-" + std::to_string(random()));
      IZUArray::SetDataDirectory(dir_.wstring());
    }
    array_ = K::Make();
    ASSERT_NE(array_, nullptr);
  }

  void TearDown() override {
    array_.reset();
    if (!dir_.empty()) {
      IZUArray::SetDataDirectory(L"");
      std::error_code ignored;
      EXPECT_TRUE(!std::filesystem::exists(dir_) || std::filesystem::is_empty(dir_))
          << "files left behind in " << dir_;
      std::filesystem::remove_all(dir_, ignored);
    }
  }

  T Get(uint64_t i) {
    T out = MakeValue<T>(0);
    EXPECT_EQ(array_->GetAt(i, &out), &out) << "index " << i;
    return out;
  }

  // Fills the array with `values`, half one by one and half as one buffer.
  void Fill(const std::vector<T>& values) {
    size_t half = values.size() / 2;
    for (size_t i = 0; i < half; ++i) ASSERT_EQ(array_->Append(&values[i]), kZuOk);
    ASSERT_EQ(array_->AppendBuffer(values.data() + half, values.size() - half), kZuOk);
    ASSERT_EQ(array_->GetSize(), values.size());
  }

  std::filesystem::path dir_;
  std::unique_ptr<IZUArray> array_;
};

TYPED_TEST_SUITE(ArrayContract, ContractKinds);

TYPED_TEST(ArrayContract, EmptyArrayAnswersWithoutTouchingOutputs) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  T sentinel = MakeValue<T>(7);
  T out = sentinel;
  EXPECT_EQ(a.GetSize(), 0u);
  EXPECT_EQ(a.GetAt(0, &out), nullptr);
  EXPECT_EQ(a.LowerBound(&sentinel), 0u);
  EXPECT_EQ(a.UpperBound(&sentinel), 0u);
  EXPECT_EQ(a.Find(&sentinel), 0u);
  EXPECT_EQ(a.LocateLowerBound(&sentinel), 0u);
  EXPECT_EQ(a.FindFloor(&sentinel), 0u);
  EXPECT_EQ(a.FindNearest(&out, 5), 0u);
  EXPECT_TRUE(out == sentinel);
  a.CopyOut(&out, 0, 4);
  EXPECT_TRUE(out == sentinel);
  EXPECT_EQ(a.AppendBuffer(&sentinel, 0), kZuOk);
  EXPECT_EQ(a.GetSize(), 0u);
}

TYPED_TEST(ArrayContract, AppendedElementsReadBackInOrder) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<T> values = ValuesOf<T>(AscendingKeys<T>(3001));
  this->Fill(values);
  for (size_t i = 0; i < values.size(); ++i) ASSERT_TRUE(this->Get(i) == values[i]) << i;
  T out = MakeValue<T>(1);
  EXPECT_EQ(a.GetLast(&out), &out);
  EXPECT_TRUE(out == values.back());
  EXPECT_EQ(a.GetAt(values.size(), &out), nullptr);
  EXPECT_EQ(a.GetAt(uint64_t{1} << 32, &out), nullptr);
}

TYPED_TEST(ArrayContract, SearchesAgreeWithStandardBisection) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<uint64_t> keys = AscendingKeys<T>(2500);
  std::vector<T> values = ValuesOf<T>(keys);
  this->Fill(values);
  const uint64_t n = values.size();
  // Probe every stored key and the gaps on both sides of it.
  for (size_t i = 0; i < keys.size(); i += 7) {
    for (uint64_t probe_key : {keys[i], keys[i] + 1, keys[i] == 0 ? 0 : keys[i] - 1}) {
      if (probe_key > MaxKey<T>()) continue;
      T probe = MakeValue<T>(probe_key);
      uint64_t lower = std::lower_bound(values.begin(), values.end(), probe) - values.begin();
      uint64_t upper = std::upper_bound(values.begin(), values.end(), probe) - values.begin();
      bool present = lower < n && values[lower] == probe;
      EXPECT_EQ(a.LowerBound(&probe), lower) << probe_key;
      EXPECT_EQ(a.UpperBound(&probe),
                upper < n ? upper : TypeParam::template UpperBoundPastTheEnd<T>(n))
          << probe_key;
      EXPECT_EQ(a.Find(&probe), present ? lower : n) << probe_key;
      if (!TypeParam::kCoarseSearches) {
        EXPECT_EQ(a.LocateLowerBound(&probe), lower);
        uint64_t floor = lower >= n ? n - 1 : present ? lower : lower - 1;
        EXPECT_EQ(a.FindFloor(&probe), floor) << probe_key;
        T nearest = probe;
        EXPECT_EQ(a.FindNearest(&nearest, 0), lower);
        EXPECT_TRUE(nearest == (lower < n ? values[lower] : probe));
      }
    }
  }
  T beyond = MakeValue<T>(MaxKey<T>());
  if (values.back() < beyond) {
    EXPECT_EQ(a.LowerBound(&beyond), n);
    EXPECT_EQ(a.UpperBound(&beyond), TypeParam::template UpperBoundPastTheEnd<T>(n));
    EXPECT_EQ(a.Find(&beyond), n);
  }
}

TYPED_TEST(ArrayContract, RangesLeaveFirstAtLastAndAssignReplaces) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<T> first_batch = ValuesOf<T>({1, 2, 3});
  std::vector<T> second_batch = ValuesOf<T>({4, 5, 6, 7, 8});
  ASSERT_EQ(a.AppendBuffer(first_batch.data(), first_batch.size()), kZuOk);

  SimpleDataIter<unsigned char> it(reinterpret_cast<unsigned char*>(second_batch.data()), 5,
                                   sizeof(T));
  it.Seek(1);
  auto last = it.Clone();
  last->Seek(4);
  ASSERT_EQ(a.AppendRange(&it, last.get()), kZuOk);
  EXPECT_EQ(it.GetPosition(), 4u);
  ASSERT_EQ(a.GetSize(), 6u);
  EXPECT_TRUE(this->Get(3) == second_batch[1]);
  EXPECT_TRUE(this->Get(5) == second_batch[3]);

  it.Seek(0);
  last->Seek(2);
  ASSERT_EQ(a.Assign(&it, last.get()), kZuOk);
  EXPECT_EQ(it.GetPosition(), 2u);
  ASSERT_EQ(a.GetSize(), 2u);
  EXPECT_TRUE(this->Get(0) == second_batch[0]);
  EXPECT_TRUE(this->Get(1) == second_batch[1]);

  // A range whose end lies before its start adds nothing and reports a failure code.
  it.Seek(3);
  last->Seek(1);
  EXPECT_NE(a.AppendRange(&it, last.get()), kZuOk);
}

// Single appends land after everything added before them: after the ranges that a deque
// places from the front (a range into an empty array, Assign), across the block boundary that
// follows such a range, after Clear, and around ranges added at the back.
TYPED_TEST(ArrayContract, SingleAppendsFollowRangesAndClears) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<T> values = ValuesOf<T>(AscendingKeys<T>(2000));
  std::vector<T> expected;
  auto add_range = [&](size_t from, size_t to, bool assign) {
    SimpleDataIter<unsigned char> it(reinterpret_cast<unsigned char*>(values.data() + from),
                                     static_cast<unsigned int>(to - from), sizeof(T));
    auto last = it.Clone();
    last->Seek(static_cast<unsigned int>(to - from));
    ASSERT_EQ(assign ? a.Assign(&it, last.get()) : a.AppendRange(&it, last.get()), kZuOk);
    if (assign) expected.clear();
    expected.insert(expected.end(), values.begin() + from, values.begin() + to);
  };
  auto add_each = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      ASSERT_EQ(a.Append(&values[i]), kZuOk) << i;
      expected.push_back(values[i]);
    }
  };
  auto expect_content = [&] {
    ASSERT_EQ(a.GetSize(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_TRUE(this->Get(i) == expected[i]) << i;
  };

  ASSERT_NO_FATAL_FAILURE(add_range(0, 100, false));
  ASSERT_NO_FATAL_FAILURE(add_each(100, 400));
  ASSERT_NO_FATAL_FAILURE(expect_content());
  ASSERT_NO_FATAL_FAILURE(add_range(400, 450, true));
  ASSERT_NO_FATAL_FAILURE(add_each(450, 700));
  ASSERT_NO_FATAL_FAILURE(expect_content());
  a.Clear();
  expected.clear();
  ASSERT_NO_FATAL_FAILURE(add_each(700, 900));
  ASSERT_NO_FATAL_FAILURE(add_range(900, 1000, false));
  ASSERT_NO_FATAL_FAILURE(add_each(1000, 2000));
  ASSERT_NO_FATAL_FAILURE(expect_content());
}

TYPED_TEST(ArrayContract, CopyOutStopsAtTheEnd) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<T> values = ValuesOf<T>({10, 20, 30, 40, 50});
  this->Fill(values);
  T sentinel = MakeValue<T>(99);
  std::vector<T> dest(10, sentinel);
  a.CopyOut(dest.data(), 2, 10);
  EXPECT_TRUE(dest[0] == values[2]);
  EXPECT_TRUE(dest[2] == values[4]);
  EXPECT_TRUE(dest[3] == sentinel);
  std::fill(dest.begin(), dest.end(), sentinel);
  a.CopyOut(dest.data(), 5, 3);
  EXPECT_TRUE(dest[0] == sentinel);
  a.CopyOut(dest.data(), 0, 2);
  EXPECT_TRUE(dest[1] == values[1]);
  EXPECT_TRUE(dest[2] == sentinel);
}

TYPED_TEST(ArrayContract, SetAtOverwritesOnlyInsideTheArrayAndClearResets) {
  using T = typename TestFixture::T;
  IZUArray& a = *this->array_;
  std::vector<T> values = ValuesOf<T>({1, 2, 3, 4});
  this->Fill(values);
  T replacement = MakeValue<T>(9);
  a.SetAt(3, &replacement);
  a.SetAt(4, &replacement);
  a.SetAt(uint64_t{1} << 32, &replacement);
  EXPECT_EQ(a.GetSize(), 4u);
  EXPECT_TRUE(this->Get(3) == replacement);
  EXPECT_TRUE(this->Get(2) == values[2]);

  a.Clear();
  EXPECT_EQ(a.GetSize(), 0u);
  ASSERT_EQ(a.Append(&replacement), kZuOk);
  EXPECT_EQ(a.GetSize(), 1u);
  EXPECT_TRUE(this->Get(0) == replacement);
}

}  // namespace
}  // namespace zu_test
