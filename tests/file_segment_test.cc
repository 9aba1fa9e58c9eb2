// The mapped file segment on its own: chunk boundaries, growth, samples, the two append
// paths, the write-conflict guard, the set asymmetry, attach and every failure path.
#include "src/file/file_segment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fault_platform.h"
#include "tests/support/file_test_util.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_values.h"

namespace zu_test {
namespace {

using zu::CZUFileArrayImp;
using zu::kChunkBytes;

template <typename T>
std::vector<T> Pattern(size_t n, uint64_t seed = 7) {
  std::vector<T> values(n);
  for (size_t i = 0; i < n; ++i) values[i] = static_cast<T>(i * seed + i / 3);
  return values;
}

int g_conflicts = 0;
void CountConflict(const char* message) {
  if (std::string(message) == "write conflict") ++g_conflicts;
}

TEST(CZUFileArrayImp, GrowsByChunksAndKeepsTheWriteViewOnTheEnd) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint8_t>;
  auto values = Pattern<uint8_t>(Segment::kChunkLength + 1);
  {
    Segment segment;
    ASSERT_TRUE(segment.ready());
    AppendBulk(segment, values);
    EXPECT_EQ(segment.GetSize(), static_cast<int64_t>(values.size()));
    EXPECT_EQ(std::filesystem::file_size(std::string(segment.path().begin(), segment.path().end())),
              2 * kChunkBytes);
    EXPECT_EQ(ReadAll<uint8_t>(segment), values);
    // The boundary sample answers without a range check on the sample path.
    EXPECT_EQ(*segment.GetReadPtr(Segment::kChunkLength), values.back());
    EXPECT_EQ(*segment.GetReadPtr(12345), values[12345]);
    EXPECT_EQ(*segment.GetBackReadPtr(), values.back());
    // Only the last chunk is writable; anything else is a dummy.
    *segment.GetWritePtr(Segment::kChunkLength) = 99;
    *segment.GetWritePtr(5) = static_cast<uint8_t>(values[5] + 1);
    auto back = ReadAll<uint8_t>(segment);
    EXPECT_EQ(back[Segment::kChunkLength], 99);
    EXPECT_EQ(back[5], values[5]);
    EXPECT_EQ(segment.GetWritePtr(values.size()), segment.GetWritePtr(0)) << "dummy beyond end";
  }
  EXPECT_EQ(dir.CountFiles(), 0);
}

TEST(CZUFileArrayImp, SingleAppendsCrossChunksLikeRangeAppends) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint32_t>;
  auto values = Pattern<uint32_t>(2 * Segment::kChunkLength + 5);
  Segment pushed;
  for (uint32_t v : values) pushed.PushBack(v);
  EXPECT_EQ(ReadAll<uint32_t>(pushed), values);

  // Bulk (pwrite) and element-wise (through the view) appends, starting mid-chunk, must give
  // the same file data and the same samples.
  Segment bulk;
  Segment strided;
  const size_t cuts[] = {1000, Segment::kChunkLength, values.size()};
  size_t from = 0;
  for (size_t to : cuts) {
    std::vector<uint32_t> part(values.begin() + from, values.begin() + to);
    AppendBulk(bulk, part);
    AppendStrided(strided, part);
    from = to;
  }
  EXPECT_EQ(ReadAll<uint32_t>(bulk), values);
  EXPECT_EQ(ReadAll<uint32_t>(strided), values);
  const uint64_t interval = bulk.sample_interval();
  for (uint64_t i = 0; i < values.size(); i += interval) {
    ASSERT_EQ(*bulk.GetReadPtr(i), values[i]) << i;
    ASSERT_EQ(*strided.GetReadPtr(i), values[i]) << i;
  }
  EXPECT_EQ(*bulk.GetBackReadPtr(), values.back());
  EXPECT_EQ(*strided.GetBackReadPtr(), values.back());
  const uint64_t last_sample = (values.size() - 1) / interval * interval;
  EXPECT_EQ(bulk.LastSamplePosition(), last_sample);
  // Single appends skip the sample bookkeeping on most elements; none that needs a sample
  // may slip through, or searches would pick the wrong page.
  EXPECT_EQ(pushed.LastSamplePosition(), last_sample);
  for (uint64_t i = interval - 1; i < values.size(); i += interval) {
    ASSERT_EQ(pushed.SegmentLowerBound(values[i]), i) << i;
    ASSERT_EQ(pushed.SegmentLocateLowerBound(values[i]), (i / interval + 1) * interval) << i;
  }
}

