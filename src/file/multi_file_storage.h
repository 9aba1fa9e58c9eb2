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
  // the readable prefix of the read map (the segments' wide read views one after another in
  // one reserved range, 64-bit POSIX). It is always up to date: every segment reports there.
  uint64_t direct_count() const { return read_map_.prefix(); }
  const T* direct_reads() const { return static_cast<const T*>(read_map_.base()); }
  // The run around element `index` that reads in place (see ZuGetReadRun), once the staged
  // elements are written: the whole readable prefix, else the readable part of the segment's
  // wide read view. False when there is none.
  bool ReadRunAt(uint64_t index, ZuReadRun* run);
  // See Segment::MapSmallWrites; for the segments there are and those to come.
  void MapSmallWrites(bool on) {
    map_small_writes_ = on;
    for (const auto& segment : segments_) segment->MapSmallWrites(on);
  }

  size_t SegmentCount() const { return segments_.size(); }
  Segment& segment(size_t s) { return *segments_[s]; }
  const std::vector<T>& segment_heads() const { return heads_; }

 private:
  // Opens a new segment headed by `head`; false when its file could not be created.
  bool AddSegment(const T& head);
  // Hooks a new segment, the next after segments_, up to the read map (its place there).
  void JoinReadMap(Segment& segment);
  // Runs `search` (Segment& -> segment-relative position) on the segment whose range may
  // hold value: the one before the first head not below it (not above it with `upper`). The
  // answer is turned into an array position; 0 when value is at or below the first head.
  template <typename Search>
  uint64_t InCandidateSegment(const T& value, bool upper, Search&& search);
  uint64_t Size() { return static_cast<uint64_t>(GetSize()); }
  // The placeholder with all its bytes set to ones, as every one is handed out.
  static T* AllOnes(T* placeholder);

  // Where the segments' read views stand and how many elements read in place; before
  // segments_, so that the views placed in its ranges go first.
  ReadMap read_map_{Layout::kSegmentBytes, kSegmentCapacity, Layout::kFirstPlacedSegments};
  std::vector<std::shared_ptr<Segment>> segments_;  // index order; all but the last full
  std::vector<T> heads_;     // heads_[s] is element s * kSegmentCapacity; one per segment
  Segment* last_ = nullptr;  // segments_.back(), one load closer for single appends; or null
  // Every segment but the last was full when the next one was added (always so for segments
  // filled by appends; a description may name shorter ones).
  bool regular_ = true;
  bool map_small_writes_ = true;  // handed to every segment (see MapSmallWrites)
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
  segments_.clear();
  read_map_.Forget();
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
  auto segment = std::make_shared<Segment>();
  JoinReadMap(*segment);
  segments_.push_back(std::move(segment));
  last_ = segments_.back().get();
  heads_.push_back(head);
  return !segments_.back()->dead();
}

template <typename T, typename Layout>
void CZUMultiFileArrayImp<T, Layout>::JoinReadMap(Segment& segment) {
  segment.MapSmallWrites(map_small_writes_);
  const size_t s = segments_.size();
  void* place = read_map_.PlaceFor(s, [this](size_t t, void* address, ScopedMapping* old) {
    return segments_[t]->MoveReadView(address, old);
  });
  segment.UseReadMap(&read_map_, s, place);
}

template <typename T, typename Layout>
bool CZUMultiFileArrayImp<T, Layout>::ReadRunAt(uint64_t index, ZuReadRun* run) {
  if (last_ != nullptr) last_->WriteStaged();  // so that every element is in the files
  if (index < direct_count()) {
    *run = {direct_reads(), 0, direct_count(), kZuRunKeptByAppends};
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
    JoinReadMap(*segment);
    if (!segment->Attach(*entry)) break;
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
