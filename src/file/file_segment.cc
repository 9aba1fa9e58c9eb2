#include "src/file/file_segment.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

#include "src/core/range.h"
#include "src/file/data_directory.h"

namespace zu {
namespace {

// A view that cannot be mapped at the old address is retried this often (the first attempt
// asks for the old address, the others let the system choose) before the segment gives up.
constexpr int kMapAttempts = 11;
const char kWriteConflictMessage[] = "write conflict";
// A copy out of the file at least this long asks the system for its whole range up front.
constexpr uint64_t kAdviseBytes = 0x10000;

// Every segment holds a descriptor; make room for many of them before the first one.
void RaiseOpenFileLimitOnce() {
  static const bool raised = [] {
    platform::Current().RaiseOpenFileLimit();
    return true;
  }();
  (void)raised;
}

// One page of data in elements, as a power of two dividing the chunk length.
uint64_t SampleInterval(size_t page_bytes, size_t element_bytes) {
  uint64_t bytes = page_bytes;
  if (bytes == 0 || bytes > kChunkBytes || kChunkBytes % bytes != 0) bytes = kChunkBytes;
  uint64_t elements = std::max<uint64_t>(1, bytes / element_bytes);
  while ((elements & (elements - 1)) != 0) elements &= elements - 1;
  return elements;
}

// high - low in the element type's own value range, widened to 64 bits. Records have no
// arithmetic: their distance never falls within a tolerance, so the search reads the file.
template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
uint64_t Distance(T high, T low) {
  using U = std::make_unsigned_t<T>;
  return static_cast<U>(static_cast<U>(high) - static_cast<U>(low));
}
template <int N>
uint64_t Distance(const SimpleBigData<N>&, const SimpleBigData<N>&) {
  return std::numeric_limits<uint64_t>::max();
}

// A bisection over a plain array that probes exactly the positions BisectLower/BisectUpper
// probe, in the same order (so even unsorted data give the same answer), with the step chosen
// by arithmetic instead of a branch: the branch of a bisection is mispredicted half the time.
// go_right(element) says whether the answer lies past the probed element.
template <typename T, typename GoRight>
uint64_t BranchlessBisect(const T* data, uint64_t count, GoRight go_right) {
  uint64_t first = 0;
  while (count > 0) {
    const uint64_t half = count >> 1;
    // 1: go right past the probe, 0: keep the left half. Written as arithmetic so the
    // compiler cannot turn it back into a branch (unsigned wrap-around makes the difference
    // exact when it is "negative").
    const uint64_t right = static_cast<uint64_t>(go_right(data[first + half]));
    first += right * (half + 1);
    count = half + right * (count - 1 - half - half);
  }
  return first;
}

template <typename T>
uint64_t LowerIndex(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect(data, count, [&value](const T& x) { return x < value; });
}

template <typename T>
uint64_t UpperIndex(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect(data, count, [&value](const T& x) { return !(value < x); });
}

}  // namespace

template <typename T>
CZUFileArrayImp<T>::CZUFileArrayImp() {
  RaiseOpenFileLimitOnce();
  platform::Platform& os = platform::Current();
  sample_interval_ = SampleInterval(os.PageSize(), sizeof(T));
  sample_mask_ = sample_interval_ - 1;
  while ((uint64_t{1} << sample_shift_) < sample_interval_) ++sample_shift_;
  wide_read_view_ = os.ViewsReachPastFileEnd();
  path_ = NewDataFilePath();
  if (!path_.empty()) {
    os.CreateDirectories(DataDirectory());
    file_ = os.CreateFile(path_);
  }
  if (file_ == platform::kInvalidFile) {
    // A failed creation leaves nothing under the name (and the name may be someone else's).
    path_.clear();
    Reset();
    return;
  }
  ready_ = true;
}

template <typename T>
CZUFileArrayImp<T>::~CZUFileArrayImp() {
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  ReleaseFile();
}

template <typename T>
void CZUFileArrayImp<T>::ReleaseFile() {
  DropStage();
  platform::Platform& os = platform::Current();
  os.UnmapView(write_view_, kChunkBytes);
  os.UnmapView(read_view_, ReadViewBytes());
  write_view_ = nullptr;
  read_view_ = nullptr;
  os.CloseMapping(mapping_);
  mapping_ = platform::kNoMapping;
  // The file goes with its last holder: an array that attached the same file through a
  // description (in this or another process) keeps it until it lets go too.
  if (file_ != platform::kInvalidFile) os.CloseAndDeleteFile(file_, path_);
  file_ = platform::kInvalidFile;
  path_.clear();
}

template <typename T>
void CZUFileArrayImp<T>::Reset() {
  DropStage();
  boundary_samples_.clear();
  page_samples_.clear();
  size_ = 0;
  read_position_ = 0;
  // Unmapping (rather than only forgetting) the views keeps a dead segment from pinning
  // address space.
  platform::Platform& os = platform::Current();
  os.UnmapView(write_view_, kChunkBytes);
  os.UnmapView(read_view_, ReadViewBytes());
  write_view_ = nullptr;
  read_view_ = nullptr;
  ready_ = false;
  dead_ = true;
}

template <typename T>
bool CZUFileArrayImp<T>::MapView(uint64_t position, View view) {
  CZUScopedLock guard(view == View::kWrite ? write_lock_ : read_lock_);
  if (mapping_ == platform::kNoMapping) {
    Reset();
    return false;
  }
  platform::Platform& os = platform::Current();
  const bool writable = view == View::kWrite;
  T*& target = writable ? write_view_ : read_view_;
  void* hint = target;
  // A wide read view starts at the file's start and spans the whole segment.
  const bool wide = !writable && wide_read_view_;
  const size_t length = wide ? kSegmentBytes : kChunkBytes;
  if (target != nullptr) {
    if (writable) {
      WriteStage();  // staged elements belong to the chunk this view covers
      os.FlushView(target, kChunkBytes);
    }
    os.UnmapView(target, length);
    target = nullptr;
  }
  const uint64_t chunk = position / kChunkLength;
  const uint64_t offset = wide ? 0 : chunk * kChunkBytes;
  for (int attempt = 0; attempt < kMapAttempts; ++attempt) {
    void* address = os.MapView(mapping_, offset, length, writable, attempt == 0 ? hint : nullptr);
    if (address != nullptr) {
      target = static_cast<T*>(address);
      if (writable) {
        write_chunk_ = chunk;
      } else {
        // Searches and random reads touch single pages: read-ahead would only fetch pages
        // nobody asked for. Bulk copies ask for their range themselves.
        os.AdviseView(address, length, platform::ViewAdvice::kRandom);
      }
      return true;
    }
  }
  Reset();
  return false;
}

template <typename T>
bool CZUFileArrayImp<T>::Grow(uint64_t capacity) {
  bool mapped = false;
  bool no_space = false;
  {
    CZUScopedLock write(write_lock_);
    CZUScopedLock read(read_lock_);
    WriteStage();  // while the write view can still take it
    platform::Platform& os = platform::Current();
    if (write_view_ != nullptr) {
      os.FlushView(write_view_, kChunkBytes);
      os.UnmapView(write_view_, kChunkBytes);
      write_view_ = nullptr;
    }
    os.CloseMapping(mapping_);
    const uint64_t granularity = std::max<size_t>(1, os.AllocationGranularity());
    const uint64_t bytes = (capacity * sizeof(T) + granularity - 1) / granularity * granularity;
    platform::IoStatus status = platform::IoStatus::kFailed;
    mapping_ = os.CreateMapping(file_, bytes, &status);
    if (mapping_ == platform::kNoMapping) {
      Reset();
      no_space = true;
    } else {
      // A wide read view already reaches the new end; it is mapped once.
      mapped = MapView(size_, View::kWrite) &&
               ((wide_read_view_ && read_view_ != nullptr) || MapView(read_position_, View::kRead));
      if (mapped) mapped_capacity_ = capacity;
    }
  }
  if (no_space) throw ZuArrayNoSpaceException();
  return mapped;
}

template <typename T>
const T* CZUFileArrayImp<T>::ReadChunk(uint64_t chunk) {
  if (wide_read_view_) {
    if (read_view_ == nullptr) {
      read_position_ = chunk * kChunkLength;
      if (!MapView(read_position_, View::kRead)) return nullptr;
    }
    return read_view_ + chunk * kChunkLength;
  }
  if (read_view_ == nullptr || read_position_ / kChunkLength != chunk) {
    read_position_ = chunk * kChunkLength;
    if (!MapView(read_position_, View::kRead)) return nullptr;
  }
  return read_view_;
}

template <typename T>
void CZUFileArrayImp<T>::RecordSamples(uint64_t index, const T& value) {
  if ((index & sample_mask_) != 0) return;  // the common case: nothing to record
  if (index % kChunkLength == 0) {
    boundary_samples_.push_back(value);
    page_samples_.push_back(std::vector<T>());
  }
  if (page_samples_.size() != 0) page_samples_.back().push_back(value);
}

template <typename T>
void CZUFileArrayImp<T>::WriteStage() {
  if (stage_first_ == kNoStage) return;
  CZUScopedLock write(write_lock_);
  const uint64_t first = stage_first_;
  const T* data = stage_.get() + first % kStageLength;
  const size_t bytes = static_cast<size_t>(size_ - first) * sizeof(T);
  stage_first_ = kNoStage;
  fast_end_ = 0;
  if (platform::Current().WriteAt(file_, first * sizeof(T), data, bytes) ==
      platform::IoStatus::kOk) {
    return;
  }
  // The blocks are reserved and the write view covers the staged chunk (it is only moved
  // after the stage was written), so a copy through it cannot fail.
  if (write_view_ != nullptr && write_chunk_ == first / kChunkLength) {
    std::memcpy(static_cast<void*>(write_view_ + first % kChunkLength), data, bytes);
  }
}

template <typename T>
void CZUFileArrayImp<T>::DropStage() {
  stage_first_ = kNoStage;
  fast_end_ = 0;
  stage_.reset();
}

template <typename T>
void CZUFileArrayImp<T>::FlushIfPending() {
  if (!flush_pending_ || write_view_ == nullptr) return;
  WriteStage();
  // The written part of the current chunk; right after a chunk boundary the whole view.
  size_t bytes = static_cast<size_t>(size_ % kChunkLength) * sizeof(T);
  platform::Current().FlushView(write_view_, bytes == 0 ? kChunkBytes : bytes);
  flush_pending_ = false;
}

template <typename T>
T* CZUFileArrayImp<T>::GetWritePtr(int64_t index) {
  static T dummy{};
  WriteStage();  // the address handed out must reach the file's copy of the element
  CZUScopedLock read(read_lock_);
  const auto i = static_cast<uint64_t>(index);
  if (dead_ || size_ == 0 || i >= size_) return &dummy;
  const uint64_t last_chunk = (size_ - 1) / kChunkLength;
  if (i / kChunkLength != last_chunk || write_view_ == nullptr || write_chunk_ != last_chunk) {
    return &dummy;
  }
  return write_view_ + i % kChunkLength;
}

template <typename T>
const T* CZUFileArrayImp<T>::GetReadPtr(int64_t index) {
  static T dummy{};
  const auto i = static_cast<uint64_t>(index);
  // The common random read: a wide view is mapped once and moves only when the segment dies
  // or drops its file (and is null then), so an element that is neither sampled nor staged
  // comes straight from it, without the lock, as single appends do.
  if (read_view_ != nullptr && wide_read_view_ && i < size_ && i < stage_first_ &&
      (i & sample_mask_) != 0) {
    return read_view_ + i;
  }
  CZUScopedLock read(read_lock_);
  if (dead_) return &dummy;
  const uint64_t chunk = i / kChunkLength;
  if (ready_ && (i & sample_mask_) == 0) {
    // Sampled elements never need the file. A sample exists only for an appended element.
    if (i % kChunkLength == 0) {
      if (chunk < boundary_samples_.size()) return &boundary_samples_[chunk];
    } else if (chunk < page_samples_.size()) {
      const std::vector<T>& samples = page_samples_[chunk];
      const uint64_t entry = (i % kChunkLength) >> sample_shift_;
      if (entry < samples.size()) return &samples[entry];
    }
  }
  if (i >= size_) return &dummy;
  // Staged elements are answered from the stage (the address stays valid until that slot is
  // reused, well after any caller has copied the element).
  if (i >= stage_first_) return stage_.get() + i % kStageLength;
  const T* view = ReadChunk(chunk);
  if (view == nullptr) return &dummy;
  read_position_ = i;
  return view + i % kChunkLength;
}

template <typename T>
T* CZUFileArrayImp<T>::GetBackWritePtr() {
  static T dummy{};
  return dead_ ? &dummy : &last_value_;
}

template <typename T>
const T* CZUFileArrayImp<T>::GetBackReadPtr() {
  return GetBackWritePtr();
}

template <typename T>
void CZUFileArrayImp<T>::Clear() {
  if (dead_) return;
  WriteStage();  // the file keeps what was appended, as it keeps every other element
  size_ = 0;
  CZUScopedLock write(write_lock_);
  // A segment that never grew has nothing to map yet; that is not a failure.
  if (mapping_ != platform::kNoMapping) MapView(0, View::kWrite);
  boundary_samples_.clear();
  page_samples_.clear();
}

template <typename T>
void CZUFileArrayImp<T>::PushBackSlow(const T& value) {
  if (dead_ || size_ >= kMaxSize) return;
  if (size_ >= capacity_) {
    capacity_ += kChunkLength;
    if (!Grow(capacity_)) return;
  }
  CZUScopedLock write(write_lock_);
  // After Clear the view may sit on an earlier chunk than the end; never write through it
  // there.
  if (write_view_ == nullptr || write_chunk_ != size_ / kChunkLength) {
    if (!MapView(size_, View::kWrite)) return;
  }
  if (!stage_) stage_ = std::make_unique<T[]>(kStageLength);
  RecordSamples(size_, value);
  stage_[size_ % kStageLength] = value;
  if (stage_first_ == kNoStage) stage_first_ = size_;
  ++size_;
  last_value_ = value;
  // Whole stage-aligned runs go out at once; they never cross a chunk, so the write view
  // still covers them.
  if (size_ % kStageLength == 0) {
    WriteStage();
    if (size_ >= kMaxSize) stage_.reset();  // a full segment takes no more single appends
  }
  FlushIfPending();
  if (stage_first_ != kNoStage && !flush_pending_ && !dead_) {
    // The run has begun, so its chunk is mapped and within capacity. Stop before the next
    // sample index and before the run's last index (that append writes the run).
    const uint64_t next_sample = (size_ + sample_mask_) & ~sample_mask_;
    const uint64_t run_last = (size_ / kStageLength + 1) * kStageLength - 1;
    fast_end_ = std::min(next_sample, run_last);
  }
}

template <typename T>
void CZUFileArrayImp<T>::Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  this->Clear();
  Append(first, last);
}