TEST(CZUFileArrayImp, AppendsStopSilentlyAtTheMaximumSize) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<SimpleBigData<512>>;
  std::vector<SimpleBigData<512>> values(Segment::kMaxSize + 3);
  for (size_t i = 0; i < values.size(); ++i) values[i] = MakeValue<SimpleBigData<512>>(i);
  Segment segment;
  AppendBulk(segment, values);
  EXPECT_EQ(static_cast<uint64_t>(segment.GetSize()), Segment::kMaxSize);
  segment.PushBack(values.back());
  EXPECT_EQ(static_cast<uint64_t>(segment.GetSize()), Segment::kMaxSize);
  EXPECT_TRUE(*segment.GetBackReadPtr() == values[Segment::kMaxSize - 1]);
  EXPECT_TRUE(*segment.GetReadPtr(Segment::kMaxSize - 2) == values[Segment::kMaxSize - 2]);
}

TEST(CZUFileArrayImp, WriteConflictSkipsOneElementOfAWholeChunk) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint16_t>;
  zu::platform::SetDiagnosticSink(&CountConflict);
  g_conflicts = 0;
  auto values = Pattern<uint16_t>(Segment::kChunkLength + 10);
  {
    Segment segment;
    ThrowingIter<uint16_t> first(&values, 777);
    ThrowingIter<uint16_t> last(&values, 777);
    last.Seek(static_cast<unsigned int>(values.size()));
    segment.Append(zu::ZuArrayIter<uint16_t>(&first), zu::ZuArrayIter<uint16_t>(&last));
    EXPECT_EQ(g_conflicts, 1);
    EXPECT_EQ(segment.GetSize(), static_cast<int64_t>(values.size()));
    EXPECT_EQ(first.GetPosition(), values.size());
    auto back = ReadAll<uint16_t>(segment);
    EXPECT_NE(back[777], values[777]);
    back[777] = values[777];
    EXPECT_EQ(back, values);

    // The rest of a partly filled chunk is not guarded: the error reaches the caller, and the
    // elements before it stay.
    ThrowingIter<uint16_t> again(&values, 3);
    ThrowingIter<uint16_t> end(&values, 3);
    end.Seek(10);
    EXPECT_THROW(segment.Append(zu::ZuArrayIter<uint16_t>(&again), zu::ZuArrayIter<uint16_t>(&end)),
                 std::runtime_error);
    EXPECT_EQ(segment.GetSize(), static_cast<int64_t>(values.size() + 3));
  }
  zu::platform::SetDiagnosticSink(nullptr);
}

TEST(CZUFileArrayImp, SetElementWritesFileOnlyInTheLastChunkButSamplesAlways) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<int64_t>;
  auto values = Pattern<int64_t>(Segment::kChunkLength + 100);
  Segment segment;
  AppendBulk(segment, values);
  const uint64_t interval = segment.sample_interval();
  segment.SetElement(interval, -5);  // first chunk: samples only
  EXPECT_EQ(*segment.GetReadPtr(interval), -5);
  EXPECT_EQ(ReadAll<int64_t>(segment)[interval], values[interval]);
  segment.SetElement(Segment::kChunkLength + 1, -6);  // last chunk: the file too
  EXPECT_EQ(ReadAll<int64_t>(segment)[Segment::kChunkLength + 1], -6);
  segment.SetElement(values.size() - 1, -7);
  EXPECT_EQ(*segment.GetBackReadPtr(), -7);
  EXPECT_EQ(ReadAll<int64_t>(segment).back(), -7);
  segment.SetElement(values.size() + 3, -8);  // beyond the end: nothing to change
  EXPECT_EQ(segment.GetSize(), static_cast<int64_t>(values.size()));
}

