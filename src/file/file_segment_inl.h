// The bodies of CZUFileArrayImp<T, Layout> (see file_segment.h). The library instantiates
// the default layout in file_segment.cc; include this file only to instantiate another one.
#ifndef ZU_FILE_FILE_SEGMENT_INL_H_
#define ZU_FILE_FILE_SEGMENT_INL_H_

#include <algorithm>
#include <cstring>
#include <string>

#include "src/core/range.h"
#include "src/file/data_directory.h"
#include "src/file/file_segment.h"

namespace zu {
namespace segment_internal {

inline constexpr char kWriteConflictMessage[] = "write conflict";
// A copy out of the file at least this long asks the system for its whole range up front.
inline constexpr uint64_t kAdviseBytes = 0x10000;
// A file write at least this long is mapped into a wide read view at once.
inline constexpr uint64_t kPopulateBytes = 0x200000;

// What was just written is in the page cache: mapping it into the wide read view now costs less
// than the page faults it spares the first searches. A `large` write of file bytes [begin, end)
// is mapped whole: the page cache holds it in large pieces, which the view maps with one entry
// each. Smaller writes map the chunks they completed, each whole (earlier writes may have begun
// it), so that appends in small pieces pay once per chunk; the page cache holds those in small
// pieces, which a touch maps several times cheaper than the system's populate call.
// `small` (false) leaves the smaller writes to be mapped by the first reads.
inline void PopulateWritten(MappedFile& file, uint64_t begin, uint64_t end, bool large,
                            bool small) {
  const uint64_t from = begin / kChunkBytes * kChunkBytes;
  if (large) {
    file.Populate(from, end - from);
    return;
  }
  if (!small) return;
  const uint64_t to = end / kChunkBytes * kChunkBytes;
  if (to > from) file.Touch(from, to - from);
}

// Runs step; with `guarded`, an exception from it is reported as a write conflict and answered
// with false instead of passing on.
template <typename Step>
bool RunGuarded(bool guarded, Step&& step) {
  if (!guarded) {
    step();
    return true;
  }
  try {
    step();
    return true;
  } catch (...) {
    platform::EmitDiagnostic(kWriteConflictMessage);
    return false;
  }
}

}  // namespace segment_internal

template <typename T, typename Layout>
CZUFileArrayImp<T, Layout>::CZUFileArrayImp() : samples_(platform::Current().PageSize()) {
  const std::wstring path = NewDataFilePath();
  if (path.empty() || !file_.Create(DataDirectory(), path)) {
    TearDown(Teardown::kDie);
    return;
  }
  ready_ = true;
}

template <typename T, typename Layout>
CZUFileArrayImp<T, Layout>::~CZUFileArrayImp() {
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  TearDown(Teardown::kCloseFile);
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::TearDown(Teardown what) {
  stage_.Drop();
  samples_.Clear();
  samples_match_file_ = true;
  size_ = 0;
  if (what == Teardown::kCloseFile) {
    file_.Close();
    ReportReadable();
    return;
  }
  // Unmapping (rather than only forgetting) the chunk views keeps a dead segment from pinning
  // address space; the file stays open so that destruction can delete it. A wide read view
  // stays until then: a run handed out over it (an append that failed) must stay readable.
  file_.UnmapViews();
  ready_ = false;
  dead_ = true;
  ReportReadable();
}

template <typename T, typename Layout>
bool CZUFileArrayImp<T, Layout>::MapView(uint64_t position, View view) {
  CZUScopedLock guard(view == View::kWrite ? write_lock_ : read_lock_);
  if (!file_.has_mapping()) {
    TearDown(Teardown::kDie);
    return false;
  }
  bool mapped = false;
  if (view == View::kWrite) {
    if (file_.write_view() != nullptr) {
      WriteStage();  // staged elements belong to the chunk this view covers
      file_.FlushWriteView(kChunkBytes);
    }
    mapped = file_.MapWriteView(position / kChunkLength);
  } else {
    mapped = file_.MapReadView(position / kChunkLength);
  }
  if (!mapped) TearDown(Teardown::kDie);
  return mapped;
}

template <typename T, typename Layout>
bool CZUFileArrayImp<T, Layout>::Grow(uint64_t capacity) {
  bool mapped = false;
  bool no_space = false;
  {
    CZUScopedLock write(write_lock_);
    CZUScopedLock read(read_lock_);
    WriteStage();  // while the write view can still take it
    if (!file_.Resize(capacity * sizeof(T))) {
      TearDown(Teardown::kDie);
      no_space = true;
    } else {
      // A wide read view already reaches the new end; it is mapped once.
      mapped = MapView(size_, View::kWrite) &&
               ((file_.wide_read_view() && file_.read_view() != nullptr) ||
                MapView(file_.read_chunk() * kChunkLength, View::kRead));
    }
  }
  ReportReadable();
  if (no_space) throw ZuArrayNoSpaceException();
  return mapped;
}

template <typename T, typename Layout>
const T* CZUFileArrayImp<T, Layout>::ReadChunk(uint64_t chunk) {
  if (!file_.ReadViewCovers(chunk) && !MapView(chunk * kChunkLength, View::kRead)) {
    return nullptr;
  }
  const T* view = static_cast<const T*>(file_.read_view());
  return file_.wide_read_view() ? view + chunk * kChunkLength : view;
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::WriteStage() {
  if (stage_.empty()) return;
  CZUScopedLock write(write_lock_);
  const uint64_t first = stage_.TakeRun();
  const T* data = stage_.At(first);
  const size_t bytes = static_cast<size_t>(size_ - first) * sizeof(T);
  ReportWhenDone report{this};
  if (file_.WriteAt(first * sizeof(T), data, bytes) == platform::IoStatus::kOk) return;
  // The blocks are reserved and the write view covers the staged chunk (it is only moved
  // after the stage was written), so a copy through it cannot fail.
  if (T* view = WriteViewAt(first)) {
    std::memcpy(static_cast<void*>(view + first % kChunkLength), data, bytes);
  }
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::FlushIfPending() {
  if (!flush_pending_ || file_.write_view() == nullptr) return;
  WriteStage();
  // The written part of the current chunk; right after a chunk boundary the whole view.
  size_t bytes = static_cast<size_t>(size_ % kChunkLength) * sizeof(T);
  file_.FlushWriteView(bytes == 0 ? kChunkBytes : bytes);
  flush_pending_ = false;
}

template <typename T, typename Layout>
T* CZUFileArrayImp<T, Layout>::GetWritePtr(int64_t index) {
  T* slot = WritableAt(static_cast<uint64_t>(index));
  // A write through it may change a sampled element behind its sample's back.
  if (slot != &placeholders_.write && samples_.IsSampled(static_cast<uint64_t>(index))) {
    samples_match_file_ = false;
    ReportReadable();
  }
  return slot;
}

template <typename T, typename Layout>
T* CZUFileArrayImp<T, Layout>::WritableAt(uint64_t i) {
  WriteStage();  // the address handed out must reach the file's copy of the element
  CZUScopedLock read(read_lock_);
  if (dead_ || size_ == 0 || i >= size_) return &placeholders_.write;
  const uint64_t last_chunk = (size_ - 1) / kChunkLength;
  T* view = i / kChunkLength == last_chunk ? WriteViewAt(i) : nullptr;
  return view != nullptr ? view + i % kChunkLength : &placeholders_.write;
}

template <typename T, typename Layout>
const T* CZUFileArrayImp<T, Layout>::GetReadPtr(int64_t index) {
  const auto i = static_cast<uint64_t>(index);
  // Without the lock, as single appends do.
  if (const T* element = ReadFromWideView(i)) return element;
  CZUScopedLock read(read_lock_);
  if (dead_) return &placeholders_.read;
  // Sampled elements never need the file. A sample exists only for an appended element.
  if (ready_) {
    if (const T* sample = samples_.Find(i)) return sample;
  }
  if (i >= size_) return &placeholders_.read;
  // Staged elements are answered from the stage (the address stays valid until that slot is
  // reused, well after any caller has copied the element).
  if (i >= stage_.first()) return stage_.At(i);
  const T* view = ReadChunk(i / kChunkLength);
  if (view == nullptr) return &placeholders_.read;
  return view + i % kChunkLength;
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::Clear() {
  if (dead_) return;
  WriteStage();  // the file keeps what was appended, as it keeps every other element
  size_ = 0;
  CZUScopedLock write(write_lock_);
  // A segment that never grew has nothing to map yet; that is not a failure.
  if (file_.has_mapping()) MapView(0, View::kWrite);
  samples_.Clear();
  samples_match_file_ = true;
  ReportReadable();
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::PushBackSlow(const T& value) {
  if (dead_ || size_ >= kMaxSize) return;
  if (size_ >= capacity_) {
    capacity_ += kChunkLength;
    if (!Grow(capacity_)) return;
  }
  CZUScopedLock write(write_lock_);
  // After Clear the view may sit on an earlier chunk than the end; never write through it
  // there.
  if (!WriteViewTo(size_)) return;
  stage_.Reserve();
  samples_.Add(size_, value);
  stage_.Put(size_, value);
  ++size_;
  last_value_ = value;
  // Whole stage-aligned runs go out at once; they never cross a chunk, so the write view
  // still covers them.
  if (size_ % kStageLength == 0) {
    WriteStage();
    segment_internal::PopulateWritten(file_, (size_ - 1) * sizeof(T), size_ * sizeof(T), false,
                                      map_small_writes_);
    if (size_ >= kMaxSize) stage_.Drop();  // a full segment takes no more single appends
  }
  FlushIfPending();
  if (!stage_.empty() && !flush_pending_ && !dead_) {
    // The run has begun, so its chunk is mapped and within capacity. Stop before the next
    // sampled index and before the block's last index (that append writes the run).
    stage_.OpenFastPath(std::min(samples_.NextSampled(size_), stage_.BlockLast(size_)));
  }
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  this->Clear();
  Append(first, last);
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::AppendRun(ArrayIterBase* first, ContiguousRange* contiguous,
                                           uint64_t count, bool guarded, BulkTail* tail) {
  // A plain buffer goes to the file with pwrite: the page cache keeps the views coherent, and
  // it spares a page fault per page of a freshly mapped view.
  const uint64_t start = size_;
  const uint64_t bulk = std::min<uint64_t>(count, contiguous->count);
  if (bulk > 0) {
    const auto* bytes = static_cast<const unsigned char*>(contiguous->data);
    // Chunk starts are sampled too, so this records every sample.
    for (uint64_t index = samples_.NextSampled(start); index < start + bulk;
         index += samples_.interval()) {
      T sample;
      std::memcpy(&sample, bytes + (index - start) * sizeof(T), sizeof(T));
      samples_.Add(index, sample);
    }
    if (file_.WriteAt(start * sizeof(T), bytes, bulk * sizeof(T)) != platform::IoStatus::kOk) {
      TearDown(Teardown::kDie);
      throw ZuArrayNoSpaceException();
    }
    segment_internal::PopulateWritten(file_, start * sizeof(T), (start + bulk) * sizeof(T),
                                      bulk * sizeof(T) >= segment_internal::kPopulateBytes,
                                      map_small_writes_);
    first->Seek(first->GetPosition() + static_cast<unsigned int>(bulk));
    contiguous->data = bytes + bulk * sizeof(T);
    contiguous->count -= bulk;
    size_ += bulk;
    count -= bulk;
    std::memcpy(static_cast<void*>(&tail->value), bytes + (bulk - 1) * sizeof(T), sizeof(T));
    tail->end = size_;
  }
  if (count == 0 || !WriteViewTo(size_)) return;
  T* view = WriteViewAt(size_);
  const uint64_t begin = size_;
  for (uint64_t k = 0; k < count; ++k) {
    T* slot = view + size_ % kChunkLength;
    bool ended = false;  // the source ran out before its announced end
    const bool copied = segment_internal::RunGuarded(guarded, [&] {
      const void* current = first->GetCurrent();
      if (current == nullptr) {
        ended = true;
        return;
      }
      T value;
      std::memcpy(&value, current, sizeof(T));
      samples_.Add(size_, value);
      *slot = value;
    });
    if (ended) return;
    // A skipped element keeps what the file held in its slot, and so does its sample.
    if (!copied) samples_.Add(size_, *slot);
    ++size_;
    segment_internal::RunGuarded(guarded, [&] { first->Next(); });
  }
  segment_internal::PopulateWritten(file_, begin * sizeof(T), size_ * sizeof(T), false,
                                    map_small_writes_);
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  if (dead_) return;
  ReportWhenDone report{this};
  WriteStage();  // the range follows the staged elements in the file
  ArrayIterBase* source = first.base();
  const int64_t wanted = RangeCount(source, last.base());
  if (wanted <= 0 || size_ >= kMaxSize) return;
  uint64_t count = std::min<uint64_t>(size_ + static_cast<uint64_t>(wanted), kMaxSize) - size_;
  if (size_ + count > capacity_) {
    capacity_ += std::max<uint64_t>(1, (count + kChunkLength - 1) / kChunkLength) * kChunkLength;
    if (!Grow(capacity_)) return;
  }
  CZUScopedLock write(write_lock_);
  ContiguousRange contiguous = FindContiguous(source, last.base(), sizeof(T));
  BulkTail tail;
  // A plain buffer goes out in one write, however many chunks it spans: the page cache then
  // holds it in large pieces, which the read view maps with few entries. Element by element,
  // the rest goes chunk by chunk, the rest of a partly filled one first; only elements from
  // the first whole chunk on are guarded against a misbehaving source.
  const uint64_t start = size_;
  while (count > 0 && !dead_) {
    const bool guarded = start % kChunkLength == 0 || size_ / kChunkLength != start / kChunkLength;
    const uint64_t run = contiguous.count > 0
                             ? std::min(count, contiguous.count)
                             : std::min(count, kChunkLength - size_ % kChunkLength);
    const uint64_t before = size_;
    AppendRun(source, &contiguous, run, guarded, &tail);
    if (size_ - before < run) break;  // source exhausted or segment dead
    count -= run;
  }
  if (dead_ || size_ == 0) return;
  // Leave the write view on the chunk of the last element, where appends and writes go.
  const uint64_t last_index = size_ - 1;
  if (!WriteViewTo(last_index)) return;
  // When the range ended with a file write, the element just written is at hand; reading it
  // back through the fresh view would cost a page fault per call.
  last_value_ = tail.end == size_ ? tail.value : WriteViewAt(last_index)[last_index % kChunkLength];
  FlushIfPending();
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::ReadData(T* dest, int64_t offset, int64_t& count) {
  WriteStage();
  CZUScopedLock read(read_lock_);
  const uint64_t want = count > 0 ? static_cast<uint64_t>(count) : 0;
  uint64_t remaining = want;
  count = 0;
  if (dead_ || !ready_ || offset < 0) return;
  auto position = static_cast<uint64_t>(offset);
  while (remaining > 0 && position < size_) {
    const T* view = ReadChunk(position / kChunkLength);
    if (view == nullptr) break;
    const uint64_t within = position % kChunkLength;
    const uint64_t k = std::min({kChunkLength - within, size_ - position, remaining});
    // The read view is advised for single pages; a larger copy asks for its range at once.
    if (k * sizeof(T) >= segment_internal::kAdviseBytes)
      file_.WillRead(view + within, k * sizeof(T));
    std::memcpy(dest, view + within, k * sizeof(T));
    dest += k;
    position += k;
    remaining -= k;
  }
  count = static_cast<int64_t>(want - remaining);
}

template <typename T, typename Layout>
void CZUFileArrayImp<T, Layout>::SetElement(uint64_t index, const T& value) {
  if (dead_) return;
  T* slot = WritableAt(index);
  *slot = value;
  // Outside the last chunk the file keeps its old value while the sample takes the new one.
  if (slot == &placeholders_.write && samples_.Find(index) != nullptr) samples_match_file_ = false;
  samples_.Overwrite(index, value);
  if (size_ > 0 && index == size_ - 1) last_value_ = value;
  ReportReadable();
}

template <typename T, typename Layout>
base::DictionaryValue* CZUFileArrayImp<T, Layout>::Describe() {
  WriteStage();  // whoever attaches the file finds every element described
  auto* entry = new base::DictionaryValue();
  entry->SetString("file_path", file_.path());
  entry->SetInteger("size", static_cast<int>(size_));
  flush_pending_ = true;
  return entry;
}

template <typename T, typename Layout>
bool CZUFileArrayImp<T, Layout>::Attach(const base::DictionaryValue& entry) {
  std::wstring file_path;
  int stated_size = 0;
  if (!entry.GetString("file_path", &file_path) || !entry.GetInteger("size", &stated_size)) {
    return false;
  }
  ready_ = false;
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  ReportWhenDone report{this};
  if (file_.write_view() != nullptr) file_.FlushWriteView(kChunkBytes);
  TearDown(Teardown::kCloseFile);
  capacity_ = 0;
  dead_ = false;

  // Only a file this library could have made, long enough for what the entry claims; any
  // other file is left exactly as it is.
  const bool acceptable = stated_size >= 0 && static_cast<uint64_t>(stated_size) <= kMaxSize &&
                          IsDataFileName(file_path);
  if (!acceptable || !file_.Open(file_path, static_cast<uint64_t>(stated_size) * sizeof(T))) {
    TearDown(Teardown::kDie);
    return false;
  }
  size_ = static_cast<uint64_t>(stated_size);
  // One spare chunk even when the size is a multiple of the chunk length.
  capacity_ = (size_ / kChunkLength + 1) * kChunkLength;
  try {
    if (!Grow(capacity_)) return false;
  } catch (const ZuArrayNoSpaceException&) {
    return false;
  }
  for (uint64_t index = 0; index < size_; index += samples_.interval()) {
    const T* view = ReadChunk(index / kChunkLength);
    if (view == nullptr) return false;
    if (index % kChunkLength == 0) {
      // Every page of the chunk is sampled: fetch the chunk at once rather than page by page.
      const uint64_t in_chunk = std::min<uint64_t>(kChunkLength, size_ - index);
      file_.WillRead(view, in_chunk * sizeof(T));
    }
    samples_.Add(index, view[index % kChunkLength]);
  }
  if (size_ > 0) {
    const T* view = ReadChunk((size_ - 1) / kChunkLength);
    if (view == nullptr) return false;
    last_value_ = view[(size_ - 1) % kChunkLength];
  }
  ready_ = true;
  return true;
}

}  // namespace zu

#include "src/file/file_segment_search_inl.h"

#endif  // ZU_FILE_FILE_SEGMENT_INL_H_
