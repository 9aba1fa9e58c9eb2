// The self-spilling arrays: where they move into files, what the move keeps and what changes
// with it, and the record order through an array. (How their adds fail in both phases: the
// fault sweep.)
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "tests/support/array_model.h"
#include "tests/support/temp_dir.h"

namespace zu_test {
namespace {

// Elements an auto array keeps in memory before moving into files.
constexpr uint64_t kSpillThreshold = 8388608;

// An array is in files exactly when it describes files.
std::unique_ptr<base::DictionaryValue> Description(IZUArray& array) {
  base::DictionaryValue* desc = nullptr;
  EXPECT_TRUE(array.SaveDescription(&desc));
  return std::unique_ptr<base::DictionaryValue>(desc);
}
bool InFiles(IZUArray& array) { return Description(array) != nullptr; }

template <typename T>
std::unique_ptr<IZUArray> MakeAuto(bool vector_flavour) {
  const int code = static_cast<int>(sizeof(T));
  return std::unique_ptr<IZUArray>(vector_flavour ? CArrayFactory().AllocAutoVectorArray(code)
                                                  : CArrayFactory().AllocAutoDequeArray(code));
}

template <typename T>
void ExpectContent(IZUArray& array, const std::vector<T>& values) {
  ASSERT_EQ(array.GetSize(), values.size());
  std::vector<T> back(values.size());
  array.CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
  ASSERT_TRUE(back == values);
}

// Exact searches for a few hundred stored and absent values.
template <typename T>
void ExpectExactSearches(IZUArray& array, const std::vector<T>& values) {
  for (size_t p = 0; p < 300; ++p) {
    const size_t i = (p * 7919 * 1031) % values.size();
    for (T probe : {values[i], Keys<T>::Make(std::min<uint64_t>(i / 2 * 3 + 1, Keys<T>::Max()))}) {
      const uint64_t lower = std::lower_bound(values.begin(), values.end(), probe) - values.begin();
      ASSERT_EQ(array.LowerBound(&probe), lower) << i;
      ASSERT_EQ(array.Find(&probe),
                lower < values.size() && values[lower] == probe ? lower : values.size());
    }
  }
}

template <typename T>
void SingleAppendsMoveOnePastTheThreshold(bool vector_flavour) {
  TempDataDir dir;
  auto array = MakeAuto<T>(vector_flavour);
  std::vector<T> values(kSpillThreshold + 1);
  for (size_t i = 0; i < values.size(); ++i)
    values[i] = Keys<T>::Make(std::min<uint64_t>(i / 2 * 3, Keys<T>::Max()));
  for (size_t i = 0; i < kSpillThreshold; ++i) ASSERT_EQ(array->Append(&values[i]), kZuOk);
  EXPECT_FALSE(InFiles(*array)) << "the threshold itself still fits in memory";
  EXPECT_EQ(dir.CountFiles(), 0);
  ASSERT_EQ(array->Append(&values.back()), kZuOk);
  EXPECT_TRUE(InFiles(*array)) << "the next append moves everything";
  ExpectContent(*array, values);
  ExpectExactSearches(*array, values);
}

TEST(CZUAutoDequeArray, SingleAppendsMoveOnePastTheThreshold) {
  SingleAppendsMoveOnePastTheThreshold<uint16_t>(false);
}
TEST(CZUAutoVectorArray, SingleAppendsMoveOnePastTheThreshold) {
  SingleAppendsMoveOnePastTheThreshold<SimpleBigData<16>>(true);
}

// A range that reaches the threshold moves before it is added; searches turn sample-granular,
// the description serves a file array, and the array never moves back.
TEST(CZUAutoDequeArray, ARangeReachingTheThresholdMovesForGood) {
  TempDataDir dir;
  auto array = MakeAuto<int64_t>(false);
  std::vector<int64_t> values(kSpillThreshold);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i) * 4 - 400;
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size() - 10), kZuOk);
  EXPECT_FALSE(InFiles(*array));
  int64_t between = values[1001] + 2;
  EXPECT_EQ(array->LocateLowerBound(&between), 1002u);
  EXPECT_EQ(array->FindFloor(&between), 1001u);
  ASSERT_EQ(array->AppendBuffer(values.data() + values.size() - 10, 10), kZuOk);
  ASSERT_TRUE(InFiles(*array));
  ExpectContent(*array, values);
  const uint64_t interval = PageBytes() / sizeof(int64_t);
  EXPECT_EQ(array->LowerBound(&between), 1002u);
  EXPECT_EQ(array->LocateLowerBound(&between), (1002 + interval - 1) / interval * interval);
  EXPECT_EQ(array->FindFloor(&between), 1001 / interval * interval);

  // The description, as JSON text, loads into a file array; an array in memory ignores it.
  auto reread = base::ReadJsonDictionary(base::WriteJson(*Description(*array)));
  std::unique_ptr<IZUArray> file_array(CArrayFactory().AllocFileArray(8));
  ASSERT_TRUE(file_array->LoadDescription(reread.get()));
  ExpectContent(*file_array, values);
  file_array.reset();  // both named the same files; the original deletes them again
  auto in_memory = MakeAuto<int64_t>(true);
  EXPECT_TRUE(in_memory->LoadDescription(reread.get()));
  EXPECT_EQ(in_memory->GetSize(), 0u);

  array->Clear();
  ASSERT_EQ(array->Append(&between), kZuOk);
  base::ListValue* files = nullptr;
  base::DictionaryValue* file = nullptr;
  int size = 0;
  auto desc = Description(*array);
  ASSERT_TRUE(desc && desc->GetList("files", &files) && files->GetDictionary(0, &file));
  EXPECT_TRUE(file->GetInteger("size", &size));
  EXPECT_EQ(size, 1) << "after Clear the next element goes to a file";
}

TEST(CZUAutoDequeArray, RecordsThatDifferOnlyInByteZeroAreLevelButNotEqual) {
  auto array = MakeAuto<SimpleBigData<16>>(false);
  SimpleBigData<16> stored = Keys<SimpleBigData<16>>::Make(7), probe = stored;
  probe.data[0] = 1;
  ASSERT_EQ(array->Append(&stored), kZuOk);
  EXPECT_EQ(array->LowerBound(&probe), 0u);
  EXPECT_EQ(array->UpperBound(&probe), 1u);
  EXPECT_EQ(array->Find(&probe), 1u);
  EXPECT_EQ(array->Find(&stored), 0u);
}

}  // namespace
}  // namespace zu_test