template <typename T>
void CZUFileArrayImp<T>::AppendRun(ArrayIterBase* first, ContiguousRange* contiguous,
                                   uint64_t count, bool guarded, BulkTail* tail) {
  // A plain buffer goes to the file with pwrite: the page cache keeps the views coherent, and
  // it spares a page fault per page of a freshly mapped view.
  const uint64_t start = size_;
  const uint64_t bulk = std::min<uint64_t>(count, contiguous->count);
  if (bulk > 0) {
    const auto* bytes = static_cast<const unsigned char*>(contiguous->data);
    // Chunk starts are multiples of the interval too, so this records every sample.
    const uint64_t first_sample =
        (start + sample_interval_ - 1) / sample_interval_ * sample_interval_;
    for (uint64_t index = first_sample; index < start + bulk; index += sample_interval_) {
      T sample;
      std::memcpy(&sample, bytes + (index - start) * sizeof(T), sizeof(T));
      RecordSamples(index, sample);
    }
    if (platform::Current().WriteAt(file_, start * sizeof(T), bytes, bulk * sizeof(T)) !=
        platform::IoStatus::kOk) {
      Reset();
      throw ZuArrayNoSpaceException();
    }
    first->Seek(first->GetPosition() + static_cast<unsigned int>(bulk));
    contiguous->data = bytes + bulk * sizeof(T);
    contiguous->count -= bulk;
    size_ += bulk;
    count -= bulk;
    std::memcpy(static_cast<void*>(&tail->value), bytes + (bulk - 1) * sizeof(T), sizeof(T));
    tail->end = size_;
  }
  if (count == 0) return;
  if (write_view_ == nullptr || write_chunk_ != size_ / kChunkLength) {
    if (!MapView(size_, View::kWrite)) return;
  }
  for (uint64_t k = 0; k < count; ++k) {
    T* slot = write_view_ + size_ % kChunkLength;
    if (!guarded) {
      const void* current = first->GetCurrent();
      if (current == nullptr) return;  // the source ended before its announced end
      T value;
      std::memcpy(&value, current, sizeof(T));
      RecordSamples(size_, value);
      *slot = value;
      ++size_;
      first->Next();
      continue;
    }
    try {
      const void* current = first->GetCurrent();
      if (current == nullptr) return;
      T value;
      std::memcpy(&value, current, sizeof(T));
      RecordSamples(size_, value);
      *slot = value;
    } catch (...) {
      // The element is skipped; its slot keeps what the file held, and so does its sample.
      platform::EmitDiagnostic(kWriteConflictMessage);
      RecordSamples(size_, *slot);
    }
    ++size_;
    try {
      first->Next();
    } catch (...) {
      platform::EmitDiagnostic(kWriteConflictMessage);
    }
  }
}

