// The file array's own rules beyond the contract model: the model again with one-chunk read views,
// the tolerance of FindNearest, SetAt outside the last chunk, the write-conflict guard, its
// files' life cycle, and segment borders.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/array_model.h"
#include "tests/support/fault_platform.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

// One chunk (a view, the growth step) and one segment (a file) of elements of T.
template <typename T>
constexpr uint64_t kChunk = (uint64_t{1} << 20) / sizeof(T);
template <typename T>
constexpr uint64_t kSegment = (uint64_t{1} << 27) / sizeof(T);
// Page samples: one element per page.
template <typename T>
uint64_t Interval() {
  return PageBytes() / sizeof(T);
}

template <typename T>
std::unique_ptr<IZUArray> MakeFileArray() {
  return std::unique_ptr<IZUArray>(CArrayFactory().AllocFileArray(static_cast<int>(sizeof(T))));
}

template <typename T>
std::vector<T> ReadAll(IZUArray& array) {
  std::vector<T> out(array.GetSize());
  if (!out.empty()) array.CopyOut(out.data(), 0, static_cast<unsigned int>(out.size()));
  return out;
}

TEST(CZUFileArray, ToleranceIsStrictAndSetAtWritesTheFileOnlyInTheLastChunk) {
  TempDataDir dir;
  auto array = MakeFileArray<uint32_t>();
  const uint32_t chunk = kChunk<uint32_t>, interval = static_cast<uint32_t>(Interval<uint32_t>());
  std::vector<uint32_t> v(3 * chunk);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint32_t>(i * 10);
  ASSERT_EQ(array->AppendBuffer(v.data(), v.size()), kZuOk);
  uint32_t x = v[interval] + 5;  // 5 above the sample before it
  EXPECT_EQ(array->FindNearest(&x, 5), interval + 1u);
  EXPECT_EQ(x, v[interval] + 5);
  EXPECT_EQ(array->FindNearest(&x, 6), interval);
  EXPECT_EQ(x, v[interval]);
  x = v[2 * interval] - 3;  // 3 below the sample after it
  EXPECT_EQ(array->FindNearest(&x, 4), 2u * interval);
  x = v[chunk] - 2;  // past every sample of a chunk: the next chunk's boundary sample
  EXPECT_EQ(array->FindNearest(&x, 3), chunk);
  EXPECT_EQ(x, v[chunk]);

  // Outside the last chunk a write reaches the sample, not the file: reads answered from the
  // sample see it, copies from the file do not (even where reads went straight to the file
  // before). In the last chunk both do.
  uint32_t out = 0;
  for (uint32_t index : {interval, 3 * chunk - 7}) {
    EXPECT_EQ(*static_cast<uint32_t*>(array->GetAt(index, &out)), v[index]);
    x = v[index] + 1;
    array->SetAt(index, &x);
    EXPECT_EQ(*static_cast<uint32_t*>(array->GetAt(index, &out)), x);
    array->CopyOut(&out, static_cast<int>(index), 1);
    EXPECT_EQ(out, index < 2 * chunk ? v[index] : x) << index;
  }
}

// The contract model over file storage whose read views are one chunk long, as on Windows and in
// 32-bit builds, even where the OS backend lets a read view cover the whole file.
TEST(CZUFileArray, BehavesLikeTheModelWithChunkReadViews) {
  TempDataDir dir;
  FaultPlatform faults;
  faults.UseChunkReadViews(true);
  for (uint64_t seed : {1, 2}) {
    RandomInput in16(seed), in64(seed);
    auto make16 = [] { return CArrayFactory().AllocFileArray(2); };
    auto make64 = [] { return CArrayFactory().AllocFileArray(8); };
    EXPECT_EQ((ArrayModel<uint16_t, RandomInput>(in16, make16, Storage::kFile).Run()), "") << seed;
    EXPECT_EQ((ArrayModel<int64_t, RandomInput>(in64, make64, Storage::kFile).Run()), "") << seed;
  }
}

// Walks a vector; reading the element at `throw_at` throws.
class ThrowingIter : public SimpleDataIter<unsigned char> {
 public:
  ThrowingIter(std::vector<uint16_t>& values, unsigned int throw_at)
      : SimpleDataIter(reinterpret_cast<unsigned char*>(values.data()),
                       static_cast<unsigned int>(values.size()), 2),
        throw_at_(throw_at) {}
  void* GetCurrent() override {
    if (GetPosition() == throw_at_) throw std::runtime_error("source failed");
    return SimpleDataIter::GetCurrent();
  }
  std::shared_ptr<ArrayIterBase> Clone() override { return std::make_shared<ThrowingIter>(*this); }

 private:
  unsigned int throw_at_;
};

int g_conflicts = 0;

// A source that fails inside a whole chunk costs one element and one diagnostic; anywhere else
// the error ends the add (code 1) and keeps the elements before it.
TEST(CZUFileArray, WriteConflictSkipsOneElementOfAWholeChunk) {
  TempDataDir dir;
  zu::platform::SetDiagnosticSink(
      [](const char* message) { g_conflicts += std::string(message) == "write conflict"; });
  std::vector<uint16_t> values(kChunk<uint16_t> + 10);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint16_t>(i * 7 + 1);
  auto array = MakeFileArray<uint16_t>();
  ThrowingIter first(values, 777), last(values, 777);
  last.Seek(static_cast<unsigned int>(values.size()));
  EXPECT_EQ(array->AppendRange(&first, &last), kZuOk);
  EXPECT_EQ(g_conflicts, 1);
  EXPECT_EQ(first.GetPosition(), values.size());
  std::vector<uint16_t> back = ReadAll<uint16_t>(*array);
  EXPECT_NE(back[777], values[777]);
  back[777] = values[777];
  EXPECT_EQ(back, values);
  ThrowingIter again(values, 3), end(values, 3);
  end.Seek(10);
  EXPECT_EQ(array->AppendRange(&again, &end), kZuFailed);
  EXPECT_EQ(array->GetSize(), values.size() + 3);
  EXPECT_EQ(g_conflicts, 1);
  zu::platform::SetDiagnosticSink(nullptr);
}

