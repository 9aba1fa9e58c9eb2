// The mapped file segment's search where the page samples and the file can disagree: a set
// outside the last chunk changes the sample (what reads answer) but not the file.
#include "src/file/file_segment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "src/core/bisect.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/iterators.h"

namespace zu_test {
namespace {

using Segment = zu::CZUFileArrayImp<int64_t>;

// UpperBound answers as a bisection of the whole chunk of file data always did: through the
// samples while they ascend and hold what the file holds, from the chunk itself once they
// do not.
TEST(CZUFileArrayImp, UpperBoundAnswersAsABisectionOfTheChunkInTheFile) {
  TempDataDir dir;
  const uint64_t chunk = Segment::kChunkLength;
  std::vector<int64_t> values(2 * chunk + 1000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i / 3);
  Segment segment;
  SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(values.data()),
                                      static_cast<unsigned int>(values.size()), sizeof(int64_t));
  std::shared_ptr<ArrayIterBase> last = first.Clone();
  last->Seek(static_cast<unsigned int>(values.size()));
  segment.Append(zu::ZuArrayIter<int64_t>(&first), zu::ZuArrayIter<int64_t>(last.get()));
  ASSERT_EQ(segment.GetSize(), static_cast<int64_t>(values.size()));

  auto expect_chunk_bisection = [&](const char* when) {
    std::vector<int64_t> file(values.size());
    int64_t count = static_cast<int64_t>(file.size());
    segment.ReadData(file.data(), 0, count);
    ASSERT_EQ(count, static_cast<int64_t>(file.size()));
    for (int64_t v = -1; v <= file.back() + 1; v += 7) {
      uint64_t k = 0;  // the last chunk whose boundary sample is not above v
      while ((k + 1) * chunk < file.size() && !(v < *segment.GetReadPtr((k + 1) * chunk))) ++k;
      const auto from = file.begin() + static_cast<int64_t>(k * chunk);
      const auto to =
          file.begin() + static_cast<int64_t>(std::min<uint64_t>(file.size(), (k + 1) * chunk));
      const uint64_t want =
          v < *segment.GetReadPtr(0) ? 0 : std::upper_bound(from, to, v) - file.begin();
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

// A segment smaller than a chunk answers UpperBound as the bisection of its elements in the
// file always did, even where the elements within a page stand out of order: through the page
// samples when it holds a power-of-two number of pages (the bisection's path then runs through
// page starts), over the whole chunk otherwise.
TEST(CZUFileArrayImp, UpperBoundOfASmallSegmentAnswersAsItsBisection) {
  TempDataDir dir;
  for (uint64_t pages : {64, 48}) {
    Segment segment;
    const uint64_t interval = segment.sample_interval();
    std::vector<int64_t> values(pages * interval);
    uint64_t seed = 1;
    for (size_t i = 0; i < values.size(); ++i) {
      seed = seed * 6364136223846793005u + 1442695040888963407u;
      const auto page_start = static_cast<int64_t>(i / interval * 1000);
      values[i] = i % interval == 0 ? page_start : page_start + static_cast<int64_t>(seed >> 53);
    }
    SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(values.data()),
                                        static_cast<unsigned int>(values.size()), sizeof(int64_t));
    std::shared_ptr<ArrayIterBase> last = first.Clone();
    last->Seek(static_cast<unsigned int>(values.size()));
    segment.Append(zu::ZuArrayIter<int64_t>(&first), zu::ZuArrayIter<int64_t>(last.get()));
    const auto at = [&](uint64_t i) { return values[i]; };
    for (int64_t v = -1; v <= static_cast<int64_t>(pages * 1000 + 2100); v += 13) {
      const uint64_t want = v < values[0] ? 0 : zu::BisectUpper(values.size(), v, at);
      ASSERT_EQ(segment.SegmentUpperBound(v), want) << pages << " pages, value " << v;
    }
  }
}

}  // namespace
}  // namespace zu_test
