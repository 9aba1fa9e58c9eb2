// The self-spilling arrays: CZUAutoDequeArray<T> keeps its elements in memory (a block deque)
// while the array is small and moves them, once and for good, into mapped temporary files
// when it reaches kSpillThreshold elements; CZUAutoVectorArray<T> does the same starting from
// a contiguous vector. The caller sees one array throughout: indexes, sizes and searches keep
// their meaning across the move, except that LocateLowerBound and FindFloor turn coarse
// (sample-granular) in files, as on the file array.
//
// Failure: an add that throws (from the container, from the move, or from the file storage)
// clears the whole array and answers kZuNoSpace or kZuFailed; a move refused before it starts
// answers kZuNoSpace and keeps the array as it was. Assign never moves and never clears.
// A description can only be loaded into an array that already lives in files; in memory
// LoadDescription and SaveDescription answer true and do nothing.
// The array's state is the `spilled` flag and the one storage it holds: the flavour's
// in-memory storage while the flag is false, the multi-file storage once it is true. Single
// appends reach the concrete storage directly (its type follows from the flag and the
// flavour), so that they cost one virtual call, the array's own, instead of three.
// Ownership: the array owns its storage; once in files, the files go with the array.
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_AUTO_AUTO_ARRAY_H_
#define ZU_AUTO_AUTO_ARRAY_H_

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "src/auto/std_adapters.h"
#include "src/core/element_list.h"
#include "src/file/array_imp.h"
#include "src/file/file_array.h"
#include "src/file/imp_array_base.h"
#include "src/file/multi_file_storage.h"

namespace zu {

// When a self-spilling array moves into files, and the layout of those files, as a type: the
// library's arrays use this one; tests instantiate smaller ones to reach the threshold (and the
// segment boundaries in files) cheaply.
struct AutoArrayLayout {
  static constexpr uint64_t kSpillThreshold = 8388608;  // elements held in memory at most
  static constexpr uint32_t kMigrateChunk = 8192;       // elements moved per step
  using Files = FileLayout;                             // the segments of the files
};

// Elements an array holds in memory before it moves into files.
constexpr uint64_t kSpillThreshold = AutoArrayLayout::kSpillThreshold;
// Elements moved per step of the migration.
constexpr uint32_t kMigrateChunk = AutoArrayLayout::kMigrateChunk;

template <typename T, typename Alloc = std::allocator<T>, typename Layout = AutoArrayLayout>
class CZUAutoDequeArray : public CZUArrayBase<T, IZUArrayImp<T>> {
 public:
  using Base = CZUArrayBase<T, IZUArrayImp<T>>;
  using FileStorage = CZUMultiFileArrayImp<T, typename Layout::Files>;
  using InFiles = FileArrayOps<T, typename Layout::Files>;

  // Builds the in-memory storage with this class's own Init (not the virtual one).
  CZUAutoDequeArray() { CZUAutoDequeArray::Init(); }
  ~CZUAutoDequeArray() override = default;

  int Append(const void* value) override;
  void SetAt(uint64_t index, const void* value) override {
    if (spilled_) return InFiles::SetAt(Files(), index, value);
    Base::SetAt(index, value);
  }
  uint64_t Find(const void* value) override;
  uint64_t UpperBound(const void* value) override {
    return spilled_ ? InFiles::UpperBound(Files(), value) : Base::UpperBound(value);
  }
  uint64_t LowerBound(const void* value) override {
    return spilled_ ? InFiles::LowerBound(Files(), value) : Base::LowerBound(value);
  }
  uint64_t FindNearest(void* inout, uint64_t tolerance) override {
    return spilled_ ? InFiles::FindNearest(Files(), inout, tolerance)
                    : Base::FindNearest(inout, tolerance);
  }
  uint64_t LocateLowerBound(const void* value) override {
    return spilled_ ? InFiles::LocateLowerBound(Files(), value) : Base::LocateLowerBound(value);
  }
  uint64_t FindFloor(const void* value) override {
    return spilled_ ? InFiles::FindFloor(Files(), value) : Base::FindFloor(value);
  }
  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override;
  // In memory there is no description to load or save: both answer true and do nothing.
  bool LoadDescription(const base::DictionaryValue* desc) override {
    return spilled_ ? InFiles::LoadDescription(Files(), desc) : true;
  }
  bool SaveDescription(base::DictionaryValue** out) override {
    return spilled_ ? InFiles::SaveDescription(Files(), out) : true;
  }
  // A fresh, empty in-memory storage (a block deque).
  bool Init() override;

  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    return spilled_ ? InFiles::ReadRunAt(Files(), index, run)
                    : MemoryRunAt<CStdDeque<T, Alloc>>(index, run);
  }
  bool SearchBatch(ZuSearch search, const void* keys, uint64_t count, uint64_t* out) override {
    if (spilled_) return InFiles::SearchBatch(Files(), search, keys, count, out);
    return SearchInOwnRuns<T>(*this, this->Size(), search, keys, count, out);
  }

