// CZUMultiFileArrayImp<T>: any number of mapped file segments joined into one append-only
// sequence, limited only by disk space. Element i lives in segment i / S at offset i mod S,
// S being a segment's capacity; every segment but the last is full.
//
// It implements the storage interface, so the file array and the self-spilling arrays use it
// like an in-memory container, and it offers the searches over sorted data that use the
// segments' in-memory samples (the segment heads first, then each segment's own samples).
// It can describe its files in a value tree, {"files": [{"file_path", "size"}, ...]} in
// segment order, and re-attach the files of such a description.
//
// Failure: a segment whose file cannot be created makes a range append throw
// ZuArrayNoSpaceException; a range whose end lies before its start, std::length_error; growth
// failures of a segment pass through unchanged. Reads beyond the end return a placeholder element
// whose bytes are all ones. Ownership: owns its segments, which delete their files when the storage
// lets them go. Thread-safety: not thread-safe: one writer at a time (the segments lock their
// views).
#ifndef ZU_FILE_MULTI_FILE_STORAGE_H_
#define ZU_FILE_MULTI_FILE_STORAGE_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "src/core/bisect.h"
#include "src/core/range.h"
#include "src/file/file_segment.h"
#include "src/file/imp_array_base.h"
#include "zu_data_manager/direct_read.h"

namespace zu {

// Layout: the size of its segments (FileLayout unless a test chooses a smaller one).
template <typename T, typename Layout = FileLayout>
class CZUMultiFileArrayImp final : public IZUArrayImp<T> {
 public:
  using Segment = CZUFileArrayImp<T, Layout>;
  // Elements per segment.
  static constexpr uint64_t kSegmentCapacity = Segment::kMaxSize;

  CZUMultiFileArrayImp() = default;
  ~CZUMultiFileArrayImp() override {
    NoteFailedPlacements();
    segments_.clear();  // every placed view goes back to the reservation before it is released
  }
  CZUMultiFileArrayImp(const CZUMultiFileArrayImp&) = delete;
  CZUMultiFileArrayImp& operator=(const CZUMultiFileArrayImp&) = delete;

  T* GetWritePtr(int64_t index) override;
  const T* GetReadPtr(int64_t index) override;
  T* GetBackWritePtr() override;
  const T* GetBackReadPtr() override;
  // Drops every segment; their files are deleted.
  void Clear() override;
  int64_t GetSize() override;
  // Inline: single appends are the storage's hottest path.
  void PushBack(const T& value) override {
    if (last_ == nullptr || static_cast<uint64_t>(last_->GetSize()) >= kSegmentCapacity) {
      AddSegment(value);  // a dead segment ignores the value
    }
    last_->PushBack(value);
    if (last_->dead()) RecheckDirectReads(segments_.size() - 1);
  }
  // A single append that only joins the last segment's stage; false (nothing done) otherwise.
  bool TryStage(const T& value) { return last_ != nullptr && last_->TryStage(value); }
  void Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override;
  void Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override;
  // Copies up to count elements from offset, across segment borders; count returns how many.
  void ReadData(T* dest, int64_t offset, int64_t& count) override;

  // Overwrites element index (< size) the way a segment does: samples and the segment head
  // always, the file only inside the segment's last chunk.
  void SetElement(uint64_t index, const T& value);
  // A new description of the files; the caller owns it. The files stay as they are.
  base::DictionaryValue* SaveDescription();
  // Replaces the content by the files of `description`, stopping at the first entry that is
  // not a dictionary or cannot be attached. True when the description had a "files" list.
  bool LoadDescription(const base::DictionaryValue& description);

  // --- searches over sorted data ------------------------------------------------------
  // Exact lower and upper bounds (one page or one chunk of one file is read).
  uint64_t LowerBound(const T& value);
  uint64_t UpperBound(const T& value);
  // Coarse lower bound from the samples alone: a multiple of the sample interval.
  uint64_t LocateLowerBound(const T& value);
  // Nearest sample within `tolerance` (written to *inout), else the exact lower bound.
  uint64_t FindNearest(T* inout, uint64_t tolerance);
  // Coarse floor from LocateLowerBound: the sampled position at or before the value. A value
  // below every element gives the size; the position before a segment start is the last
  // sample of the previous segment counted from that segment's own start.
  uint64_t FindFloor(const T& value);