TEST(CZUFileArray, FilesFollowTheArrayLifeCycle) {
  TempDataDir dir;
  auto array = MakeFileArray<uint8_t>();
  EXPECT_EQ(dir.CountFiles(), 0) << "no file before the first element";
  uint8_t out = 0;
  EXPECT_EQ(*static_cast<uint8_t*>(array->GetLast(&out)), 0xFF) << "the all-ones element";
  std::vector<uint8_t> values(kChunk<uint8_t> + 1, 9);
  ASSERT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  ASSERT_EQ(dir.CountFiles(), 1);
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    EXPECT_EQ(std::filesystem::file_size(entry.path()), 2u << 20) << "grown by whole chunks";
  }
  base::DictionaryValue no_files;
  EXPECT_FALSE(array->LoadDescription(&no_files));
  EXPECT_EQ(array->GetSize(), 0u) << "loading clears first";
  EXPECT_EQ(dir.CountFiles(), 0);
  ASSERT_EQ(array->Append(&out), kZuOk);
  array->Clear();
  EXPECT_EQ(dir.CountFiles(), 0);
  ASSERT_EQ(array->Append(&out), kZuOk);
  array.reset();
  EXPECT_EQ(dir.CountFiles(), 0);
}

// One array over two files: single appends cross the border, the heads steer the searches,
// and a second segment that cannot grow is dropped while the first stays intact.
// A segment that dies takes the reads that went straight to its file with it: it reads as
// empty, whether a range or single appends found no room to grow.
TEST(CZUFileArray, ADeadSegmentReadsAsEmptyAfterDirectReads) {
  TempDataDir dir;
  const std::vector<uint8_t> v(kChunk<uint8_t>, 7);
  for (bool single : {false, true}) {
    auto array = MakeFileArray<uint8_t>();
    ASSERT_EQ(array->AppendBuffer(v.data(), v.size()), kZuOk);
    uint8_t out = 0;
    ASSERT_NE(array->GetAt(5, &out), nullptr);
    FaultPlatform faults;
    faults.Fail(FaultOp::kCreateMapping, 1, true);
    if (single) {
      for (uint8_t x : v) array->Append(&x);  // quiet, as single appends are
    } else {
      EXPECT_EQ(array->AppendBuffer(v.data(), v.size()), kZuNoSpace);
    }
    EXPECT_EQ(array->GetSize(), 0u) << single;
    EXPECT_EQ(array->GetAt(5, &out), nullptr) << single;
  }
}

TEST(CZUFileArray, SegmentsOfOneArray) {
  TempDataDir dir;
  const uint64_t s = kSegment<uint8_t>, interval = Interval<uint8_t>();
  std::vector<uint8_t> v(s + 6, 10);
  std::fill(v.begin() + s, v.end(), 20);
  auto array = MakeFileArray<uint8_t>();
  ASSERT_EQ(array->AppendBuffer(v.data(), s - 4), kZuOk);
  for (uint64_t i = s - 4; i < s + 6; ++i) ASSERT_EQ(array->Append(&v[i]), kZuOk);
  EXPECT_EQ(dir.CountFiles(), 2);
  std::vector<uint8_t> border(20);
  array->CopyOut(border.data(), static_cast<int>(s - 10), 20);
  EXPECT_TRUE(std::equal(border.begin(), border.begin() + 16, v.end() - 16));
  uint8_t x = 25;
  EXPECT_EQ(array->LowerBound(&x), s + 6);
  EXPECT_EQ(array->UpperBound(&x), 2 * s) << "at or above the last element: the next start";
  x = 20;
  EXPECT_EQ(array->LowerBound(&x), s);
  x = 10;
  EXPECT_EQ(array->UpperBound(&x), s) << "the start of the next segment";
  x = 30;
  EXPECT_EQ(array->FindFloor(&x), 0u) << "counted from the last segment's own start";
  x = 15;
  EXPECT_EQ(array->FindFloor(&x), s - interval);
  x = 30;
  array->SetAt(s, &x);  // moves the second segment's head too
  x = 25;
  EXPECT_EQ(array->LowerBound(&x), s) << "the head 30 now sends 25 into the first segment";

  FaultPlatform faults;
  faults.Fail(FaultOp::kCreateMapping, 1);
  std::vector<uint8_t> more(2 * kChunk<uint8_t>, 40);
  EXPECT_EQ(array->AppendBuffer(more.data(), more.size()), kZuNoSpace);
  ASSERT_EQ(array->GetSize(), s) << "the failing segment reads as empty";
  std::vector<uint8_t> back(s);
  array->CopyOut(back.data(), 0, static_cast<unsigned int>(s));
  EXPECT_TRUE(std::equal(back.begin(), back.end(), v.begin()));
  array->Clear();  // a dead segment: the whole storage is replaced
  EXPECT_EQ(dir.CountFiles(), 0);
  EXPECT_EQ(array->AppendBuffer(more.data(), 1000), kZuOk);
}

}  // namespace
}  // namespace zu_test
