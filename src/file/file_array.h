// CZUFileArray<T>: the array whose elements live only in mapped temporary files, through one
// multi-file storage. What AllocFileArray hands out, for the four integer element types.
//
// Its searches are made for ascending data and use the storage's in-memory samples (segment
// heads, chunk boundaries, one sample per page) to avoid reading files: LowerBound,
// UpperBound and Find are exact and read at most one page or chunk of one file (except that
// UpperBound of a value at or above a segment's last element answers the next segment's
// start, also after the last segment); FindNearest
// accepts a sample within the tolerance; LocateLowerBound and FindFloor answer from the
// samples alone with sampled positions, which callers refine themselves.
//
// SetAt writes the file only inside a segment's last chunk, while the samples always take
// the new value: reads answered from a sample see it, reads of the file may not.
//
// Failure: a storage that cannot create or grow a file makes the adding operations answer
// kZuNoSpace; reads beyond the size give the storage's all-ones element (GetAt answers null,
// GetLast of an empty array hands out the all-ones element).
// Ownership: the array owns its storage; the files are deleted with the array or by Clear.
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_FILE_FILE_ARRAY_H_
#define ZU_FILE_FILE_ARRAY_H_

#include <cstdint>
#include <memory>

#include "src/core/element_list.h"
#include "src/file/imp_array_base.h"
#include "src/file/multi_file_storage.h"

namespace zu {

// The array operations that a multi-file storage answers itself, from the arguments of the
// array interface: the file array's always, and a self-spilling array's once it lives in
// files.
template <typename T, typename Layout = FileLayout>
struct FileArrayOps {
  using Storage = CZUMultiFileArrayImp<T, Layout>;

  // An index at or beyond the size is ignored.
  static void SetAt(Storage& files, uint64_t index, const void* value);
  static uint64_t UpperBound(Storage& files, const void* value) {
    return files.UpperBound(*static_cast<const T*>(value));
  }
  static uint64_t LowerBound(Storage& files, const void* value) {
    return files.LowerBound(*static_cast<const T*>(value));
  }
  static uint64_t FindNearest(Storage& files, void* inout, uint64_t tolerance) {
    return files.FindNearest(static_cast<T*>(inout), tolerance);
  }
  static uint64_t LocateLowerBound(Storage& files, const void* value) {
    return files.LocateLowerBound(*static_cast<const T*>(value));
  }
  static uint64_t FindFloor(Storage& files, const void* value) {
    return files.FindFloor(*static_cast<const T*>(value));
  }
  // True when the description carried a "files" list (the files up to the first unusable
  // entry are attached); false for a null description.
  static bool LoadDescription(Storage& files, const base::DictionaryValue* desc);
  // Hands out a new description (the caller owns it); false for a null out.
  static bool SaveDescription(Storage& files, base::DictionaryValue** out);
  static bool ReadRunAt(Storage& files, uint64_t index, ZuReadRun* run) {
    return files.ReadRunAt(index, run);
  }
  // Over the files' runs (asking for one writes the staged elements), when the runs cover
  // the array; UpperBound answers as the storage does at the last segment's end.
  static bool SearchBatch(Storage& files, ZuSearch search, const void* keys, uint64_t count,
                          uint64_t* out);
};

// Layout: the size of the storage's segments (FileLayout unless a test chooses a smaller one).
template <typename T, typename Layout = FileLayout>
class CZUFileArray : public CZUArrayBase<T, CZUMultiFileArrayImp<T, Layout>> {
 public:
  using Storage = CZUMultiFileArrayImp<T, Layout>;
  using Base = CZUArrayBase<T, Storage>;
  using Ops = FileArrayOps<T, Layout>;