template <typename T>
void CZUFileArrayImp<T>::Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  if (dead_) return;
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
  // The rest of a partly filled chunk first; only whole chunks are guarded against a
  // misbehaving source.
  if (size_ % kChunkLength != 0) {
    const uint64_t run = std::min(kChunkLength - size_ % kChunkLength, count);
    const uint64_t before = size_;
    AppendRun(source, &contiguous, run, false, &tail);
    if (size_ - before < run)
      count = 0;  // source exhausted or segment dead
    else
      count -= run;
  }
  while (count > 0 && !dead_) {
    const uint64_t run = std::min(count, kChunkLength);
    const uint64_t before = size_;
    AppendRun(source, &contiguous, run, true, &tail);
    if (size_ - before < run) break;
    count -= run;
  }
  if (dead_ || size_ == 0) return;
  // Leave the write view on the chunk of the last element, where appends and writes go.
  const uint64_t last_index = size_ - 1;
  if (write_view_ == nullptr || write_chunk_ != last_index / kChunkLength) {
    if (!MapView(last_index, View::kWrite)) return;
  }
  // When the range ended with a file write, the element just written is at hand; reading it
  // back through the fresh view would cost a page fault per call.
  last_value_ = tail.end == size_ ? tail.value : write_view_[last_index % kChunkLength];
  FlushIfPending();
}