  // True when a segment failed; such a storage is replaced rather than cleared.
  bool HasDeadSegment() const;
  // Reads that need no segment: the first direct_count() elements stand at direct_reads()[i],
  // the segments' wide read views mapped one after another into one reserved range (64-bit
  // POSIX). RefreshDirectReads() extends the count as far as the segments allow; whatever can
  // make an element read otherwise (a sample that differs from the file, a segment dying or
  // going, a pointer handed out for writing) shrinks it at once.
  uint64_t direct_count() const { return direct_count_; }
  const T* direct_reads() const { return static_cast<const T*>(reserved_.base); }
  void RefreshDirectReads();
  // The run around element `index` that reads in place (see ZuGetReadRun): the whole direct
  // prefix, else the readable part of the segment's wide read view. False when there is none.
  bool ReadRunAt(uint64_t index, ZuReadRun* run);
  // Writes what single appends staged, so that every element can be read from the files.
  void WriteStaged() {
    if (last_ != nullptr) last_->WriteStaged();
  }

  size_t SegmentCount() const { return segments_.size(); }
  Segment& segment(size_t s) { return *segments_[s]; }
  const std::vector<T>& segment_heads() const { return heads_; }

 private:
  // Segments whose wide read views may stand in the reserved range: 8 GiB of addresses for
  // the library's 128 MiB segments. Later segments are read through the segment.
  static constexpr uint64_t kPlacedSegments = 64;

  // Address space held for the placed read views. Released at the end unless a placement
  // failed: the range may then hold another mapping, which must not be taken down.
  struct ReservedRange {
    ReservedRange() = default;
    ReservedRange(const ReservedRange&) = delete;
    ReservedRange& operator=(const ReservedRange&) = delete;
    ~ReservedRange() {
      if (base != nullptr && !abandoned) platform::Current().ReleaseAddresses(base, bytes);
    }
    void* base = nullptr;    // kPlacedSegments segments' bytes, or null
    size_t bytes = 0;        // reserved at base
    bool tried = false;      // reserving was tried (it is tried once)
    bool abandoned = false;  // a placement failed: nothing more is placed, nothing released
  };

  // Opens a new segment headed by `head`; false when its file could not be created.
  bool AddSegment(const T& head);
  // Gives segment `s` its place in the reserved range (reserving it first), if it has one.
  void PlaceReadView(Segment& segment, size_t s);
  // A placement that failed abandons the reservation.
  void NoteFailedPlacements();
  // Shrinks direct_count() to what segment `s` still reads directly.
  void RecheckDirectReads(size_t s);
  // Runs `search` (Segment& -> segment-relative position) on the segment whose range may
  // hold value: the one before the first head not below it (not above it with `upper`). The
  // answer is turned into an array position; 0 when value is at or below the first head.
  template <typename Search>
  uint64_t InCandidateSegment(const T& value, bool upper, Search&& search);
  uint64_t Size() { return static_cast<uint64_t>(GetSize()); }
  // The placeholder with all its bytes set to ones, as every one is handed out.
  static T* AllOnes(T* placeholder);