  // The staged single append is tried first, outside the exception guard, so that the common
  // case costs no more than a few stores; the rest takes the guarded path.
  int Append(const void* value) override {
    if (this->container_->TryStage(*static_cast<const T*>(value))) return kZuOk;
    return AppendGuarded(value);
  }
  void SetAt(uint64_t index, const void* value) override {
    Ops::SetAt(*this->container_, index, value);
  }
  // The common random read is a bound check and one load from the storage's direct reads:
  // independent reads overlap their memory misses only as far as the processor's window of
  // instructions reaches, so every instruction here counts. Any other read is left to the
  // storage, out of line, so that the common path saves no registers.
  void* GetAt(uint64_t index, void* out) override {
    const Storage& storage = *this->container_;
    if (index >= storage.direct_count()) return GetAtFromStorage(index, out);
    *static_cast<T*>(out) = storage.direct_reads()[index];
    return out;
  }
  // The storage's cached last element; an empty storage (no file) answers its all-ones
  // element, so out is always written.
  void* GetLast(void* out) override {
    *static_cast<T*>(out) = *this->container_->GetBackReadPtr();
    return out;
  }
  // The exact lower bound, when it lies within the array and holds the value; an answer at or
  // beyond the size is passed on as it is.
  uint64_t Find(const void* value) override;
  uint64_t UpperBound(const void* value) override {
    return Ops::UpperBound(*this->container_, value);
  }
  uint64_t LowerBound(const void* value) override {
    return Ops::LowerBound(*this->container_, value);
  }
  uint64_t FindNearest(void* inout, uint64_t tolerance) override {
    return Ops::FindNearest(*this->container_, inout, tolerance);
  }
  uint64_t LocateLowerBound(const void* value) override {
    return Ops::LocateLowerBound(*this->container_, value);
  }
  uint64_t FindFloor(const void* value) override {
    return Ops::FindFloor(*this->container_, value);
  }
  // A storage with a failed segment is replaced by a fresh one; otherwise it is emptied.
  // Either way the files go.
  void Clear() override;
  bool LoadDescription(const base::DictionaryValue* desc) override {
    return Ops::LoadDescription(*this->container_, desc);
  }
  bool SaveDescription(base::DictionaryValue** out) override {
    return Ops::SaveDescription(*this->container_, out);
  }
  // Creates the empty storage; no file is made before the first element.
  bool Init() override;

  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    return Ops::ReadRunAt(*this->container_, index, run);
  }
  bool SearchBatch(ZuSearch search, const void* keys, uint64_t count, uint64_t* out) override {
    return Ops::SearchBatch(*this->container_, search, keys, count, out);
  }

 private:
  [[gnu::noinline]] int AppendGuarded(const void* value) { return Base::Append(value); }
  // Through the segment (which reads its wide view without a lock where it can).
  [[gnu::noinline]] void* GetAtFromStorage(uint64_t index, void* out) {
    return Base::GetAt(index, out);
  }
};

template <typename T, typename Layout>
void FileArrayOps<T, Layout>::SetAt(Storage& files, uint64_t index, const void* value) {
  if (index >= static_cast<uint64_t>(files.GetSize())) return;
  files.SetElement(index, *static_cast<const T*>(value));
}

template <typename T, typename Layout>
bool FileArrayOps<T, Layout>::LoadDescription(Storage& files, const base::DictionaryValue* desc) {
  if (desc == nullptr) return false;
  return files.LoadDescription(*desc);
}

template <typename T, typename Layout>
bool FileArrayOps<T, Layout>::SaveDescription(Storage& files, base::DictionaryValue** out) {
  if (out == nullptr) return false;
  *out = files.SaveDescription();
  return true;
}

template <typename T, typename Layout>
bool FileArrayOps<T, Layout>::SearchBatch(Storage& files, ZuSearch search, const void* keys,
                                          uint64_t count, uint64_t* out) {
  const auto size = static_cast<uint64_t>(files.GetSize());
  auto run_at = [&files](uint64_t i, ZuReadRun* run) { return files.ReadRunAt(i, run); };
  if (!SearchInRuns<T>(size, run_at, search, keys, count, out)) return false;
  if (search == kZuSearchUpperBound && size > 0) {
    // A value at or above the last segment's last element answers that segment's end.
    const uint64_t next = ((size - 1) / Storage::kSegmentCapacity + 1) * Storage::kSegmentCapacity;
    for (uint64_t k = 0; k < count; ++k) {
      if (out[k] == size) out[k] = next;
    }
  }
  return true;
}

template <typename T, typename Layout>
uint64_t CZUFileArray<T, Layout>::Find(const void* value) {
  const T& v = *static_cast<const T*>(value);
  const uint64_t n = this->Size();
  const uint64_t i = this->container_->LowerBound(v);
  if (i >= n) return i;
  return *this->container_->GetReadPtr(static_cast<int64_t>(i)) == v ? i : n;
}

template <typename T, typename Layout>
void CZUFileArray<T, Layout>::Clear() {
  if (this->container_->HasDeadSegment()) {
    this->container_ = std::make_shared<Storage>();
  } else {
    this->container_->Clear();
  }
}

template <typename T, typename Layout>
bool CZUFileArray<T, Layout>::Init() {
  this->container_ = std::make_shared<Storage>();
  return this->container_ != nullptr;
}

// The operations serve every element type (a self-spilling array of records moves into files
// too); the file array exists for the integer types.
#define ZU_DECLARE_FILE_ARRAY_OPS(T) extern template struct FileArrayOps<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_FILE_ARRAY_OPS)
#undef ZU_DECLARE_FILE_ARRAY_OPS
#define ZU_DECLARE_FILE_ARRAY(T)                                  \
  extern template class CZUArrayBase<T, CZUMultiFileArrayImp<T>>; \
  extern template class CZUFileArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DECLARE_FILE_ARRAY)
#undef ZU_DECLARE_FILE_ARRAY

}  // namespace zu

#endif  // ZU_FILE_FILE_ARRAY_H_