// UpperBound answers as a bisection of the whole chunk of file data always did: through the
// page samples while they ascend and hold what the file holds, and from the chunk itself once
// a set outside the last chunk has given a sample a value its element does not have.
TEST(CZUFileArrayImp, UpperBoundAnswersAsABisectionOfTheChunkInTheFile) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<int64_t>;
  const uint64_t chunk = Segment::kChunkLength;
  std::vector<int64_t> values(2 * chunk + 1000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i / 3);
  Segment segment;
  AppendBulk(segment, values);
  auto expect_chunk_bisection = [&segment, chunk](const char* when) {
    const std::vector<int64_t> file = ReadAll<int64_t>(segment);
    for (int64_t v = -1; v <= file.back() + 1; v += 7) {
      uint64_t k = 0;  // the last chunk whose boundary sample is not above v
      while ((k + 1) * chunk < file.size() && !(v < *segment.GetReadPtr((k + 1) * chunk))) ++k;
      const auto first = file.begin() + static_cast<int64_t>(k * chunk);
      const auto end =
          file.begin() + static_cast<int64_t>(std::min<uint64_t>(file.size(), (k + 1) * chunk));
      const uint64_t want =
          v < *segment.GetReadPtr(0) ? 0 : std::upper_bound(first, end, v) - file.begin();
      ASSERT_EQ(segment.SegmentUpperBound(v), want) << when << ", value " << v;
    }
  };
  expect_chunk_bisection("samples as the file");
  // The sample in the middle of chunk 0, the bisection's first probe there, now stands above
  // the elements of its page while the file keeps them.
  const uint64_t middle = chunk / 2;
  segment.SetElement(middle, values[middle + segment.sample_interval() - 1]);
  expect_chunk_bisection("a sample above its element");
}

TEST(CZUFileArrayImp, ClearKeepsTheFileAndRefillsFromTheStart) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint8_t>;
  auto values = Pattern<uint8_t>(3 * Segment::kChunkLength);
  Segment segment;
  AppendBulk(segment, values);
  const uint64_t capacity = segment.capacity();
  segment.Clear();
  EXPECT_EQ(segment.GetSize(), 0);
  EXPECT_EQ(*segment.GetBackReadPtr(), values.back()) << "the cached last value stays";
  EXPECT_EQ(segment.capacity(), capacity);
  // Single appends after Clear cross chunk boundaries without growth; every one of them must
  // land at its own index.
  auto refill = Pattern<uint8_t>(Segment::kChunkLength + 50, 3);
  for (uint8_t v : refill) segment.PushBack(v);
  EXPECT_EQ(ReadAll<uint8_t>(segment), refill);
  EXPECT_EQ(segment.capacity(), capacity);
}

TEST(CZUFileArrayImp, AttachReopensADescribedFile) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint8_t>;
  auto values = Pattern<uint8_t>(Segment::kChunkLength);
  Segment original;
  AppendBulk(original, values);
  std::unique_ptr<base::DictionaryValue> entry(original.Describe());
  Segment attached;
  ASSERT_TRUE(attached.Attach(*entry));
  EXPECT_EQ(attached.path(), original.path());
  EXPECT_EQ(attached.capacity(), 2 * Segment::kChunkLength) << "one spare chunk";
  EXPECT_EQ(ReadAll<uint8_t>(attached), values);
  EXPECT_EQ(*attached.GetBackReadPtr(), values.back());
  EXPECT_EQ(*attached.GetReadPtr(attached.sample_interval()), values[attached.sample_interval()]);
  attached.PushBack(1);
  EXPECT_EQ(attached.GetSize(), static_cast<int64_t>(values.size() + 1));
  EXPECT_EQ(dir.CountFiles(), 1) << "attach gave up the segment's own file";
}

