// The typed header-only API over the array interface.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/array.h"

namespace zu_test {

// Stands in for arrays too large to make in a test: element i is i, and the calls that carry
// 32-bit counts and starts are recorded. AppendBuffer keeps only the low 32 bits of a count, as
// the interface does. (Its element width is a member: the compiler takes the fake for the only
// array there is, and would check every other array's reads against a fixed int64_t.)
class HugeFake : public IZUArray {
 public:
  explicit HugeFake(uint64_t size) : size_(size) {}
  void* GetAt(uint64_t index, void* out) override {
    if (index >= size_) return nullptr;
    const auto value = static_cast<int64_t>(index);
    std::memcpy(out, &value, width_);
    return out;
  }
  int AppendBuffer(const void* data, uint64_t count) override {
    pieces.emplace_back(reinterpret_cast<uintptr_t>(data), count);
    if (pieces.size() > fail_after) return kZuFailed;
    size_ += static_cast<uint32_t>(count);
    return kZuOk;
  }
  void CopyOut(void* dest, int start, unsigned int count) override {
    copies.emplace_back(static_cast<unsigned int>(start), count);
    for (unsigned int k = 0; k < count; ++k) {
      static_cast<int64_t*>(dest)[k] = int64_t{static_cast<unsigned int>(start)} + k;
    }
  }
  uint64_t GetSize() override { return size_; }
  int Append(const void*) override { return kZuFailed; }
  void SetAt(uint64_t, const void*) override {}
  void* GetLast(void*) override { return nullptr; }
  uint64_t Find(const void*) override { return 0; }
  uint64_t UpperBound(const void*) override { return 0; }
  uint64_t LowerBound(const void*) override { return 0; }
  uint64_t FindNearest(void*, uint64_t) override { return 0; }
  uint64_t LocateLowerBound(const void*) override { return 0; }
  uint64_t FindFloor(const void*) override { return 0; }
  int Assign(ArrayIterBase*, ArrayIterBase*) override { return kZuFailed; }
  int AppendRange(ArrayIterBase*, ArrayIterBase*) override { return kZuFailed; }
  void Clear() override {}
  bool LoadDescription(const base::DictionaryValue*) override { return true; }
  bool SaveDescription(base::DictionaryValue**) override { return true; }

  std::vector<std::pair<uintptr_t, uint64_t>> pieces;  // (address, count) of each AppendBuffer
  std::vector<std::pair<uint64_t, uint64_t>> copies;   // (start, count) of each CopyOut
  size_t fail_after = SIZE_MAX;                        // AppendBuffer calls that succeed

 private:
  uint64_t size_;
  size_t width_ = sizeof(int64_t);
};

}  // namespace zu_test

