// The self-spilling arrays: where they move into files, what the move keeps, and how adds
// fail in both phases.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <vector>

#include "src/platform/platform.h"
#include "tests/support/fault_platform.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_values.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

// Elements an auto array keeps in memory before moving into files.
constexpr uint64_t kSpillThreshold = 8388608;

// An array is in files exactly when it describes files: in memory SaveDescription answers
// true and leaves its argument alone.
bool InFiles(IZUArray& array) {
  base::DictionaryValue* desc = nullptr;
  EXPECT_TRUE(array.SaveDescription(&desc));
  std::unique_ptr<base::DictionaryValue> owned(desc);
  return owned != nullptr;
}

template <typename T>
std::unique_ptr<IZUArray> MakeAuto(bool vector_flavour) {
  CArrayFactory factory;
  int code = static_cast<int>(sizeof(T));
  return std::unique_ptr<IZUArray>(vector_flavour ? factory.AllocAutoVectorArray(code)
                                                  : factory.AllocAutoDequeArray(code));
}

// Appends keys[i] one by one; the values ascend with duplicates for narrow types.
template <typename T>
void AppendOneByOne(IZUArray& array, const std::vector<T>& values, size_t from, size_t to) {
  for (size_t i = from; i < to; ++i) ASSERT_EQ(array.Append(&values[i]), kZuOk) << i;
}

template <typename T>
void ExpectContent(IZUArray& array, const std::vector<T>& values) {
  ASSERT_EQ(array.GetSize(), values.size());
  for (size_t i = 0; i < values.size(); ++i) {
    T out;
    ASSERT_NE(array.GetAt(i, &out), nullptr) << i;
    ASSERT_TRUE(out == values[i]) << "index " << i;
  }
}

template <typename T>
void ExpectExactSearches(IZUArray& array, const std::vector<T>& values, size_t probes) {
  // In files UpperBound at or above the last element answers the next segment's start.
  const bool in_files = InFiles(array);
  const uint64_t segment = 0x8000000 / sizeof(T);
  const uint64_t past_end = (values.size() / segment + 1) * segment;
  for (size_t p = 0; p < probes; ++p) {
    size_t i = (p * 7919 * 1031) % values.size();
    for (T probe : {values[i], MakeValue<T>(i / 2 * 3 + 1)}) {
      uint64_t lower = std::lower_bound(values.begin(), values.end(), probe) - values.begin();
      uint64_t upper = std::upper_bound(values.begin(), values.end(), probe) - values.begin();
      ASSERT_EQ(array.LowerBound(&probe), lower) << i;
      ASSERT_EQ(array.UpperBound(&probe), upper < values.size() || !in_files ? upper : past_end)
          << i;
      bool present = lower < values.size() && values[lower] == probe;
      ASSERT_EQ(array.Find(&probe), present ? lower : values.size()) << i;
    }
  }
}

// Keys 0, 1, 1, 2, 3, 3, ... (ascending with repeats) in the element type.
template <typename T>
std::vector<T> Ascending(size_t n) {
  std::vector<T> values(n);
  for (size_t i = 0; i < n; ++i)
    values[i] = MakeValue<T>(std::min<uint64_t>(i / 2 * 3, MaxKey<T>()));
  return values;
}

template <typename T>
void SpillAtThresholdKeepsEveryElement(bool vector_flavour) {
  TempDataDir dir;
  auto array = MakeAuto<T>(vector_flavour);
  std::vector<T> values = Ascending<T>(kSpillThreshold + 1);

  AppendOneByOne(*array, values, 0, kSpillThreshold);
  EXPECT_FALSE(InFiles(*array)) << "the threshold itself still fits in memory";
  EXPECT_EQ(dir.CountFiles(), 0);
  ExpectExactSearches(*array, std::vector<T>(values.begin(), values.end() - 1), 200);

  AppendOneByOne(*array, values, kSpillThreshold, kSpillThreshold + 1);
  EXPECT_TRUE(InFiles(*array)) << "the next append moves everything";
  EXPECT_GE(dir.CountFiles(), 1);
  ExpectContent(*array, values);
  ExpectExactSearches(*array, values, 200);
}

