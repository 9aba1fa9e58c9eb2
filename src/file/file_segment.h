// CZUFileArrayImp<T>: one append-only run of up to 128 MiB of elements kept in one temporary
// file of the data directory, the unit from which the multi-file storage is built.
//
// The file is reached through two views: a write view of one chunk (1 MiB) on the chunk that
// holds the end of the data, and a read view. Where the platform lets a view reach past the
// end of its file (64-bit POSIX), the read view covers the whole segment, is mapped once and
// never moves, so random reads cost no remapping; elsewhere it is one chunk long and follows
// the last random read. Read views are advised for random access (a search touches one page,
// which is all that should be read from disk); bulk copies ask for their range up front.
// Elements appended one at a time are gathered in a small stage and written to the file in
// page-aligned runs, which spares a page fault per page of the write view; everything that
// looks at the file (reads, searches, descriptions, the write view) writes the stage first or
// answers from it, so the stage is never visible. Besides
// the file it keeps in memory a copy of every element whose index is a multiple of the chunk
// length (boundary samples) and of the sample interval, one page of data (page samples, one
// vector per chunk), so that a search over sorted data narrows down without touching the
// file. The file grows in chunk steps; its blocks are reserved before they are mapped for
// writing, so running out of disk is an error (ZuArrayNoSpaceException from growth), never a
// fault.
//
// Failure: a segment whose file cannot be created, grown or mapped resets itself and turns
// dead: it forgets its elements, ignores every later operation and hands out dummy elements.
// Only attaching it to another file revives it.
//
// Ownership: the segment owns its file and deletes it when destroyed (also a file it was
// attached to). Element addresses it returns stay valid until the next remap of that view.
// Thread-safety: two locks guard the views (read view: read lock; write view, stage, size and
// samples during appends: write lock). Growth takes write then read; destruction and attach
// take read then write. One writer at a time; do not destroy or attach while appending. A
// single append that only joins the stage (no sample, no file write, no view) takes no lock:
// it is the one writer's own state, and the lock's atomic operation would cost more than the
// append. Nor does a read of a file element through a wide read view, which never moves.
#ifndef ZU_FILE_FILE_SEGMENT_H_
#define ZU_FILE_FILE_SEGMENT_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/file/array_imp.h"
#include "src/core/critical_section.h"
#include "src/core/element_list.h"
#include "src/core/range.h"
#include "src/memory/xdeque.h"
#include "src/platform/platform.h"
#include "zu_data_manager/values.h"

namespace zu {

// Bytes of file data behind one view, and the step by which a file grows.
constexpr uint64_t kChunkBytes = 0x100000;
// Bytes of data one segment (one file) holds at most.
constexpr uint64_t kSegmentBytes = 0x8000000;
// Vectors per block of the page-sample container.
constexpr unsigned int kPageSampleBlock = 1024;

// Bytes of elements gathered by single appends before they go to the file in one write.
constexpr uint64_t kStageBytes = 0x10000;

template <typename T>
class CZUFileArrayImp final : public IZUArrayImp<T> {
 public:
  // Elements per view / growth step, and per segment.
  static constexpr uint64_t kChunkLength = kChunkBytes / sizeof(T);
  static constexpr uint64_t kMaxSize = kSegmentBytes / sizeof(T);
  // Elements per stage; a stage-aligned run never crosses a chunk.
  static constexpr uint64_t kStageLength =
      kStageBytes / sizeof(T) < kChunkLength ? kStageBytes / sizeof(T) : kChunkLength;
  using PageSamples = std::xdeque<std::vector<T>, kPageSampleBlock>;

  // Creates the segment's file in the data directory (creating the directory first). A file
  // that cannot be created leaves the segment dead; nothing is thrown.
  CZUFileArrayImp();
  ~CZUFileArrayImp() override;
  CZUFileArrayImp(const CZUFileArrayImp&) = delete;
  CZUFileArrayImp& operator=(const CZUFileArrayImp&) = delete;