TEST(CZUFileArrayImp, AttachLeavesFilesTheLibraryDidNotMakeAlone) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint8_t>;
  const std::string content(4096, 'x');
  const std::string guid_name = "{0123ABCD-0000-4000-8000-0123456789AB}.KMB";
  auto user_file = dir.Touch("notes.txt", content);
  auto guid_file = dir.Touch(guid_name, content);
  dir.Keep("notes.txt");
  dir.Keep(guid_name);
  const std::string link_name = "{0123ABCD-0000-4000-8000-000000000001}.KMB";
  if (kCanMakeSymlinks) std::filesystem::create_symlink(user_file, dir.path() / link_name);
  const std::string dir_name = "{0123ABCD-0000-4000-8000-000000000002}.KMB";
  std::filesystem::create_directory(dir.path() / dir_name);
  struct Case {
    std::string path;
    int size;
  };
  std::vector<Case> cases = {
      {user_file.string(), 10},               // not a data-file name
      {(dir.path() / dir_name).string(), 0},  // a directory
      {guid_file.string(), 4097},             // longer than the file
      {guid_file.string(), -1},               // negative
      {(dir.path() / "{0123ABCD-0000-4000-8000-0000000000FF}.KMB").string(), 0},  // missing
  };
  if (kCanMakeSymlinks) cases.push_back({(dir.path() / link_name).string(), 10});  // a link
  for (const Case& c : cases) {
    {
      Segment segment;
      base::DictionaryValue entry;
      entry.SetString("file_path", c.path);
      entry.SetInteger("size", c.size);
      EXPECT_FALSE(segment.Attach(entry)) << c.path;
      EXPECT_TRUE(segment.dead());
      segment.PushBack(1);
      EXPECT_EQ(segment.GetSize(), 0);
    }
    for (const auto& file : {user_file, guid_file}) {
      std::ifstream in(file);
      std::string now((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      EXPECT_EQ(now, content) << c.path;
    }
  }
  EXPECT_EQ(std::filesystem::is_symlink(dir.path() / link_name), kCanMakeSymlinks);
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / dir_name));
  // An entry without both keys changes nothing.
  Segment segment;
  base::DictionaryValue partial;
  partial.SetString("file_path", guid_file.string());
  EXPECT_FALSE(segment.Attach(partial));
  EXPECT_FALSE(segment.dead());
  segment.PushBack(3);
  EXPECT_EQ(segment.GetSize(), 1);
}

TEST(CZUFileArrayImp, AWideReadViewIsMappedOnceAndReadsNeverRemap) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint16_t>;
  const auto values = Pattern<uint16_t>(3 * Segment::kChunkLength + 17);
  int growth_maps[2] = {0, 0};  // view mappings made by one growth, per kind of read view
  bool wide[2] = {false, false};
  for (bool chunk_views : {false, true}) {
    FaultPlatform faults;
    faults.UseChunkReadViews(chunk_views);
    Segment segment;
    AppendBulk(segment, std::vector<uint16_t>(values.begin(), values.begin() + 1000));
    std::vector<uint16_t> rest(values.begin() + 1000, values.end());
    AppendBulk(segment, rest);  // grows the file past its first mapping
    const int before = faults.Calls(FaultOp::kMapView);
    // Random reads over every chunk, back and forth: the same elements either way.
    for (uint64_t i = 1; i < values.size(); i += 4099) {
      ASSERT_EQ(*segment.GetReadPtr(static_cast<int64_t>(i)), values[i]) << i;
      const uint64_t j = values.size() - 1 - i;
      ASSERT_EQ(*segment.GetReadPtr(static_cast<int64_t>(j)), values[j]) << j;
    }
    EXPECT_EQ(ReadAll<uint16_t>(segment), values);
    const int remaps = faults.Calls(FaultOp::kMapView) - before;
    if (segment.wide_read_view()) {
      EXPECT_EQ(remaps, 0) << "a wide read view already covers every chunk";
    } else {
      EXPECT_GT(remaps, 0) << "a chunk read view follows the reads";
    }
    // Growing again keeps a wide view where it is; the new end is readable through it.
    const int grown = faults.Calls(FaultOp::kMapView);
    std::vector<uint16_t> more(Segment::kChunkLength, 7);
    AppendBulk(segment, more);
    growth_maps[chunk_views] = faults.Calls(FaultOp::kMapView) - grown;
    wide[chunk_views] = segment.wide_read_view();
    EXPECT_EQ(*segment.GetReadPtr(static_cast<int64_t>(values.size() + 5)), 7);
    EXPECT_EQ(*segment.GetReadPtr(3), values[3]);
  }
  EXPECT_FALSE(wide[true]);
  if (wide[false]) {
    EXPECT_EQ(growth_maps[true] - growth_maps[false], 1)
        << "growth maps a chunk read view again, never a wide one";
  }
  EXPECT_EQ(dir.CountFiles(), 0);
}