  bool spilled() const { return spilled_; }
  // The storage in use: the in-memory adapter, or the multi-file storage once spilled.
  IZUArrayImp<T>* storage() const { return this->container_.get(); }

 protected:
  // The multi-file storage; only while spilled_.
  FileStorage& Files() { return static_cast<FileStorage&>(*this->container_); }
  // Single appends, for the flavour whose in-memory storage is `Memory`: below the threshold
  // a push that allocates nothing, and in files one that only joins a stage, are done at
  // once, without a virtual call or an exception guard; any other goes through
  // AppendToStorage.
  template <typename Memory>
  int AppendTo(const void* value);
  // Append through the storage interface, whichever storage holds the elements: the spill
  // test, then PushBack, in the guard. Out of line, so that the inlined path stays small.
  [[gnu::noinline]] int AppendToStorage(const T& value);
  // Moves the content into a new multi-file storage and keeps it there. Returns kZuOk, or
  // kZuNoSpace when the new storage refuses writes. Exceptions from the move pass to the
  // caller with the array unchanged (the half-filled files are released).
  int SpillToFiles();
  // Runs an add; any exception clears the array and becomes a result code.
  template <typename Fn>
  int GuardAndClear(Fn&& add);
  // Installs a fresh, empty in-memory storage of type Memory.
  template <typename Memory>
  bool StartInMemory();
  // The run around `index` of the in-memory storage, of type Memory.
  template <typename Memory>
  bool MemoryRunAt(uint64_t index, ZuReadRun* run) {
    return static_cast<Memory&>(*this->container_).RunAt(index, run);
  }

  // True exactly when container_ holds the multi-file storage; until then it holds the
  // flavour's in-memory storage (CStdDeque here, CStdVector in the vector flavour).
  bool spilled_ = false;
};

template <typename T, typename Alloc = std::allocator<T>, typename Layout = AutoArrayLayout>
class CZUAutoVectorArray : public CZUAutoDequeArray<T, Alloc, Layout> {
 public:
  // The deque part first built its own storage; this one replaces it with a vector, so every
  // auto vector array briefly owns (and at once drops) an empty deque storage.
  CZUAutoVectorArray() { CZUAutoVectorArray::Init(); }
  ~CZUAutoVectorArray() override = default;

  // As the deque flavour's, with the in-memory push going to the vector.
  int Append(const void* value) override;
  // A fresh, empty in-memory storage (a vector).
  bool Init() override;

  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    return this->spilled_ ? Base::ReadRunAt(index, run)
                          : this->template MemoryRunAt<CStdVector<T, Alloc>>(index, run);
  }

 private:
  using Base = CZUAutoDequeArray<T, Alloc, Layout>;
};

template <typename T, typename Alloc, typename Layout>
template <typename Fn>
int CZUAutoDequeArray<T, Alloc, Layout>::GuardAndClear(Fn&& add) {
  try {
    return add();
  } catch (const ZuArrayNoSpaceException&) {
    this->container_->Clear();
    return kZuNoSpace;
  } catch (...) {
    this->container_->Clear();
    return kZuFailed;
  }
}

// Single appends test the size before adding: the in-memory storage keeps up to
// Layout::kSpillThreshold elements, and the append that would make one more moves them first.
template <typename T, typename Alloc, typename Layout>
template <typename Memory>
int CZUAutoDequeArray<T, Alloc, Layout>::AppendTo(const void* value) {
  const T& v = *static_cast<const T*>(value);
  if (!spilled_) {
    // At the threshold the general path moves the elements first.
    auto& memory = static_cast<Memory&>(*this->container_);
    if (memory.size() < Layout::kSpillThreshold && memory.try_push_back(v)) return kZuOk;
  } else if (Files().TryStage(v)) {
    return kZuOk;
  }
  return AppendToStorage(v);
}

template <typename T, typename Alloc, typename Layout>
int CZUAutoDequeArray<T, Alloc, Layout>::Append(const void* value) {
  return AppendTo<CStdDeque<T, Alloc>>(value);
}

template <typename T, typename Alloc, typename Layout>
int CZUAutoVectorArray<T, Alloc, Layout>::Append(const void* value) {
  return this->template AppendTo<CStdVector<T, Alloc>>(value);
}

template <typename T, typename Alloc, typename Layout>
int CZUAutoDequeArray<T, Alloc, Layout>::AppendToStorage(const T& value) {
  return GuardAndClear([&] {
    if (!spilled_ && this->Size() >= Layout::kSpillThreshold) {
      int result = SpillToFiles();
      if (result != kZuOk) return result;
    }
    this->container_->PushBack(value);
    return static_cast<int>(kZuOk);
  });
}

