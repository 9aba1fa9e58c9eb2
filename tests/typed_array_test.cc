// The typed header-only API over the array interface.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/array.h"

namespace {

static_assert(zu::is_integer_element<int64_t>::value, "int64_t is an element type");
static_assert(!zu::is_integer_element<int32_t>::value, "signed 32-bit is not");
static_assert(zu::is_record_element<SimpleBigData<64>>::value, "records are elements");

TEST(TypedArray, ContainerFeel) {
  auto a = zu::make_vector_array<int64_t>();
  ASSERT_TRUE(a);
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(a.back(), std::nullopt);
  EXPECT_EQ(a.append(-3), zu::Status::ok);
  std::vector<int64_t> more = {0, 4, 4, 9};
  EXPECT_EQ(a.append(more.data(), more.size()), zu::Status::ok);
  EXPECT_EQ(a.size(), 5u);
  EXPECT_EQ(a.at(0), -3);
  EXPECT_EQ(a.at(5), std::nullopt);
  EXPECT_EQ(a.back(), 9);
  EXPECT_EQ(a.lower_bound(4), 2u);
  EXPECT_EQ(a.upper_bound(4), 4u);
  EXPECT_EQ(a.find(5), 5u);
  EXPECT_EQ(a.find_floor(5), 3u);
  int64_t nearest = 5;
  EXPECT_EQ(a.find_nearest(nearest, 0), 4u);
  EXPECT_EQ(nearest, 9);

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