// Single appends gather in memory before they reach the file; nothing may tell: every way of
// looking at the elements (reads, copies, searches, the write view, a description, a clear)
// sees them at once.
TEST(CZUFileArrayImp, StagedSingleAppendsAreVisibleToEveryReader) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint32_t>;
  const uint64_t stage = Segment::kStageLength;
  const uint64_t interval = [] {
    Segment probe;
    return probe.sample_interval();
  }();
  {  // reads of an element just pushed, at every position of a run
    Segment segment;
    for (uint32_t i = 0; i < 3 * stage + 5; ++i) {
      segment.PushBack(2 * i);
      ASSERT_EQ(*segment.GetReadPtr(i), 2 * i) << i;
      if (i % 97 == 0) {
        uint32_t out = 1;
        int64_t count = 1;
        segment.ReadData(&out, i, count);
        ASSERT_EQ(count, 1);
        ASSERT_EQ(out, 2 * i) << i;
      }
    }
  }
  {  // searches over sorted data reach staged elements
    Segment segment;
    const uint64_t n = stage + interval + 3;  // the last run is partly staged
    for (uint32_t i = 0; i < n; ++i) segment.PushBack(2 * i);
    for (uint64_t i = n - interval - 2; i < n; ++i) {
      const uint32_t v = static_cast<uint32_t>(2 * i);
      ASSERT_EQ(segment.SegmentLowerBound(v), i);
      ASSERT_EQ(segment.SegmentLowerBound(v - 1), i);
      ASSERT_EQ(segment.SegmentUpperBound(v), i + 1);
      uint32_t probe = v - 1;
      ASSERT_EQ(segment.SegmentFindNearest(&probe, 0), i);
    }
    EXPECT_EQ(segment.SegmentLowerBound(static_cast<uint32_t>(2 * n)), n);
  }
  {  // the write view reaches staged elements, and a write through it sticks
    Segment segment;
    for (uint32_t i = 0; i < 10; ++i) segment.PushBack(i);
    *segment.GetWritePtr(7) = 70;
    segment.PushBack(10);
    segment.SetElement(9, 90);
    auto back = ReadAll<uint32_t>(segment);
    ASSERT_EQ(back.size(), 11u);
    EXPECT_EQ(back[7], 70u);
    EXPECT_EQ(back[9], 90u);
    EXPECT_EQ(back[10], 10u);
    EXPECT_EQ(*segment.GetBackReadPtr(), 10u);
  }
  {  // a description names a file that already holds every described element
    Segment maker;
    for (uint32_t i = 0; i < stage + 3; ++i) maker.PushBack(i + 5);
    std::unique_ptr<base::DictionaryValue> entry(maker.Describe());
    Segment reader;
    ASSERT_TRUE(reader.Attach(*entry));
    std::vector<uint32_t> expected(stage + 3);
    for (uint32_t i = 0; i < expected.size(); ++i) expected[i] = i + 5;
    EXPECT_EQ(ReadAll<uint32_t>(reader), expected);
  }
  {  // single appends after a range append and a range append after single appends
    Segment segment;
    std::vector<uint32_t> expected;
    for (uint32_t round = 0; round < 3; ++round) {
      std::vector<uint32_t> part(stage / 2 + round);
      for (auto& v : part) v = static_cast<uint32_t>(expected.size() + (&v - part.data()));
      AppendBulk(segment, part);
      expected.insert(expected.end(), part.begin(), part.end());
      for (uint32_t k = 0; k < stage + 1; ++k) {
        segment.PushBack(static_cast<uint32_t>(expected.size()));
        expected.push_back(static_cast<uint32_t>(expected.size()));
      }
    }
    EXPECT_EQ(ReadAll<uint32_t>(segment), expected);
  }
  EXPECT_EQ(dir.CountFiles(), 0);
}