template <typename T>
void CZUFileArrayImp<T>::ReadData(T* dest, int64_t offset, int64_t& count) {
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
    if (k * sizeof(T) >= kAdviseBytes) {
      platform::Current().AdviseView(view + within, k * sizeof(T), platform::ViewAdvice::kWillNeed);
    }
    std::memcpy(dest, view + within, k * sizeof(T));
    read_position_ = position;
    dest += k;
    position += k;
    remaining -= k;
  }
  count = static_cast<int64_t>(want - remaining);
}

template <typename T>
void CZUFileArrayImp<T>::SetElement(uint64_t index, const T& value) {
  if (dead_) return;
  *GetWritePtr(static_cast<int64_t>(index)) = value;
  const uint64_t chunk = index / kChunkLength;
  if (index % kChunkLength == 0 && chunk < boundary_samples_.size()) {
    boundary_samples_[chunk] = value;
  }
  if (index % sample_interval_ == 0 && chunk < page_samples_.size()) {
    std::vector<T>& samples = page_samples_[chunk];
    const uint64_t entry = (index % kChunkLength) / sample_interval_;
    if (entry < samples.size()) samples[entry] = value;
  }
  if (size_ > 0 && index == size_ - 1) last_value_ = value;
}

template <typename T>
base::DictionaryValue* CZUFileArrayImp<T>::Describe() {
  WriteStage();  // whoever attaches the file finds every element described
  auto* entry = new base::DictionaryValue();
  entry->SetString("file_path", path_);
  entry->SetInteger("size", static_cast<int>(size_));
  flush_pending_ = true;
  return entry;
}