TEST(CZUAutoDequeArray, SpillAtThresholdKeepsEveryElement) {
  SpillAtThresholdKeepsEveryElement<uint16_t>(/*vector_flavour=*/false);
}

TEST(CZUAutoVectorArray, SpillAtThresholdKeepsEveryRecord) {
  SpillAtThresholdKeepsEveryElement<SimpleBigData<16>>(/*vector_flavour=*/true);
}

TEST(CZUAutoDequeArray, RangeLandingOnTheThresholdSpillsFirstAndStaysInFiles) {
  TempDataDir dir;
  auto array = MakeAuto<uint8_t>(false);
  std::vector<uint8_t> values(kSpillThreshold);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i >> 15);
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  EXPECT_TRUE(InFiles(*array));
  ExpectContent(*array, values);

  // One element short of the threshold stays in memory.
  auto short_one = MakeAuto<uint8_t>(false);
  ASSERT_EQ(short_one->AppendBuffer(values.data(), values.size() - 1), kZuOk);
  EXPECT_FALSE(InFiles(*short_one));

  // No way back: after Clear the next element goes to a file.
  array->Clear();
  EXPECT_EQ(array->GetSize(), 0u);
  uint8_t one = 1;
  ASSERT_EQ(array->Append(&one), kZuOk);
  base::DictionaryValue* desc = nullptr;
  ASSERT_TRUE(array->SaveDescription(&desc));
  ASSERT_NE(desc, nullptr);
  std::unique_ptr<base::DictionaryValue> owned(desc);
  base::ListValue* files = nullptr;
  ASSERT_TRUE(owned->GetList("files", &files));
  ASSERT_EQ(files->GetSize(), 1u);
  base::DictionaryValue* file = nullptr;
  ASSERT_TRUE(files->GetDictionary(0, &file));
  int size = 0;
  EXPECT_TRUE(file->GetInteger("size", &size));
  EXPECT_EQ(size, 1);
}

TEST(CZUAutoDequeArray, FailedMoveLeavesTheArrayEmptyInMemoryWithoutFiles) {
  TempDataDir dir;
  auto array = MakeAuto<int64_t>(false);
  std::vector<int64_t> values(kSpillThreshold);
  std::iota(values.begin(), values.end(), int64_t{-1000});
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size() - 1), kZuOk);
  ASSERT_EQ(array->Append(&values.back()), kZuOk);
  {
    FaultPlatform faults;
    faults.Fail(FaultOp::kCreateMapping, 3);  // the move's third growth step finds no room
    int64_t next = values.back() + 1;
    EXPECT_EQ(array->Append(&next), kZuNoSpace);
    EXPECT_GE(faults.Calls(FaultOp::kCreateMapping), 3);
  }
  EXPECT_EQ(array->GetSize(), 0u);
  EXPECT_FALSE(InFiles(*array));
  EXPECT_EQ(dir.CountFiles(), 0) << "the half-filled files are released";

  // The array is usable again, still in memory.
  int64_t fresh = 5;
  EXPECT_EQ(array->Append(&fresh), kZuOk);
  EXPECT_FALSE(InFiles(*array));
}

TEST(CZUAutoDequeArray, FailedAddAfterTheMoveClearsTheArray) {
  TempDataDir dir;
  auto array = MakeAuto<uint8_t>(false);
  std::vector<uint8_t> values(kSpillThreshold + 1, 7);
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  ASSERT_TRUE(InFiles(*array));
  FaultPlatform faults;
  faults.Fail(FaultOp::kCreateMapping, 1, /*forever=*/true);
  // Single appends fill the current 1 MiB chunk, then need a growth that is refused.
  int result = kZuOk;
  uint8_t v = 9;
  for (int i = 0; i < (1 << 20) + 1 && result == kZuOk; ++i) result = array->Append(&v);
  EXPECT_EQ(result, kZuNoSpace);
  EXPECT_EQ(array->GetSize(), 0u);
  EXPECT_TRUE(InFiles(*array)) << "a failed add empties the array but never moves it back";
}