  // Only the last chunk is writable, and only while the write view covers it; any other index
  // gets a dummy. Writes through it bypass the samples and the cached last value.
  T* GetWritePtr(int64_t index) override;
  // Sampled indexes are answered from memory; others map the read view on demand.
  const T* GetReadPtr(int64_t index) override;
  // The cached last appended value (not the file data).
  T* GetBackWritePtr() override;
  const T* GetBackReadPtr() override;
  // Size to 0, samples dropped; the file keeps its length so refilling does not grow it.
  void Clear() override;
  int64_t GetSize() override { return static_cast<int64_t>(size_); }
  // Appends one element; a full segment ignores it.
  void PushBack(const T& value) override {
    if (!TryStage(value)) PushBackSlow(value);
  }
  // The common case of a single append, inline: an element below fast_end_ joins a stage run
  // already begun, records no sample and does not complete the run, so it touches neither a
  // view, nor the file, nor the samples and takes no lock (appends come from one thread at a
  // time). False, with nothing done, for everything else: PushBack takes the write lock then.
  bool TryStage(const T& value) {
    const uint64_t index = size_;
    if (index >= fast_end_) return false;
    stage_[index % kStageLength] = value;
    size_ = index + 1;
    last_value_ = value;
    return true;
  }
  void Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override;
  // Appends up to the segment's capacity (the rest is left in the source) and leaves `first`
  // after the last element taken.
  void Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override;
  void ReadData(T* dest, int64_t offset, int64_t& count) override;

  // Overwrites element `index`: the file only inside the last chunk, the samples and the
  // cached last value always. Reads answered from a sample therefore see the new value while
  // reads from the file may still see the old one.
  void SetElement(uint64_t index, const T& value);

  // A new dictionary {"file_path", "size"} describing the file; the caller owns it. The next
  // append flushes what it wrote.
  base::DictionaryValue* Describe();
  // Gives up the segment's own file and takes over the one described by `entry`. Only a file
  // this library could have made is accepted ("{GUID}.KMB", a regular file, not a link, long
  // enough for the stated size); anything else is treated as missing, leaving the file
  // untouched and the segment dead. False when nothing was attached.
  bool Attach(const base::DictionaryValue& entry);

  // --- searches over sorted data (results are segment-relative) ------------------------
  // Exact lower bound: samples choose the page, one page of file data is read.
  uint64_t SegmentLowerBound(const T& value);
  // Exact upper bound; skips the page samples and searches the whole chunk.
  uint64_t SegmentUpperBound(const T& value);
  // The first sampled position whose sample is not less than value; reads no file data.
  uint64_t SegmentLocateLowerBound(const T& value);
  // The sample within `tolerance` of *inout (then copied into it), else the exact lower bound
  // from one page of file data (*inout unchanged).
  uint64_t SegmentFindNearest(T* inout, uint64_t tolerance);
  // Position of the last page sample, counted from the segment's start; 0 without samples.
  uint64_t LastSamplePosition();

  bool dead() const { return dead_; }
  // True when the read view covers the whole segment rather than one chunk.
  bool wide_read_view() const { return wide_read_view_; }
  bool ready() const { return ready_; }
  uint64_t sample_interval() const { return sample_interval_; }
  const std::wstring& path() const { return path_; }
  uint64_t capacity() const { return capacity_; }

 private:
  enum class View { kRead, kWrite };

