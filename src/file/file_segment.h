// CZUFileArrayImp<T>: one append-only run of up to 128 MiB of elements kept in one temporary
// file of the data directory, the unit from which the multi-file storage is built.
//
// It joins three parts and keeps the segment's own state (size, capacity, the cached last
// element, the dead / ready / flush-pending flags) beside them:
//  * the mapped file (MappedFile): the file, its mapping object, a write view of one chunk
//    (1 MiB) on the chunk that holds the end of the data, and a read view;
//  * the samples (SampleIndex): in-memory copies of every element at a chunk boundary and at
//    every page, so that a search over sorted data narrows down without touching the file;
//  * the append stage (AppendStage): elements appended one at a time, written to the file in
//    page-aligned runs, which spares a page fault per page of the write view. Everything that
//    looks at the file (reads, searches, descriptions, the write view) writes the stage first
//    or answers from it, so the stage is never visible.
// The file grows in chunk steps; its blocks are reserved before they are mapped for writing,
// so running out of disk is an error (ZuArrayNoSpaceException from growth), never a fault.
//
// Failure: a segment whose file cannot be created, grown or mapped tears itself down and turns
// dead: it forgets its elements, ignores every later operation and hands out placeholder
// elements. Only attaching it to another file revives it.
//
// Ownership: the segment owns its file and deletes it when destroyed (also a file it was
// attached to). Element addresses it returns stay valid until the next remap of that view.
// Thread-safety: two locks guard the views (read view: read lock; write view, stage, size and
// samples during appends: write lock). Growth takes write then read; destruction, attach and
// the sample searches take read then write. One writer at a time; do not destroy or attach
// while appending. A single append that only joins the stage (no sample, no file write, no
// view) takes no lock: it is the one writer's own state, and the lock's atomic operation would
// cost more than the append. Nor does a read of a file element through a wide read view, which
// never moves, nor a LowerBound or UpperBound search through one (the samples change only
// with appends, which come from the one writer).
#ifndef ZU_FILE_FILE_SEGMENT_H_
#define ZU_FILE_FILE_SEGMENT_H_

#include <cstdint>
#include <string>

#include "src/core/critical_section.h"
#include "src/core/element_list.h"
#include "src/core/range.h"
#include "src/file/append_stage.h"
#include "src/file/array_imp.h"
#include "src/file/mapped_file.h"
#include "src/file/read_map.h"
#include "src/file/sample_index.h"
#include "zu_data_manager/values.h"

namespace zu {

// Bytes of elements gathered by single appends before they go to the file in one write.
constexpr uint64_t kStageBytes = 0x10000;

// Layout: the size of the segment (FileLayout unless a test chooses a smaller one). The bodies
// are in file_segment_inl.h; the library instantiates the default layout for every element
// type.
template <typename T, typename Layout = FileLayout>
class CZUFileArrayImp final : public IZUArrayImp<T> {
  static_assert(Layout::kSegmentBytes >= kChunkBytes && Layout::kSegmentBytes % kChunkBytes == 0,
                "a segment is a whole number of chunks");

 public:
  // Elements per view / growth step, and per segment.
  static constexpr uint64_t kChunkLength = kChunkBytes / sizeof(T);
  static constexpr uint64_t kMaxSize = Layout::kSegmentBytes / sizeof(T);
  // Elements per stage; a stage-aligned run never crosses a chunk.
  static constexpr uint64_t kStageLength =
      kStageBytes / sizeof(T) < kChunkLength ? kStageBytes / sizeof(T) : kChunkLength;

  // Creates the segment's file in the data directory (creating the directory first). A file
  // that cannot be created leaves the segment dead; nothing is thrown.
  CZUFileArrayImp();
  ~CZUFileArrayImp() override;
  CZUFileArrayImp(const CZUFileArrayImp&) = delete;
  CZUFileArrayImp& operator=(const CZUFileArrayImp&) = delete;

