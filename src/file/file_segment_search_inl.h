// The searches of CZUFileArrayImp<T, Layout> over sorted data (see file_segment.h): the samples
// choose a page (or, for the upper bound, a chunk and the page its bisection ends in), one page
// of the file finishes the search. Part of file_segment_inl.h, which includes it.
#ifndef ZU_FILE_FILE_SEGMENT_SEARCH_INL_H_
#define ZU_FILE_FILE_SEGMENT_SEARCH_INL_H_

#include <algorithm>
#include <cstdint>

#include "src/core/bisect.h"
#include "src/file/file_segment.h"

namespace zu {

template <typename T, typename Layout>
uint64_t CZUFileArrayImp<T, Layout>::ScanPage(const typename Samples::Page& page, const T& value) {
  const T* view = ReadChunk(page.chunk);
  if (view == nullptr) return size_;
  const uint64_t start = page.chunk * kChunkLength + page.start;
  if (start >= size_) return size_;
  const uint64_t len = std::min(samples_.interval(), size_ - start);
  // A segment of one chunk is small enough to stay in the CPU caches, where a branch-free
  // bisection is the quicker; a page of a larger one is likely not in them.
  return start + (size_ <= kChunkLength ? PrefetchedLower(view + page.start, len, value)
                                        : PageLower(view + page.start, len, value));
}

template <typename T, typename Layout>
uint64_t CZUFileArrayImp<T, Layout>::SegmentLowerBound(const T& value) {
  if (dead_) return size_;
  WriteStage();
  return WithReadView([&] {
    typename Samples::Page page;
    if (!samples_.LowerBoundPage(value, &page)) return uint64_t{0};
    return ScanPage(page, value);
  });
}

template <typename T, typename Layout>
uint64_t CZUFileArrayImp<T, Layout>::SegmentUpperBound(const T& value) {
  if (dead_) return size_;
  WriteStage();
  return WithReadView([&]() -> uint64_t {
    uint64_t chunk = 0, not_above = 0;
    if (!samples_.UpperBoundChunk(value, &chunk, &not_above)) return 0;
    const T* view = ReadChunk(chunk);
    if (view == nullptr) return 0;
    const uint64_t base = chunk * kChunkLength;
    if (base >= size_) return size_;
    const uint64_t len = std::min(kChunkLength, size_ - base);
    // A bisection over a power-of-two number of whole pages (a full chunk, or the whole of a
    // small array of such a length) probes page starts first, one per level until a page is
    // left; the samples hold those elements and, as they ascend, the path: it passes the last
    // sample not above value (or no sample at all, when that is the chunk's first). One page
    // finishes the same bisection. Any other length (the segment's last chunk, partly filled),
    // samples out of order, or samples that no longer match: the whole chunk.
    const uint64_t interval = samples_.interval();
    const uint64_t pages = len / interval;
    const bool whole_pages = len % interval == 0 && (pages & (pages - 1)) == 0;
    // A segment of one chunk stays in the CPU caches (see ScanPage).
    const bool cached = size_ <= kChunkLength;
    if (!whole_pages || not_above == Samples::kUnknown || !samples_match_file_) {
      return base + PrefetchedUpper(view, len, value);
    }
    const uint64_t first = not_above == 1 ? 0 : (not_above - 1) * interval + 1;
    const uint64_t count = not_above == 1 ? interval : interval - 1;
    return base + first +
           (cached ? PrefetchedUpper(view + first, count, value)
                   : PageUpper(view + first, count, value));
  });
}

template <typename T, typename Layout>
uint64_t CZUFileArrayImp<T, Layout>::SegmentLocateLowerBound(const T& value) {
  if (dead_) return size_;
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  return samples_.LocateLowerBound(value);
}

template <typename T, typename Layout>
uint64_t CZUFileArrayImp<T, Layout>::SegmentFindNearest(T* inout, uint64_t tolerance) {
  if (dead_) return size_;
  WriteStage();
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  const T value = *inout;
  uint64_t position = 0;
  typename Samples::Page page;
  switch (samples_.FindNearest(value, tolerance, &position, inout, &page)) {
    case Samples::Nearest::kAtZero:
      return 0;
    case Samples::Nearest::kAtSample:
      return position;
    case Samples::Nearest::kInPage:
      break;
  }
  return ScanPage(page, value);
}

}  // namespace zu

#endif  // ZU_FILE_FILE_SEGMENT_SEARCH_INL_H_