template <typename T>
bool CZUFileArrayImp<T>::Attach(const base::DictionaryValue& entry) {
  std::wstring file_path;
  int stated_size = 0;
  if (!entry.GetString("file_path", &file_path) || !entry.GetInteger("size", &stated_size)) {
    return false;
  }
  ready_ = false;
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  if (write_view_ != nullptr) platform::Current().FlushView(write_view_, kChunkBytes);
  ReleaseFile();
  size_ = 0;
  read_position_ = 0;
  capacity_ = 0;
  mapped_capacity_ = 0;
  boundary_samples_.clear();
  page_samples_.clear();
  dead_ = false;

  // Only a file this library could have made, long enough for what the entry claims; any
  // other file is left exactly as it is.
  platform::Platform& os = platform::Current();
  platform::FileHandle file = platform::kInvalidFile;
  if (stated_size >= 0 && static_cast<uint64_t>(stated_size) <= kMaxSize &&
      IsDataFileName(file_path)) {
    file = os.OpenFile(file_path);
  }
  if (file != platform::kInvalidFile) {
    const int64_t length = os.FileLength(file);
    if (length < 0 ||
        static_cast<uint64_t>(stated_size) * sizeof(T) > static_cast<uint64_t>(length)) {
      os.CloseFile(file);
      file = platform::kInvalidFile;
    }
  }
  if (file == platform::kInvalidFile) {
    Reset();
    return false;
  }
  file_ = file;
  path_ = file_path;
  size_ = static_cast<uint64_t>(stated_size);
  // One spare chunk even when the size is a multiple of the chunk length.
  capacity_ = (size_ / kChunkLength + 1) * kChunkLength;
  try {
    if (!Grow(capacity_)) return false;
  } catch (const ZuArrayNoSpaceException&) {
    return false;
  }
  for (uint64_t index = 0; index < size_; index += sample_interval_) {
    const T* view = ReadChunk(index / kChunkLength);
    if (view == nullptr) return false;
    if (index % kChunkLength == 0) {
      // Every page of the chunk is sampled: fetch the chunk at once rather than page by page.
      const uint64_t in_chunk = std::min<uint64_t>(kChunkLength, size_ - index);
      os.AdviseView(view, in_chunk * sizeof(T), platform::ViewAdvice::kWillNeed);
    }
    RecordSamples(index, view[index % kChunkLength]);
  }
  if (size_ > 0) {
    const T* view = ReadChunk((size_ - 1) / kChunkLength);
    if (view == nullptr) return false;
    last_value_ = view[(size_ - 1) % kChunkLength];
  }
  ready_ = true;
  return true;
}