TEST(CZUFileArrayImp, EveryFailureLeavesADeadSegment) {
  TempDataDir dir;
  using Segment = CZUFileArrayImp<uint16_t>;
  auto values = Pattern<uint16_t>(Segment::kChunkLength / 2);
  {
    FaultPlatform faults;
    faults.Fail(FaultOp::kCreateFile, 1);
    Segment segment;
    EXPECT_TRUE(segment.dead());
    segment.PushBack(1);
    AppendBulk(segment, values);
    EXPECT_EQ(segment.GetSize(), 0);
    EXPECT_EQ(dir.CountFiles(), 0);
  }
  {
    FaultPlatform faults;
    faults.Fail(FaultOp::kCreateMapping, 2);
    Segment segment;
    segment.PushBack(1);
    AppendBulk(segment, values);  // fits the first chunk: no growth
    EXPECT_THROW(AppendBulk(segment, values), ZuArrayNoSpaceException);
    EXPECT_TRUE(segment.dead());
    EXPECT_EQ(segment.GetSize(), 0);
    segment.PushBack(1);
    EXPECT_EQ(segment.GetSize(), 0);
    EXPECT_EQ(segment.GetReadPtr(0), segment.GetReadPtr(1)) << "dummies only";
  }
  {
    FaultPlatform faults;
    faults.UseChunkReadViews(true);  // one-chunk read views, as on Windows and 32-bit builds
    Segment segment;
    ASSERT_FALSE(segment.wide_read_view());
    AppendBulk(segment, Pattern<uint16_t>(2 * Segment::kChunkLength));
    faults.Fail(FaultOp::kMapView, 1, /*forever=*/true);
    const int before = faults.Calls(FaultOp::kMapView);
    // The read view sits on chunk 0; chunk 1 must be mapped.
    const uint16_t* element = segment.GetReadPtr(Segment::kChunkLength + 1);
    EXPECT_EQ(faults.Calls(FaultOp::kMapView) - before, 11) << "attempts before giving up";
    EXPECT_TRUE(segment.dead());
    EXPECT_EQ(element, segment.GetReadPtr(2));
    int64_t count = 4;
    uint16_t out[4];
    segment.ReadData(out, 0, count);
    EXPECT_EQ(count, 0);
  }
  {
    // A read view that spans the whole segment is mapped with the first growth: failing it
    // there kills the segment exactly like a failing chunk view.
    FaultPlatform faults;
    Segment segment;
    if (segment.wide_read_view()) {
      faults.Fail(FaultOp::kMapView, 2, /*forever=*/true);  // the write view still maps
      const int before = faults.Calls(FaultOp::kMapView);
      segment.PushBack(1);
      EXPECT_EQ(faults.Calls(FaultOp::kMapView) - before, 1 + 11) << "write view, read attempts";
      EXPECT_TRUE(segment.dead());
      EXPECT_EQ(segment.GetSize(), 0);
    }
  }
  {
    FaultPlatform faults;
    faults.Fail(FaultOp::kWriteAt, 1);
    Segment segment;
    EXPECT_THROW(AppendBulk(segment, values), ZuArrayNoSpaceException);
    EXPECT_TRUE(segment.dead());
    EXPECT_EQ(segment.GetSize(), 0);
  }
  EXPECT_EQ(dir.CountFiles(), 0);
}

}  // namespace
}  // namespace zu_test