TEST(CZUAutoDequeArray, DescriptionsLoadOnlyOnceInFiles) {
  TempDataDir dir;
  auto spilled = MakeAuto<uint32_t>(false);
  std::vector<uint32_t> values(kSpillThreshold + 100);
  std::iota(values.begin(), values.end(), 0u);
  ASSERT_EQ(spilled->AppendBuffer(values.data(), values.size()), kZuOk);
  base::DictionaryValue* raw = nullptr;
  ASSERT_TRUE(spilled->SaveDescription(&raw));
  std::unique_ptr<base::DictionaryValue> desc(raw);
  ASSERT_NE(desc, nullptr);

  // An array still in memory answers true and loads nothing.
  auto in_memory = MakeAuto<uint32_t>(true);
  EXPECT_TRUE(in_memory->LoadDescription(desc.get()));
  EXPECT_EQ(in_memory->GetSize(), 0u);
  EXPECT_FALSE(InFiles(*in_memory));

  // A file array takes the same description, through JSON text, and sees every element.
  std::unique_ptr<base::DictionaryValue> reread = base::ReadJsonDictionary(base::WriteJson(*desc));
  ASSERT_NE(reread, nullptr);
  CArrayFactory factory;
  std::unique_ptr<IZUArray> file_array(factory.AllocFileArray(4));
  ASSERT_TRUE(file_array->LoadDescription(reread.get()));
  ExpectContent(*file_array, values);
}

TEST(CZUAutoDequeArray, CoarseSearchesOnlyInFiles) {
  TempDataDir dir;
  auto array = MakeAuto<int64_t>(false);
  std::vector<int64_t> values(kSpillThreshold - 10);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i) * 4;
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  int64_t between = 4 * 1001 + 2;  // between elements 1001 and 1002
  EXPECT_EQ(array->LocateLowerBound(&between), 1002u);
  EXPECT_EQ(array->FindFloor(&between), 1001u);

  ASSERT_EQ(array->AppendBuffer(values.data(), 10), kZuOk);  // reaches the threshold: moves
  ASSERT_TRUE(InFiles(*array));
  // In files both answer from one-per-page samples: a sampled position, not the exact one.
  uint64_t located = array->LocateLowerBound(&between);
  uint64_t floor = array->FindFloor(&between);
  EXPECT_EQ(array->LowerBound(&between), 1002u);
  EXPECT_GE(located, 1002u);
  EXPECT_LE(floor, 1001u);
  uint64_t interval = zu::platform::Current().PageSize() / sizeof(int64_t);
  EXPECT_EQ(located % interval, 0u);
  EXPECT_EQ(floor % interval, 0u);
}

TEST(CZUAutoDequeArray, RecordsThatDifferOnlyInByteZeroAreNotFound) {
  // The order reads bytes 15..1 only, while Find tests exact equality: a record that differs
  // from the stored one in byte 0 sorts level with it and yet is not found.
  auto array = MakeAuto<SimpleBigData<16>>(false);
  SimpleBigData<16> stored{}, probe{};
  stored.data[5] = 7;
  probe = stored;
  probe.data[0] = 1;
  ASSERT_EQ(array->Append(&stored), kZuOk);
  EXPECT_EQ(array->LowerBound(&probe), 0u);
  EXPECT_EQ(array->UpperBound(&probe), 1u);
  EXPECT_EQ(array->Find(&probe), 1u);
  EXPECT_EQ(array->Find(&stored), 0u);
}

}  // namespace
}  // namespace zu_test