template <typename T>
bool CZUFileArrayImp<T>::ChunkBelow(const T& value, uint64_t* chunk) {
  const uint64_t b = LowerIndex(boundary_samples_.data(), boundary_samples_.size(), value);
  if (b == 0 || b - 1 >= page_samples_.size()) return false;
  *chunk = b - 1;
  return true;
}

template <typename T>
uint64_t CZUFileArrayImp<T>::ScanPage(uint64_t chunk, uint64_t start, const T& value) {
  const T* view = ReadChunk(chunk);
  if (view == nullptr) return size_;
  const uint64_t base = chunk * kChunkLength;
  if (base + start >= size_) return std::min(base + start, size_);
  const uint64_t len = std::min(sample_interval_, size_ - base - start);
  const T* page = view + start;
  return base + start + LowerIndex(page, len, value);
}

template <typename T>
uint64_t CZUFileArrayImp<T>::SegmentLowerBound(const T& value) {
  if (dead_) return size_;
  WriteStage();
  CZUScopedLock read(read_lock_);
  uint64_t chunk = 0;
  if (!ChunkBelow(value, &chunk)) return 0;
  const std::vector<T>& samples = page_samples_[chunk];
  const uint64_t i = LowerIndex(samples.data(), samples.size(), value);
  // The page before the first sample not below value holds the answer, unless all of it is
  // below value (then the answer is that sample's position, the page's end).
  return ScanPage(chunk, i > 0 ? (i - 1) * sample_interval_ : 0, value);
}