namespace {

using zu_test::HugeFake;

static_assert(zu::is_integer_element<int64_t>::value, "int64_t is an element type");
static_assert(!zu::is_integer_element<int32_t>::value, "signed 32-bit is not");
static_assert(zu::is_record_element<SimpleBigData<64>>::value, "records are elements");

TEST(TypedArray, ContainerFeel) {
  auto a = zu::make_vector_array<int64_t>();
  ASSERT_TRUE(a);
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(a.back(), std::nullopt);
  EXPECT_EQ(a.append(-3), zu::Status::ok);
  EXPECT_EQ(a.append(std::vector<int64_t>{0, 4}), zu::Status::ok);
  EXPECT_EQ(a.append(std::array<int64_t, 1>{4}), zu::Status::ok);
  EXPECT_EQ(a.append({9}), zu::Status::ok);
  EXPECT_EQ(a.size(), 5u);
  EXPECT_EQ(a.at(0), -3);
  EXPECT_EQ(a[4], 9);
  EXPECT_EQ(a.at(5), std::nullopt);
  EXPECT_EQ(a.back(), 9);
  EXPECT_EQ(a.lower_bound(4), 2u);
  EXPECT_EQ(a.upper_bound(4), 4u);
  EXPECT_EQ(a.find(5), 5u);
  EXPECT_EQ(a.find_floor(5), 3u);
  int64_t nearest = 5;
  EXPECT_EQ(a.find_nearest(nearest, 0), 4u);
  EXPECT_EQ(nearest, 9);
  EXPECT_EQ(a.find_nearest(10, 0), std::make_pair(uint64_t{5}, int64_t{10}));

  std::vector<int64_t> seen(a.begin(), a.end());
  EXPECT_EQ(seen, (std::vector<int64_t>{-3, 0, 4, 4, 9}));
  int64_t window[4] = {};
  EXPECT_EQ(a.copy_out(3, window, 4), 2u);
  EXPECT_EQ(window[1], 9);
  EXPECT_EQ(a.copy_out(7, window, 4), 0u);

  zu::Array<int64_t> moved = std::move(a);
  EXPECT_FALSE(a);
  EXPECT_EQ(moved.size(), 5u);
  EXPECT_EQ(moved.save_description(), "");  // memory arrays describe no files
}

TEST(TypedArray, DescriptionsTravelAsJson) {
  zu_test::TempDataDir dir;
  auto source = zu::make_file_array<uint32_t>();
  std::vector<uint32_t> values(300000);
  std::iota(values.begin(), values.end(), 7u);
  ASSERT_EQ(source.append(values.data(), values.size()), zu::Status::ok);
  std::string json = source.save_description();
  ASSERT_NE(json.find("\"files\""), std::string::npos);

  auto copy = zu::make_file_array<uint32_t>();
  ASSERT_TRUE(copy.load_description(json));
  ASSERT_EQ(copy.size(), values.size());
  EXPECT_EQ(copy.at(123456), values[123456]);
  EXPECT_FALSE(copy.load_description("{not json"));
}

// Nearest by value answers the element at the index it returns, also where file storage answers
// from the file's data and leaves the probe alone (a tolerance of 0 accepts no sample).
TEST(TypedArray, NearestByValueIsTheElementOnEveryKind) {
  zu_test::TempDataDir dir;
  for (auto make : {zu::make_vector_array<uint32_t>, zu::make_file_array<uint32_t>}) {
    zu::Array<uint32_t> tens = make();
    std::vector<uint32_t> values(5000);
    for (uint32_t i = 0; i < values.size(); ++i) values[i] = 10 * i;
    ASSERT_EQ(tens.append(values), zu::Status::ok);
    EXPECT_EQ(tens.find_nearest(12345u, 0), std::make_pair(uint64_t{1235}, 12350u));
  }
}

TEST(TypedArray, CountsAndStartsBeyond32Bits) {
  auto* fake = new HugeFake(0);
  zu::Array<int64_t> appended(fake);
  const uint64_t count = (uint64_t{1} << 32) + 5;
  int64_t anchor = 0;  // never read: the fake only records where each piece starts
  ASSERT_EQ(appended.append(&anchor, count), zu::Status::ok);
  EXPECT_EQ(appended.size(), count);
  for (size_t k = 0; k < fake->pieces.size(); ++k) {
    EXPECT_LT(fake->pieces[k].second, uint64_t{1} << 31) << "a range count is signed 32-bit";
    if (k > 0) {
      EXPECT_EQ(fake->pieces[k].first - fake->pieces[k - 1].first,
                static_cast<uintptr_t>(fake->pieces[k - 1].second * sizeof(int64_t)));
    }
  }

  auto* big = new HugeFake(uint64_t{1} << 33);
  zu::Array<int64_t> read(big);
  int64_t window[4] = {};
  const uint64_t past_int = (uint64_t{1} << 31) + 7, last_start = (uint64_t{1} << 32) - 2;
  EXPECT_EQ(read.copy_out(past_int, window, 3), 3u);
  EXPECT_EQ(window[2], static_cast<int64_t>(past_int + 2));
  EXPECT_EQ(read.copy_out(last_start, window, 4), 4u);  // one call across 2^32
  EXPECT_EQ(window[3], static_cast<int64_t>(last_start + 3));
  EXPECT_EQ(big->copies,
            (std::vector<std::pair<uint64_t, uint64_t>>{{past_int, 3}, {last_start, 4}}));
  EXPECT_EQ(read.copy_out(uint64_t{1} << 32, window, 2), 2u);  // only element reads reach here
  EXPECT_EQ(window[1], static_cast<int64_t>((uint64_t{1} << 32) + 1));
  EXPECT_EQ(big->copies.size(), 2u);
  EXPECT_EQ(read[(uint64_t{1} << 33) - 1], static_cast<int64_t>((uint64_t{1} << 33) - 1));
}

TEST(TypedArray, AppenderHandsOverBlocksAndFlushesOnDestruction) {
  auto a = zu::make_deque_array<int64_t>();
  const uint64_t n = 2 * zu::Appender<int64_t>::kBlockLength + 3;
  {
    auto out = a.appender();
    for (uint64_t i = 0; i < n; ++i) out.push_back(static_cast<int64_t>(i));
    EXPECT_EQ(a.size(), 2 * zu::Appender<int64_t>::kBlockLength);  // the rest is staged
    EXPECT_EQ(out.flush(), zu::Status::ok);
    out.push_back(-1);
  }
  ASSERT_EQ(a.size(), n + 1);
  EXPECT_EQ(a[n - 1], static_cast<int64_t>(n - 1));
  EXPECT_EQ(a.back(), -1);

  const int64_t one = 1;
  auto view = zu::attach(&one, 1);
  { view.appender().push_back(1); }  // the view refuses; the destructor must not throw
  auto refused = view.appender();
  refused.push_back(1);
  EXPECT_EQ(refused.flush(), zu::Status::failed);  // the view's refusal
}

// A failed hand-over is the appender's answer from then on, and nothing more is handed over:
// the array has lost elements.
TEST(TypedArray, AppenderStopsAtTheFirstFailure) {
  auto* fake = new HugeFake(0);
  fake->fail_after = 1;
  zu::Array<int64_t> a(fake);
  auto out = a.appender();
  for (uint64_t i = 0; i < 3 * zu::Appender<int64_t>::kBlockLength + 1; ++i) out.push_back(0);
  EXPECT_EQ(out.flush(), zu::Status::failed);
  EXPECT_EQ(fake->pieces.size(), 2u);
}

// A file array without a data directory drops a single append and still answers success; the
// typed front end reports what the size shows.
TEST(TypedArray, AnAppendThatKeepsLessIsNoSpace) {
  const std::wstring previous = IZUArray::GetDataDirectory();
  IZUArray::SetDataDirectory(L"");
  auto a = zu::make_file_array<int64_t>();
  EXPECT_EQ(a.append(1), zu::Status::no_space);
  EXPECT_EQ(a.append({2, 3}), zu::Status::no_space);
  auto out = a.appender();
  out.push_back(4);
  EXPECT_EQ(out.flush(), zu::Status::no_space);
  EXPECT_EQ(a.size(), 0u);
  IZUArray::SetDataDirectory(previous);
}

TEST(TypedArray, AttachViewsTheCallersBuffer) {
  std::vector<uint16_t> buffer = {5, 6, 7};
  auto view = zu::attach(buffer.data(), buffer.size());
  ASSERT_TRUE(view);
  EXPECT_EQ(view.size(), 3u);
  buffer[1] = 60;  // no copy: the view sees the caller's change
  EXPECT_EQ(view.at(1), 60);
  EXPECT_EQ(view.at(3), std::nullopt);
}

}  // namespace
