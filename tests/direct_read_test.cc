// Direct reads of file storage at its boundaries, with small segments: the read map's range
// growing under runs already handed out, a sample that a SetAt made differ from the file, a
// segment that fails, a self-spilling array moving into files; and the typed front end
// forgetting its run where a change ends it. (Every kind and element type is held to the same
// answers by the contract model.)
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "src/auto/auto_array.h"
#include "src/file/file_array.h"
#include "src/file/file_segment_inl.h"
#include "src/platform/platform.h"
#include "tests/support/fault_platform.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/array.h"

namespace zu {
namespace {

// Segments of one chunk; the first range of addresses holds two of them.
struct OneChunkSegments {
  static constexpr uint64_t kSegmentBytes = kChunkBytes;
  static constexpr uint64_t kFirstPlacedSegments = 2;
};
// Segments of two chunks, so that a segment has a chunk before its last one.
struct TwoChunkSegments {
  static constexpr uint64_t kSegmentBytes = 2 * kChunkBytes;
  static constexpr uint64_t kFirstPlacedSegments = 64;
};
struct SmallSpill {
  static constexpr uint64_t kSpillThreshold = 50000;
  static constexpr uint32_t kMigrateChunk = 8192;
  using Files = OneChunkSegments;
};

constexpr uint64_t kPerChunk = kChunkBytes / sizeof(int64_t);
constexpr int64_t kChunk = static_cast<int64_t>(kPerChunk);

std::vector<int64_t> Ascending(uint64_t from, uint64_t count) {
  std::vector<int64_t> v(count);
  std::iota(v.begin(), v.end(), static_cast<int64_t>(from));
  return v;
}

bool WideViews() { return platform::Current().ViewsReachPastFileEnd(); }

// Every element of the run equals what GetAt answers.
void ExpectRunMatches(IZUArray& array, const ZuReadRun& run) {
  const auto* data = static_cast<const int64_t*>(run.data);
  for (uint64_t k = 0; k < run.count; ++k) {
    int64_t v = -1;
    ASSERT_NE(array.GetAt(run.first + k, &v), nullptr);
    ASSERT_EQ(data[k], v) << "element " << run.first + k;
  }
}

// Each batch answers what the single searches answer.
void ExpectBatchesMatch(IZUArray& array, const std::vector<int64_t>& keys) {
  for (ZuSearch search : {kZuSearchLowerBound, kZuSearchUpperBound, kZuSearchFind}) {
    std::vector<uint64_t> out(keys.size());
    ASSERT_TRUE(ZuSearchBatch(&array, search, keys.data(), keys.size(), out.data()));
    for (size_t k = 0; k < keys.size(); ++k) {
      ASSERT_EQ(out[k], SearchOne(array, search, &keys[k]))
          << "search " << search << ", key " << keys[k];
    }
  }
}

TEST(DirectReads, RunsStayReadableWhileTheRangeGrowsUnderThem) {
  zu_test::TempDataDir dir;
  CZUFileArray<int64_t, OneChunkSegments> array;
  ASSERT_TRUE(array.Init());
  std::vector<ZuReadRun> earlier;
  for (uint64_t s = 0; s < 9; ++s) {  // the range grows at segments 2, 4 and 8
    const std::vector<int64_t> v = Ascending(s * kPerChunk, kPerChunk);
    ASSERT_EQ(array.AppendBuffer(v.data(), v.size()), kZuOk);
    ZuReadRun run;
    ASSERT_EQ(ZuGetReadRun(&array, 0, &run), WideViews());
    if (!WideViews()) continue;
    // The whole array, one run, kept by appends.
    EXPECT_EQ(run.count, (s + 1) * kPerChunk);
    EXPECT_EQ(run.flags, kZuRunKeptByAppends);
    earlier.push_back(run);
  }
  // The runs of the older ranges still read their elements (unmapped, they would fault).
  for (const ZuReadRun& run : earlier) ExpectRunMatches(array, run);
  if (WideViews()) {
    EXPECT_NE(earlier.front().data, earlier.back().data);
  }
  ExpectBatchesMatch(array, {-1, 0, 5, kChunk - 1, kChunk, 8 * kChunk, 9 * kChunk - 1, 9 * kChunk,
                             int64_t{1} << 40});
}

TEST(DirectReads, ASampleThatDiffersFromItsFileStaysOutsideRuns) {
  zu_test::TempDataDir dir;
  auto* raw = new CZUFileArray<int64_t, TwoChunkSegments>();
  Array<int64_t> typed(raw);
  ASSERT_TRUE(raw->Init());
  const uint64_t segment = 2 * kPerChunk;
  const std::vector<int64_t> v = Ascending(0, 3 * segment);
  ASSERT_EQ(typed.append(v), Status::ok);
  // Segment 1's first chunk is not its last: the sample takes the value, the file keeps its own.
  const uint64_t sampled = segment + 512;
  const int64_t moved = v[sampled] + 1;
  typed.set(sampled, moved);
  ZuReadRun run;
  if (WideViews()) {
    ASSERT_TRUE(ZuGetReadRun(raw, 0, &run));
    EXPECT_EQ(run.count, segment);  // the prefix ends where segment 1 begins
    EXPECT_FALSE(ZuGetReadRun(raw, sampled + 1, &run));
    ASSERT_TRUE(ZuGetReadRun(raw, 2 * segment, &run));  // segment 2 through its own view
    EXPECT_EQ(run.first, 2 * segment);
    ExpectRunMatches(*raw, run);
  }
  EXPECT_EQ(typed[sampled], moved);
  auto reader = typed.reader();
  for (uint64_t i = 0; i < v.size(); i += 97) ASSERT_EQ(reader[i], i == sampled ? moved : v[i]);
  uint64_t next = 0;
  typed.for_each_run(0, v.size(), [&](const int64_t* data, size_t n) {
    for (size_t k = 0; k < n; ++k, ++next) {
      if (next != sampled) {  // CopyOut reads the file there
        ASSERT_EQ(data[k], v[next]);
      }
    }
  });
  EXPECT_EQ(next, v.size());
  ExpectBatchesMatch(*raw, {v[sampled], moved, v[sampled + 1], v[segment], -1, v.back() + 1});
}

TEST(DirectReads, AFailedSegmentLeavesEarlierRunsReadable) {
  zu_test::TempDataDir dir;
  zu_test::FaultPlatform faults;
  CZUFileArray<int64_t, TwoChunkSegments> array;
  ASSERT_TRUE(array.Init());
  const std::vector<int64_t> v = Ascending(0, kPerChunk - 10);
  ASSERT_EQ(array.AppendBuffer(v.data(), v.size()), kZuOk);
  ZuReadRun before;
  ASSERT_EQ(ZuGetReadRun(&array, 0, &before), WideViews());
  // The segment's next growth finds no room: it fails and forgets its elements.
  faults.Fail(zu_test::FaultOp::kCreateMapping, 1, true);
  const std::vector<int64_t> more = Ascending(v.size(), 20);
  EXPECT_EQ(array.AppendBuffer(more.data(), more.size()), kZuNoSpace);
  EXPECT_EQ(array.GetSize(), 0u);
  ZuReadRun after;
  EXPECT_FALSE(ZuGetReadRun(&array, 0, &after));
  if (!WideViews()) return;
  // The run handed out before stays mapped until the segment goes (the values are no longer
  // the array's, but reading them must not fault).
  EXPECT_EQ(before.count, v.size());
  EXPECT_EQ(std::memcmp(before.data, v.data(), before.count * sizeof(int64_t)), 0);
}

TEST(DirectReads, ASelfSpillingArrayReadsInPlaceBeforeAndAfterItsMove) {
  zu_test::TempDataDir dir;
  CZUAutoVectorArray<int64_t, std::allocator<int64_t>, SmallSpill> array;
  const std::vector<int64_t> v = Ascending(100, 70000);
  ASSERT_EQ(array.AppendBuffer(v.data(), 40000), kZuOk);
  ZuReadRun run;
  ASSERT_TRUE(ZuGetReadRun(&array, 39999, &run));  // the vector, which an append may move
  EXPECT_EQ(run.count, 40000u);
  EXPECT_EQ(run.flags, 0u);
  ExpectBatchesMatch(array, {99, 100, 40099, 40100, 200000});
  ASSERT_EQ(array.AppendBuffer(v.data() + 40000, 30000), kZuOk);
  ASSERT_TRUE(array.spilled());
  ASSERT_EQ(ZuGetReadRun(&array, 69999, &run), WideViews());
  if (WideViews()) {
    EXPECT_EQ(run.count, 70000u);
    EXPECT_EQ(run.flags, kZuRunKeptByAppends);
    ExpectRunMatches(array, run);
  }
  // The file storage's own answers, also UpperBound at the end of the last segment.
  ExpectBatchesMatch(array, {99, 100, 40099, 69999 + 100, 200000});
}

// The typed front end forgets the run operator[] reads from at every change made through it:
// without that, the first read below would come from the vector's freed memory (ASan reports
// it) and the second would show the file's value where GetAt answers the sample's.
TEST(DirectReads, TheTypedArrayForgetsItsRunAtEachChange) {
  zu_test::TempDataDir dir;
  auto vector = make_vector_array<int64_t>();
  ASSERT_EQ(vector.append({1, 2, 3}), Status::ok);
  EXPECT_EQ(vector[0], 1);
  {
    auto out = vector.appender();
    for (int64_t i = 0; i < 3000000; ++i) out.push_back(i);  // hands over blocks: it moves
    ASSERT_EQ(out.flush(), Status::ok);
  }
  EXPECT_EQ(vector[0], 1);
  EXPECT_EQ(vector[3000002], 2999999);
  const std::vector<int64_t> more = Ascending(0, 5000000);
  ASSERT_EQ(vector.append(more), Status::ok);
  EXPECT_EQ(vector[1], 2);

  auto files = make_file_array<int64_t>();
  const std::vector<int64_t> v = Ascending(0, 3 * kPerChunk);
  ASSERT_EQ(files.append(v), Status::ok);
  EXPECT_EQ(files[512], 512);
  files.set(512, 513);  // a sample outside the last chunk: the file keeps 512
  EXPECT_EQ(files[512], 513);
  EXPECT_EQ(files[513], 513);
}

}  // namespace
}  // namespace zu
