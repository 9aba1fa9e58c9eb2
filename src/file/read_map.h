// ReadMap: where the elements of a file storage can be read in place, and how many of them.
//
// Where views may reach past the end of their file (64-bit POSIX), the storage reserves one
// range of addresses (no memory) and every segment maps its wide read view at the segment's
// place in it, one after another. The leading elements that every segment answers from its
// file then stand at base() as one array: the readable prefix. A read of them is a bound check
// and a load; a host reads them in place (ZuGetReadRun).
//
// The range grows with the array: the first holds Layout::kFirstPlacedSegments segments, and
// the segment that finds no place reserves one twice as large (or more) and has every view
// mapped again at its place there. The views in the older ranges stay mapped until the storage
// is cleared or destroyed, so a run handed out over them stays readable while the array grows:
// appends never end a run of file storage.
//
// Every change to a segment that can change what it reads in place reports here, through the
// segment's one report (Report): appends that reach the file, a sample that a write made differ
// from the file, a segment failing, clearing or attaching. The prefix is brought up to date
// there and nowhere else.
//
// Failure: a range that cannot be reserved leaves the prefix empty (segments are read through
// their own views); a larger one that cannot be reserved leaves later segments without a place.
// A view that cannot be mapped at its place abandons the map: the prefix stays empty, and no
// range is released any more (a place whose view failed may hold another mapping now).
// Thread-safety: the storage's: one writer at a time.
#ifndef ZU_FILE_READ_MAP_H_
#define ZU_FILE_READ_MAP_H_

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "src/file/mapped_file.h"
#include "src/platform/platform.h"

namespace zu {

class ReadMap {
 public:
  // segment_bytes: the bytes a segment's view spans; segment_length: its elements;
  // first_segments: the places of the first range.
  ReadMap(uint64_t segment_bytes, uint64_t segment_length, uint64_t first_segments)
      : segment_bytes_(segment_bytes),
        segment_length_(segment_length),
        first_segments_(first_segments) {}
  ~ReadMap() { Reset(); }
  ReadMap(const ReadMap&) = delete;
  ReadMap& operator=(const ReadMap&) = delete;

  // Where segment `s` maps its wide read view, or null: wherever the system likes. Segments
  // 0..s-1 exist; when s lies beyond the range, a larger one is reserved and each of them is
  // moved there by move(t, address, &old_view) (false: the view could not be mapped there).
  template <typename Move>
  void* PlaceFor(size_t s, Move&& move);

  // Segment `s` now reads its first `readable` elements in place at its place (0 when its
  // view is elsewhere, it failed or a sample differs from its file); `place_failed` when its
  // view could not be mapped at the place given.
  void Report(size_t s, uint64_t readable, bool place_failed);

  // The readable prefix: elements from index 0 at base().
  uint64_t prefix() const { return prefix_; }
  const void* base() const { return range_.base; }
  // Places in the current range (0 without one).
  uint64_t places() const { return range_.base != nullptr ? range_.bytes / segment_bytes_ : 0; }

  // After every segment is gone (Clear): the prefix is empty, the views of older ranges are
  // unmapped and the older ranges released; the current range stays for the next segments.
  void Forget();

 private:
  struct Range {
    void* base = nullptr;  // reserved, or null
    size_t bytes = 0;      // at base
  };

  // Reserves a range of `segments` places; false when none can be had.
  bool Reserve(uint64_t segments, Range* range) const;
  void Release(Range* range) const;
  // Drops the older ranges and their views, then the current range.
  void Reset();

  uint64_t segment_bytes_;   // bytes of one place
  uint64_t segment_length_;  // elements of one segment
  uint64_t first_segments_;  // places of the first range
  Range range_;              // where the segments' views stand now
  bool tried_ = false;       // reserving was tried (a platform without wide views: once)
  bool abandoned_ = false;   // a view failed at its place: no prefix, nothing released
  // Older ranges and the views still mapped there (runs handed out may point into them).
  std::vector<Range> old_ranges_;
  std::vector<ScopedMapping> old_views_;
  std::vector<uint64_t> readable_;  // readable_[s]: what segment s last reported
  uint64_t prefix_ = 0;             // elements from 0 readable at base(); see Report
};

template <typename Move>
void* ReadMap::PlaceFor(size_t s, Move&& move) {
  if (abandoned_) return nullptr;
  if (!tried_) {
    tried_ = true;
    // Only views that span a whole segment can stand one after another.
    if (!platform::Current().ViewsReachPastFileEnd() || !Reserve(first_segments_, &range_)) {
      return nullptr;
    }
  }
  if (range_.base == nullptr) return nullptr;
  if (s >= places()) {
    uint64_t wanted = places();
    while (wanted <= s) wanted *= 2;
    Range larger;
    if (!Reserve(wanted, &larger)) return nullptr;
    for (size_t t = 0; t < s; ++t) {
      ScopedMapping old;
      if (!move(t, static_cast<unsigned char*>(larger.base) + t * segment_bytes_, &old)) {
        // Some views stand in the new range, others in the old: no prefix any more.
        abandoned_ = true;
        prefix_ = 0;
        old_views_.push_back(std::move(old));
        return nullptr;
      }
      old_views_.push_back(std::move(old));
    }
    old_ranges_.push_back(range_);
    range_ = larger;
  }
  return static_cast<unsigned char*>(range_.base) + s * segment_bytes_;
}

inline void ReadMap::Report(size_t s, uint64_t readable, bool place_failed) {
  if (place_failed) {
    abandoned_ = true;
    prefix_ = 0;
  }
  if (abandoned_) return;
  if (s >= readable_.size()) readable_.resize(s + 1, 0);
  readable_[s] = readable;
  // A segment after the one where the prefix ends changes nothing yet.
  if (s * segment_length_ > prefix_) return;
  uint64_t end = s * segment_length_;
  for (size_t t = s; t < readable_.size(); ++t) {
    end = t * segment_length_ + readable_[t];
    if (readable_[t] < segment_length_) break;
  }
  prefix_ = end;
}

inline void ReadMap::Forget() {
  readable_.clear();
  prefix_ = 0;
  old_views_.clear();  // each view goes back to its range's reservation first
  for (Range& range : old_ranges_) Release(&range);
  old_ranges_.clear();
}

inline void ReadMap::Reset() {
  Forget();
  Release(&range_);
}

inline bool ReadMap::Reserve(uint64_t segments, Range* range) const {
  const uint64_t bytes = segments * segment_bytes_;
  if (segments == 0 || bytes / segment_bytes_ != segments || bytes > SIZE_MAX) return false;
  range->base = platform::Current().ReserveAddresses(static_cast<size_t>(bytes));
  range->bytes = range->base != nullptr ? static_cast<size_t>(bytes) : 0;
  return range->base != nullptr;
}

inline void ReadMap::Release(Range* range) const {
  if (range->base != nullptr && !abandoned_) {
    platform::Current().ReleaseAddresses(range->base, range->bytes);
  }
  *range = Range();
}

}  // namespace zu

#endif  // ZU_FILE_READ_MAP_H_
