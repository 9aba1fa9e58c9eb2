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

#include <cstdint>
#include <memory>
#include <vector>

#include "src/file/file_segment.h"

namespace zu {

template <typename T>
class CZUMultiFileArrayImp final : public IZUArrayImp<T> {
 public:
  using Segment = CZUFileArrayImp<T>;
  // Elements per segment.
  static constexpr uint64_t kSegmentCapacity = Segment::kMaxSize;

  CZUMultiFileArrayImp() = default;
  ~CZUMultiFileArrayImp() override = default;
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
  size_t SegmentCount() const { return segments_.size(); }
  Segment& segment(size_t s) { return *segments_[s]; }
  const std::vector<T>& segment_heads() const { return heads_; }

 private:
  // Opens a new segment headed by `head`; false when its file could not be created.
  bool AddSegment(const T& head);
  // Runs `search` (Segment& -> segment-relative position) on the segment whose range may
  // hold value: the one before the first head not below it (not above it with `upper`). The
  // answer is turned into an array position; 0 when value is at or below the first head.
  template <typename Search>
  uint64_t InCandidateSegment(const T& value, bool upper, Search&& search);
  uint64_t Size() { return static_cast<uint64_t>(GetSize()); }
  // The placeholder with all its bytes set to ones, as every one is handed out.
  static T* AllOnes(T* placeholder);

  std::vector<std::shared_ptr<Segment>> segments_;  // index order; all but the last full
  std::vector<T> heads_;          // heads_[s] is element s * kSegmentCapacity; one per segment
  Segment* last_ = nullptr;       // segments_.back(), one load closer for single appends; or null
  Placeholders<T> placeholders_;  // handed out (all ones) where no element is
};

#define ZU_DECLARE_MULTI_FILE_STORAGE(T) extern template class CZUMultiFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_MULTI_FILE_STORAGE)
#undef ZU_DECLARE_MULTI_FILE_STORAGE

}  // namespace zu

#endif  // ZU_FILE_MULTI_FILE_STORAGE_H_