template <typename T>
uint64_t CZUFileArrayImp<T>::SegmentUpperBound(const T& value) {
  if (dead_) return size_;
  WriteStage();
  CZUScopedLock read(read_lock_);
  const uint64_t b = UpperIndex(boundary_samples_.data(), boundary_samples_.size(), value);
  if (b == 0) return 0;
  const uint64_t chunk = b - 1;
  const T* view = ReadChunk(chunk);
  if (view == nullptr) return 0;
  const uint64_t base = chunk * kChunkLength;
  if (base >= size_) return size_;
  const uint64_t len = std::min(kChunkLength, size_ - base);
  return base + UpperIndex(view, len, value);
}

template <typename T>
uint64_t CZUFileArrayImp<T>::SegmentLocateLowerBound(const T& value) {
  if (dead_) return size_;
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  uint64_t chunk = 0;
  if (!ChunkBelow(value, &chunk)) return 0;
  const std::vector<T>& samples = page_samples_[chunk];
  return LowerIndex(samples.data(), samples.size(), value) * sample_interval_ +
         chunk * kChunkLength;
}

template <typename T>
uint64_t CZUFileArrayImp<T>::SegmentFindNearest(T* inout, uint64_t tolerance) {
  if (dead_) return size_;
  WriteStage();
  CZUScopedLock read(read_lock_);
  CZUScopedLock write(write_lock_);
  const T value = *inout;
  uint64_t chunk = 0;
  if (!ChunkBelow(value, &chunk)) return 0;
  const uint64_t base = chunk * kChunkLength;
  const std::vector<T>& samples = page_samples_[chunk];
  const uint64_t n = samples.size();
  const uint64_t i = LowerIndex(samples.data(), n, value);
  uint64_t page = 0;
  if (i < n) {
    if (i >= 1 && Distance(value, samples[i - 1]) < tolerance) {
      *inout = samples[i - 1];
      return (i - 1) * sample_interval_ + base;
    }
    if (Distance(samples[i], value) < tolerance) {
      *inout = samples[i];
      return i * sample_interval_ + base;
    }
    page = i >= 1 ? i - 1 : 0;
  } else {
    if (n >= 1 && Distance(value, samples[n - 1]) < tolerance) {
      *inout = samples[n - 1];
      return (n - 1) * sample_interval_ + base;
    }
    if (chunk + 1 < boundary_samples_.size() &&
        Distance(boundary_samples_[chunk + 1], value) < tolerance) {
      *inout = boundary_samples_[chunk + 1];
      return (chunk + 1) * kChunkLength;
    }
    page = n >= 1 ? n - 1 : 0;
  }
  return ScanPage(chunk, page * sample_interval_, value);
}

template <typename T>
uint64_t CZUFileArrayImp<T>::LastSamplePosition() {
  if (page_samples_.size() == 0) return 0;
  const uint64_t chunks = page_samples_.size();
  const uint64_t entries = page_samples_.back().size();
  return (chunks - 1) * kChunkLength + (entries > 0 ? (entries - 1) * sample_interval_ : 0);
}

#define ZU_DEFINE_FILE_SEGMENT(T) template class CZUFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_FILE_SEGMENT)
#undef ZU_DEFINE_FILE_SEGMENT

}  // namespace zu