  ReservedRange reserved_;  // before segments_: released after the views placed in it
  // Elements from 0 readable at direct_reads(); all in segments placed, mapped and alive.
  uint64_t direct_count_ = 0;
  std::vector<std::shared_ptr<Segment>> segments_;  // index order; all but the last full
  std::vector<T> heads_;     // heads_[s] is element s * kSegmentCapacity; one per segment
  Segment* last_ = nullptr;  // segments_.back(), one load closer for single appends; or null
  // Every segment but the last was full when the next one was added (always so for segments
  // filled by appends; a description may name shorter ones).
  bool regular_ = true;
  Placeholders<T> placeholders_;  // handed out (all ones) where no element is
};

// The arrays over a multi-file storage take the storage family's bodies.
template <typename T, typename Layout>
struct ArrayBaseFamily<CZUMultiFileArrayImp<T, Layout>> {
  using type = StorageFamily;
};

template <typename T, typename Layout>
T* CZUMultiFileArrayImp<T, Layout>::AllOnes(T* placeholder) {
  std::memset(static_cast<void*>(placeholder), 0xFF, sizeof(T));
  return placeholder;
}

template <typename T, typename Layout>
T* CZUMultiFileArrayImp<T, Layout>::GetWritePtr(int64_t index) {
  const auto i = static_cast<uint64_t>(index);
  if (i >= Size() || i / kSegmentCapacity >= segments_.size()) {
    return AllOnes(&placeholders_.write);
  }
  // What the caller writes through it may make the sampled elements differ from the file.
  direct_count_ = std::min(direct_count_, i / kSegmentCapacity * kSegmentCapacity);
  return segments_[i / kSegmentCapacity]->GetWritePtr(static_cast<int64_t>(i % kSegmentCapacity));
}

template <typename T, typename Layout>
const T* CZUMultiFileArrayImp<T, Layout>::GetReadPtr(int64_t index) {
  const auto i = static_cast<uint64_t>(index);
  if (i >= Size() || i / kSegmentCapacity >= segments_.size()) return AllOnes(&placeholders_.read);
  return segments_[i / kSegmentCapacity]->GetReadPtr(static_cast<int64_t>(i % kSegmentCapacity));
}

template <typename T, typename Layout>
T* CZUMultiFileArrayImp<T, Layout>::GetBackWritePtr() {
  if (segments_.empty()) return AllOnes(&placeholders_.back);
  return segments_.back()->GetBackWritePtr();
}

template <typename T, typename Layout>
const T* CZUMultiFileArrayImp<T, Layout>::GetBackReadPtr() {
  return GetBackWritePtr();
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::Clear() {
  NoteFailedPlacements();
  direct_count_ = 0;
  segments_.clear();
  last_ = nullptr;
  heads_.clear();
  regular_ = true;
}

template <typename T, typename Layout>
int64_t CZUMultiFileArrayImp<T, Layout>::GetSize() {
  if (last_ == nullptr) return 0;
  if (regular_) {  // every segment before the last holds kSegmentCapacity elements
    return static_cast<int64_t>((segments_.size() - 1) * kSegmentCapacity) + last_->GetSize();
  }
  int64_t total = 0;
  for (const auto& segment : segments_) total += segment->GetSize();
  return total;
}

template <typename T, typename Layout>
bool CZUMultiFileArrayImp<T, Layout>::AddSegment(const T& head) {
  if (last_ != nullptr && static_cast<uint64_t>(last_->GetSize()) < kSegmentCapacity) {
    regular_ = false;
  }
  segments_.push_back(std::make_shared<Segment>());
  last_ = segments_.back().get();
  PlaceReadView(*last_, segments_.size() - 1);
  heads_.push_back(head);
  return !segments_.back()->dead();
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::PlaceReadView(Segment& segment, size_t s) {
  if (s >= kPlacedSegments || reserved_.abandoned) return;
  if (!reserved_.tried) {
    reserved_.tried = true;
    // Only views that span a whole segment can stand one after another.
    if (!platform::Current().ViewsReachPastFileEnd()) return;
    const size_t bytes = static_cast<size_t>(kPlacedSegments * Layout::kSegmentBytes);
    reserved_.base = platform::Current().ReserveAddresses(bytes);
    reserved_.bytes = reserved_.base != nullptr ? bytes : 0;
  }
  if (reserved_.base == nullptr) return;
  segment.PlaceReadView(static_cast<unsigned char*>(reserved_.base) + s * Layout::kSegmentBytes);
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::NoteFailedPlacements() {
  for (const auto& segment : segments_) {
    if (segment->read_place_failed()) reserved_.abandoned = true;
  }
  if (reserved_.abandoned) direct_count_ = 0;
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::RefreshDirectReads() {
  if (!regular_ || reserved_.base == nullptr || reserved_.abandoned) return;
  for (size_t s = static_cast<size_t>(direct_count_ / kSegmentCapacity); s < segments_.size();
       ++s) {
    const Segment& segment = *segments_[s];
    if (segment.read_place_failed()) {
      reserved_.abandoned = true;
      direct_count_ = 0;
      return;
    }
    const uint64_t readable = segment.DirectlyReadable();
    direct_count_ = s * kSegmentCapacity + readable;
    if (readable < kSegmentCapacity) return;
  }
}

template <typename T, typename Layout>
bool CZUMultiFileArrayImp<T, Layout>::ReadRunAt(uint64_t index, ZuReadRun* run) {
  RefreshDirectReads();
  if (index < direct_count_) {
    *run = {direct_reads(), 0, direct_count_, kZuRunKeptByAppends};
    return true;
  }
  const uint64_t s = index / kSegmentCapacity;
  if (!regular_ || s >= segments_.size()) return false;
  const Segment& segment = *segments_[s];
  const uint64_t readable = segment.ReadableInPlace();
  if (index % kSegmentCapacity >= readable) return false;
  *run = {segment.wide_view(), s * kSegmentCapacity, readable, kZuRunKeptByAppends};
  return true;
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::RecheckDirectReads(size_t s) {
  const uint64_t start = s * kSegmentCapacity;
  if (s >= segments_.size() || direct_count_ <= start) return;
  direct_count_ = std::min(direct_count_, start + segments_[s]->DirectlyReadable());
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::Assign(const ZuArrayIter<T>& first,
                                             const ZuArrayIter<T>& last) {
  this->Clear();
  this->Append(first, last);
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::Append(const ZuArrayIter<T>& first,
                                             const ZuArrayIter<T>& last) {
  ArrayIterBase* source = first.base();
  ArrayIterBase* end = last.base();
  // An end before the start describes no range: refused like an impossible length.
  if (RangeCount(source, end) < 0) throw std::length_error("range ends before it starts");
  // However it ends, the segment written last may have died on the way.
  struct Recheck {
    CZUMultiFileArrayImp* self;
    ~Recheck() {
      if (!self->segments_.empty()) self->RecheckDirectReads(self->segments_.size() - 1);
    }
  } recheck{this};
  while (source->GetPosition() != end->GetPosition()) {
    if (segments_.empty() ||
        static_cast<uint64_t>(segments_.back()->GetSize()) > kSegmentCapacity - 1) {
      const void* current = source->GetCurrent();
      if (current == nullptr) return;  // the source ended before its announced end
      T head;
      std::memcpy(static_cast<void*>(&head), current, sizeof(T));
      if (!AddSegment(head)) throw ZuArrayNoSpaceException();
    }
    Segment& segment = *segments_.back();
    if (segment.dead()) return;
    const unsigned int before = source->GetPosition();
    segment.Append(first, last);
    if (source->GetPosition() == before) return;  // nothing taken: stop rather than spin
  }
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::ReadData(T* dest, int64_t offset, int64_t& count) {
  const uint64_t want = count > 0 ? static_cast<uint64_t>(count) : 0;
  const uint64_t total = Size();
  count = 0;
  if (offset < 0 || static_cast<uint64_t>(offset) > total) return;
  auto position = static_cast<uint64_t>(offset);
  uint64_t remaining = want;
  while (remaining > 0 && position < total) {
    const uint64_t s = position / kSegmentCapacity;
    if (s >= segments_.size()) break;
    const uint64_t within = position % kSegmentCapacity;
    int64_t k =
        static_cast<int64_t>(std::min({remaining, kSegmentCapacity - within, total - position}));
    const int64_t asked = k;
    segments_[s]->ReadData(dest, static_cast<int64_t>(within), k);
    dest += k;
    position += static_cast<uint64_t>(k);
    remaining -= static_cast<uint64_t>(k);
    if (k < asked) break;
  }
  count = static_cast<int64_t>(want - remaining);
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::SetElement(uint64_t index, const T& value) {
  const uint64_t s = index / kSegmentCapacity;
  if (index >= Size() || s >= segments_.size()) return;
  if (index % kSegmentCapacity == 0) heads_[s] = value;
  segments_[s]->SetElement(index % kSegmentCapacity, value);
  RecheckDirectReads(static_cast<size_t>(s));  // a sample may now differ from the file
}

template <typename T, typename Layout>
base::DictionaryValue* CZUMultiFileArrayImp<T, Layout>::SaveDescription() {
  auto* description = new base::DictionaryValue();
  auto* files = new base::ListValue();
  for (const auto& segment : segments_) files->Append(segment->Describe());
  description->Set("files", files);
  return description;
}

template <typename T, typename Layout>
bool CZUMultiFileArrayImp<T, Layout>::LoadDescription(const base::DictionaryValue& description) {
  Clear();
  base::ListValue* files = nullptr;
  if (!description.GetList("files", &files) || files == nullptr) return false;
  for (size_t i = 0; i < files->GetSize(); ++i) {
    base::DictionaryValue* entry = nullptr;
    if (!files->GetDictionary(i, &entry) || entry == nullptr) break;
    auto segment = std::make_shared<Segment>();
    PlaceReadView(*segment, segments_.size());
    if (!segment->Attach(*entry)) {
      if (segment->read_place_failed()) reserved_.abandoned = true;
      break;
    }
    if (last_ != nullptr && static_cast<uint64_t>(last_->GetSize()) < kSegmentCapacity) {
      regular_ = false;
    }
    heads_.push_back(*segment->GetReadPtr(0));
    segments_.push_back(segment);
    last_ = segment.get();
  }
  return true;
}

template <typename T, typename Layout>
template <typename Search>
uint64_t CZUMultiFileArrayImp<T, Layout>::InCandidateSegment(const T& value, bool upper,
                                                             Search&& search) {
  auto head = [this](uint64_t i) -> const T& { return heads_[i]; };
  const uint64_t h =
      upper ? BisectUpper(heads_.size(), value, head) : BisectLower(heads_.size(), value, head);
  if (h == 0 || h - 1 >= segments_.size()) return 0;
  return (h - 1) * kSegmentCapacity + search(*segments_[h - 1]);
}

template <typename T, typename Layout>
uint64_t CZUMultiFileArrayImp<T, Layout>::LowerBound(const T& value) {
  return InCandidateSegment(value, false,
                            [&](Segment& segment) { return segment.SegmentLowerBound(value); });
}

template <typename T, typename Layout>
uint64_t CZUMultiFileArrayImp<T, Layout>::UpperBound(const T& value) {
  // A value at or above every element of the candidate segment answers the start of the next
  // segment, also past the last one: the position where an element above it would go once
  // that segment is full. Callers that want the size compare with GetSize themselves.
  return InCandidateSegment(value, true, [&](Segment& segment) {
    const uint64_t r = segment.SegmentUpperBound(value);
    return r >= static_cast<uint64_t>(segment.GetSize()) ? kSegmentCapacity : r;
  });
}

template <typename T, typename Layout>
uint64_t CZUMultiFileArrayImp<T, Layout>::LocateLowerBound(const T& value) {
  return InCandidateSegment(
      value, false, [&](Segment& segment) { return segment.SegmentLocateLowerBound(value); });
}

template <typename T, typename Layout>
uint64_t CZUMultiFileArrayImp<T, Layout>::FindNearest(T* inout, uint64_t tolerance) {
  const T value = *inout;
  return InCandidateSegment(
      value, false, [&](Segment& segment) { return segment.SegmentFindNearest(inout, tolerance); });
}

template <typename T, typename Layout>
uint64_t CZUMultiFileArrayImp<T, Layout>::FindFloor(const T& value) {
  const uint64_t n = Size();
  if (n == 0 || segments_.empty()) return 0;
  const uint64_t i = LocateLowerBound(value);
  if (i > n) return segments_.back()->LastSamplePosition();
  if (*GetReadPtr(static_cast<int64_t>(i)) == value) return i;
  if (i == 0) return n;
  const uint64_t s = i / kSegmentCapacity;
  const uint64_t o = i % kSegmentCapacity;
  if (o == 0) return s >= 1 ? segments_[s - 1]->LastSamplePosition() : 0;
  const uint64_t interval = segments_[0]->sample_interval();
  const uint64_t p = o % interval == 0 ? o - interval : o / interval * interval;
  return s * kSegmentCapacity + p;
}

template <typename T, typename Layout>
bool CZUMultiFileArrayImp<T, Layout>::HasDeadSegment() const {
  return std::any_of(segments_.begin(), segments_.end(),
                     [](const std::shared_ptr<Segment>& segment) { return segment->dead(); });
}

#define ZU_DECLARE_MULTI_FILE_STORAGE(T) extern template class CZUMultiFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_MULTI_FILE_STORAGE)
#undef ZU_DECLARE_MULTI_FILE_STORAGE

}  // namespace zu

#endif  // ZU_FILE_MULTI_FILE_STORAGE_H_