// Range appends test the size the range would reach: a range landing exactly on the
// threshold already moves.
template <typename T, typename Alloc, typename Layout>
int CZUAutoDequeArray<T, Alloc, Layout>::AppendRange(ArrayIterBase* first, ArrayIterBase* last) {
  return GuardAndClear([&] {
    if (!spilled_) {
      int64_t n =
          static_cast<int64_t>(last->GetPosition()) - static_cast<int64_t>(first->GetPosition());
      if (static_cast<int64_t>(this->Size()) + n >= static_cast<int64_t>(Layout::kSpillThreshold)) {
        int result = SpillToFiles();
        if (result != kZuOk) return result;
      }
    }
    this->container_->Append(ZuArrayIter<T>(first), ZuArrayIter<T>(last));
    return static_cast<int>(kZuOk);
  });
}

template <typename T, typename Alloc, typename Layout>
int CZUAutoDequeArray<T, Alloc, Layout>::SpillToFiles() {
  if (spilled_) return kZuOk;
  auto files = std::make_shared<FileStorage>();
  if (files->HasDeadSegment()) return kZuNoSpace;

  // The buffer lives on the heap: 8192 records of 512 bytes are 4 MiB, far more than a stack
  // frame should hold. It is only needed for a piece that is not one run of memory.
  std::vector<T> buffer;
  files->MapSmallWrites(false);  // nothing reads the files before the move ends
  int64_t remaining = this->container_->GetSize();
  int64_t position = 0;
  while (remaining > 0) {
    int64_t k = remaining < Layout::kMigrateChunk ? remaining : Layout::kMigrateChunk;
    int64_t copied = k;
    // A piece inside one block of the in-memory storage (its first and last elements k - 1
    // apart) is handed over where it lies: the copy through the buffer would be the same bytes.
    const T* piece = this->container_->GetReadPtr(position);
    const T* piece_last = this->container_->GetReadPtr(position + k - 1);
    if (reinterpret_cast<uintptr_t>(piece_last) - reinterpret_cast<uintptr_t>(piece) !=
        static_cast<uint64_t>(k - 1) * sizeof(T)) {
      if (buffer.empty()) buffer.resize(Layout::kMigrateChunk);
      this->container_->ReadData(buffer.data(), position, copied);
      piece = buffer.data();
    }
    SimpleDataIter<unsigned char> source(reinterpret_cast<unsigned char*>(const_cast<T*>(piece)),
                                         static_cast<unsigned int>(copied), sizeof(T));
    std::shared_ptr<ArrayIterBase> end = source.Clone();
    end->Seek(static_cast<unsigned int>(copied));
    files->Append(ZuArrayIter<T>(&source), ZuArrayIter<T>(end.get()));
    // A segment whose view could not be mapped dies without throwing: the move failed, and
    // the elements stay where they are.
    if (files->HasDeadSegment()) return kZuNoSpace;
    position += k;
    remaining -= k;
  }
  files->MapSmallWrites(true);
  this->container_ = std::move(files);  // the in-memory storage goes here
  spilled_ = true;
  return kZuOk;
}

// In files the lower bound comes from the samples, and an answer beyond the size is the size.
template <typename T, typename Alloc, typename Layout>
uint64_t CZUAutoDequeArray<T, Alloc, Layout>::Find(const void* value) {
  if (!spilled_) return Base::Find(value);
  const T& v = *static_cast<const T*>(value);
  uint64_t n = this->Size();
  uint64_t i = Files().LowerBound(v);
  return (i < n && *this->container_->GetReadPtr(static_cast<int64_t>(i)) == v) ? i : n;
}

template <typename T, typename Alloc, typename Layout>
template <typename Memory>
bool CZUAutoDequeArray<T, Alloc, Layout>::StartInMemory() {
  this->container_ = std::make_shared<Memory>();
  spilled_ = false;
  return this->container_ != nullptr;
}

template <typename T, typename Alloc, typename Layout>
bool CZUAutoDequeArray<T, Alloc, Layout>::Init() {
  return StartInMemory<CStdDeque<T, Alloc>>();
}

template <typename T, typename Alloc, typename Layout>
bool CZUAutoVectorArray<T, Alloc, Layout>::Init() {
  return this->template StartInMemory<CStdVector<T, Alloc>>();
}

#define ZU_DECLARE_AUTO_ARRAYS(T)                        \
  extern template class CZUArrayBase<T, IZUArrayImp<T>>; \
  extern template class CZUAutoDequeArray<T>;            \
  extern template class CZUAutoVectorArray<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_AUTO_ARRAYS)
#undef ZU_DECLARE_AUTO_ARRAYS

}  // namespace zu

#endif  // ZU_AUTO_AUTO_ARRAY_H_