  // Only the last chunk is writable, and only while the write view covers it; any other index
  // gets a placeholder. Writes through it bypass the samples and the cached last value.
  T* GetWritePtr(int64_t index) override;
  // Sampled indexes are answered from memory; others map the read view on demand.
  const T* GetReadPtr(int64_t index) override;
  // The common random read, inline: element `index` straight from a wide read view, which is
  // mapped once and moves only when the segment dies or drops its file (and is null then);
  // null for an element that is sampled, staged or beyond the size (GetReadPtr answers those).
  const T* ReadFromWideView(uint64_t index) const {
    if (!file_.wide_read_view() || index >= size_ || index >= stage_.first() ||
        samples_.IsSampled(index)) {
      return nullptr;
    }
    const void* wide = file_.read_view();
    return wide != nullptr ? static_cast<const T*>(wide) + index : nullptr;
  }
  // Leading elements that read straight from the file through a read view at the place its
  // read map gave (see UseReadMap): none unless that view is mapped there and no sample
  // differs from the file; staged elements are not in the file yet.
  uint64_t DirectlyReadable() const { return file_.read_view_placed() ? ReadableInPlace() : 0; }
  // Leading elements that read straight from the file through the wide read view, wherever
  // it is mapped (see wide_view()).
  uint64_t ReadableInPlace() const {
    if (dead_ || !samples_match_file_ || !file_.wide_read_view() || file_.read_view() == nullptr) {
      return 0;
    }
    return size_ < stage_.first() ? size_ : stage_.first();
  }
  // The wide read view as elements, or null; it stays in place while the segment lives.
  const T* wide_view() const {
    return file_.wide_read_view() ? static_cast<const T*>(file_.read_view()) : nullptr;
  }
  // Writes the elements that single appends staged to the file.
  void WriteStaged() { WriteStage(); }
  // Whether the chunks that small writes complete are mapped into the wide read view at once,
  // sparing the first reads their faults (on by default). A bulk move that nobody reads while
  // it runs turns it off: the mapping would cost it more than the faults it spares.
  void MapSmallWrites(bool on) { map_small_writes_ = on; }
  // Before the wide read view is first mapped: the read map this segment reports to, as its
  // segment `index`, and where the view goes there (null: wherever the system likes).
  void UseReadMap(ReadMap* map, size_t index, void* place) {
    read_map_ = map;
    read_index_ = index;
    file_.PlaceReadView(place);
  }
  // Maps the wide read view again at `address` and hands the old one, still mapped, to *old
  // (the read map keeps it while runs over it may be in use). False when it cannot.
  bool MoveReadView(void* address, ScopedMapping* old) { return file_.MoveReadView(address, old); }
  // The cached last appended value (not the file data).
  T* GetBackWritePtr() override { return dead_ ? &placeholders_.back : &last_value_; }
  const T* GetBackReadPtr() override { return GetBackWritePtr(); }
  // Size to 0, samples dropped; the file keeps its length so refilling does not grow it.
  void Clear() override;
  int64_t GetSize() override { return static_cast<int64_t>(size_); }
  // Appends one element; a full segment ignores it.
  void PushBack(const T& value) override {
    if (!TryStage(value)) PushBackSlow(value);
  }
  // The common case of a single append, inline: it touches neither a view, nor the file, nor
  // the samples, and takes no lock (appends come from one thread at a time). False, with
  // nothing done, for everything else: PushBack takes the write lock then.
  bool TryStage(const T& value) {
    const uint64_t index = size_;
    if (!stage_.TryPut(index, value)) return false;
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
  // Exact upper bound, as a bisection of the whole chunk would find it.
  uint64_t SegmentUpperBound(const T& value);
  // The first sampled position whose sample is not less than value; reads no file data.
  uint64_t SegmentLocateLowerBound(const T& value);
  // The sample within `tolerance` of *inout (then copied into it), else the exact lower bound
  // from one page of file data (*inout unchanged).
  uint64_t SegmentFindNearest(T* inout, uint64_t tolerance);
  // Position of the last page sample, counted from the segment's start; 0 without samples.
  uint64_t LastSamplePosition() const { return samples_.LastPosition(); }

  bool dead() const { return dead_; }
  // True when the read view covers the whole segment rather than one chunk.
  bool wide_read_view() const { return file_.wide_read_view(); }
  bool ready() const { return ready_; }
  uint64_t sample_interval() const { return samples_.interval(); }
  const std::wstring& path() const { return file_.path(); }
  uint64_t capacity() const { return capacity_; }

 private:
  using Samples = SampleIndex<T, kChunkLength>;
  enum class View { kRead, kWrite };
  // What a teardown gives up besides the elements (staged ones too) and the views.
  enum class Teardown {
    kDie,        // the segment turns dead; the file stays open so that destruction deletes it
    kCloseFile,  // the mapping object and the file, which is deleted
  };

  // The one teardown: forgets every element and unmaps the views, then as `what` says.
  void TearDown(Teardown what);
  // The one report of what the segment reads in place, to its read map: every change that can
  // change it (the file taking appended elements, a sample that differs from the file, failing,
  // clearing, attaching, the read view mapped) ends with it.
  void ReportReadable() {
    if (read_map_ != nullptr) {
      read_map_->Report(read_index_, DirectlyReadable(), file_.read_place_failed());
    }
  }
  // Reports when it goes out of scope, however the operation ends.
  struct ReportWhenDone {
    CZUFileArrayImp* segment;
    ~ReportWhenDone() { segment->ReportReadable(); }
  };
  // Maps the chosen view on the chunk of `position` (the write view takes the stage and is
  // written back first); tears the segment down on failure.
  bool MapView(uint64_t position, View view);
  // Makes the file hold `capacity` elements and maps both views. Throws
  // ZuArrayNoSpaceException (after releasing the locks) when the file cannot grow.
  bool Grow(uint64_t capacity);
  // Maps the read view on `chunk` if it is elsewhere (a wide view once); the address of the
  // chunk's first element, or null when mapping fails.
  const T* ReadChunk(uint64_t chunk);
  // The write view as elements when it covers the chunk of `index`; null otherwise.
  T* WriteViewAt(uint64_t index) const {
    return static_cast<T*>(file_.WriteViewOn(index / kChunkLength));
  }
  // Maps the write view on the chunk of `index` unless it is there already.
  bool WriteViewTo(uint64_t index) {
    return WriteViewAt(index) != nullptr || MapView(index, View::kWrite);
  }
  // Writes the staged elements to the file (through the write view should the write be
  // refused: the blocks are reserved, so the view always takes them). No-op when none.
  void WriteStage();
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
  // Exact lower bound of value within `page`, read through the read view.
  uint64_t ScanPage(const typename Samples::Page& page, const T& value);
  // GetWritePtr without its note that the samples may no longer hold what the file holds.
  T* WritableAt(uint64_t index);
  // Runs `search` with the read view: without a lock when the view is wide and mapped (it
  // never moves while the segment has its file), else under the read lock. A lock's atomic
  // operation would also make each search wait for every memory access before it.
  template <typename Search>
  uint64_t WithReadView(Search&& search) {
    if (file_.wide_read_view() && file_.read_view() != nullptr) return search();
    CZUScopedLock read(read_lock_);
    return search();
  }

  // The fields of the inline paths (single appends, lock-free reads) come first.
  uint64_t size_ = 0;                       // size_ <= capacity_ <= kMaxSize
  AppendStage<T, kStageLength> stage_;      // single appends not yet in the file
  T last_value_{};                          // copy of the last appended element
  MappedFile file_{Layout::kSegmentBytes};  // the file, its mapping object and both views
  Samples samples_;                         // the samples of every element appended
  // Locks, taken in the order the thread-safety note above gives.
  CZUCriticalSection read_lock_;   // guards the read view
  CZUCriticalSection write_lock_;  // guards the write view, the stage, size_ and the samples
  uint64_t capacity_ = 0;          // elements the file is sized for; multiple of chunk
  Placeholders<T> placeholders_;   // handed out where no element can be
  bool dead_ = false;              // failed: every operation is a no-op
  bool flush_pending_ = false;     // flush the write view after the next append
  bool ready_ = false;             // file open and samples valid
  // False once a sampled element may differ from its sample (a write through GetWritePtr, or
  // SetElement outside the last chunk); true again when the samples are dropped.
  bool samples_match_file_ = true;
  bool map_small_writes_ = true;  // see MapSmallWrites
  ReadMap* read_map_ = nullptr;   // told what the segment reads in place; null: nobody
  size_t read_index_ = 0;         // this segment's number there
};

#define ZU_DECLARE_FILE_SEGMENT(T) extern template class CZUFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_FILE_SEGMENT)
#undef ZU_DECLARE_FILE_SEGMENT

}  // namespace zu

#endif  // ZU_FILE_FILE_SEGMENT_H_