  // Forgets every element and turns the segment dead (views unmapped, file kept open so the
  // destructor can delete it).
  void Reset();
  // Maps the chosen view on the chunk of `position`; resets the segment on failure.
  bool MapView(uint64_t position, View view);
  // Makes the file hold `capacity` elements and maps both views. Throws
  // ZuArrayNoSpaceException (after releasing the locks) when the file cannot grow.
  bool Grow(uint64_t capacity);
  // Maps the read view on `chunk` if it is elsewhere (a wide view once); the address of the
  // chunk's first element, or null when mapping fails.
  const T* ReadChunk(uint64_t chunk);
  // Bytes one read view spans.
  size_t ReadViewBytes() const { return wide_read_view_ ? kSegmentBytes : kChunkBytes; }
  // Writes the staged elements to the file (through the write view should the write be
  // refused: the blocks are reserved, so the view always takes them). No-op when none.
  void WriteStage();
  // Forgets the staged elements (the segment is dropping its file or its elements).
  void DropStage();
  // Records the samples for element `index` (the next one to be appended).
  void RecordSamples(uint64_t index, const T& value);
  // The last element a file write of AppendRun took from the source, and the size after it.
  struct BulkTail {
    T value{};
    uint64_t end = 0;  // 0: no file write yet
  };
  // Writes up to `count` source elements into the current chunk at size_, advancing size_ and
  // `first`: the contiguous part with one file write (noted in `tail`), the rest through the
  // write view. With `guarded`, an element whose copy throws is reported and skipped.
  void AppendRun(ArrayIterBase* first, ContiguousRange* contiguous, uint64_t count, bool guarded,
                 BulkTail* tail);
  void FlushIfPending();
  // PushBack for every case that may grow, map, sample, write or flush.
  void PushBackSlow(const T& value);
  void ReleaseFile();

  // Exact lower bound over [start, start + len) of chunk `chunk`, which the read view holds.
  uint64_t ScanPage(uint64_t chunk, uint64_t start, const T& value);
  // Chunk whose range may hold value: the one before the first boundary sample >= value.
  // False when value is at or below the first sample (the answer is 0 then).
  bool ChunkBelow(const T& value, uint64_t* chunk);

  platform::FileHandle file_ = platform::kInvalidFile;  // open while the segment has a file
  std::wstring path_;  // the owned file's path; empty when none is owned
  platform::MappingHandle mapping_ = platform::kNoMapping;  // sized to mapped_capacity_
  CZUCriticalSection read_lock_;                            // guards read_view_ and read_position_
  CZUCriticalSection write_lock_;  // guards write_view_, size_ and samples on append
  T* read_view_ = nullptr;    // the whole segment, or chunk read_position_ / kChunkLength; or null
  T* write_view_ = nullptr;   // chunk write_chunk_, or null
  uint64_t write_chunk_ = 0;  // chunk the write view covers when mapped
  uint64_t size_ = 0;         // size_ <= capacity_ <= mapped_capacity_
  uint64_t read_position_ = 0;       // last index read through the read view
  uint64_t capacity_ = 0;            // elements the file is sized for; multiple of chunk
  T last_value_{};                   // copy of the last appended element
  std::vector<T> boundary_samples_;  // element k * kChunkLength for every chunk k < size
  PageSamples page_samples_;         // per chunk: elements at multiples of the interval
  uint64_t mapped_capacity_ = 0;     // elements covered by mapping_
  uint64_t sample_interval_ = 1;     // power of two dividing kChunkLength
  uint64_t sample_mask_ = 0;         // sample_interval_ - 1
  unsigned sample_shift_ = 0;        // log2(sample_interval_)
  std::unique_ptr<T[]> stage_;       // single appends not yet written; slot = index mod stage
  // Elements from stage_first_ to size_ are in stage_ (not yet in the file); kNoStage: none.
  static constexpr uint64_t kNoStage = ~uint64_t{0};
  uint64_t stage_first_ = kNoStage;
  // Single appends at indexes below this take the inline path: the stage run holding size_
  // has begun, and neither a sample index nor the run's last index lies in [size_, fast_end_).
  // Nothing above size_ while the stage is empty, the segment is dead or a flush is pending.
  uint64_t fast_end_ = 0;
  bool wide_read_view_ = false;      // the read view spans the segment from offset 0
  bool dead_ = false;                // failed: every operation is a no-op
  bool flush_pending_ = false;       // flush the write view after the next append
  bool ready_ = false;               // file open and samples valid
};

#define ZU_DECLARE_FILE_SEGMENT(T) extern template class CZUFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_FILE_SEGMENT)
#undef ZU_DECLARE_FILE_SEGMENT

}  // namespace zu

#endif  // ZU_FILE_FILE_SEGMENT_H_
