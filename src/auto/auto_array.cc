#include "src/auto/auto_array.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace zu {

template <typename T, typename Alloc>
template <typename Fn>
int CZUAutoDequeArray<T, Alloc>::GuardAndClear(Fn&& add) {
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
// kSpillThreshold elements, and the append that would make one more moves them first.
template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::Append(const void* value) {
  const T& v = *static_cast<const T*>(value);
  if (memory_deque_ != nullptr) return AppendInMemory(*memory_deque_, v);
  if (files_ != nullptr && files_->TryStage(v)) return kZuOk;
  return AppendToStorage(v);
}

// The same over the vector storage: each flavour tests only its own pointer, so that its
// common case runs straight through.
template <typename T, typename Alloc>
int CZUAutoVectorArray<T, Alloc>::Append(const void* value) {
  const T& v = *static_cast<const T*>(value);
  if (this->memory_vector_ != nullptr) return this->AppendInMemory(*this->memory_vector_, v);
  if (this->files_ != nullptr && this->files_->TryStage(v)) return kZuOk;
  return this->AppendToStorage(v);
}

template <typename T, typename Alloc>
template <typename Memory>
int CZUAutoDequeArray<T, Alloc>::AppendInMemory(Memory& memory, const T& value) {
  // At the threshold the general path moves the elements first.
  if (memory.size() < kSpillThreshold && memory.try_push_back(value)) return kZuOk;
  return AppendToStorage(value);
}

template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::AppendToStorage(const T& value) {
  return GuardAndClear([&] {
    if (!spilled() && this->Size() >= kSpillThreshold) {
      int result = SpillToFiles();
      if (result != kZuOk) return result;
    }
    this->container_->PushBack(value);
    return static_cast<int>(kZuOk);
  });
}

// Range appends test the size the range would reach: a range landing exactly on the
// threshold already moves.
template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::AppendRange(ArrayIterBase* first, ArrayIterBase* last) {
  return GuardAndClear([&] {
    if (!spilled()) {
      int64_t n =
          static_cast<int64_t>(last->GetPosition()) - static_cast<int64_t>(first->GetPosition());
      if (static_cast<int64_t>(this->Size()) + n >= static_cast<int64_t>(kSpillThreshold)) {
        int result = SpillToFiles();
        if (result != kZuOk) return result;
      }
    }
    this->container_->Append(ZuArrayIter<T>(first), ZuArrayIter<T>(last));
    return static_cast<int>(kZuOk);
  });
}

template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::SpillToFiles() {
  if (spilled()) return kZuOk;
  auto files = std::make_shared<CZUMultiFileArrayImp<T>>();
  if (files->HasDeadSegment()) return kZuNoSpace;

  // The buffer lives on the heap: 8192 records of 512 bytes are 4 MiB, far more than a stack
  // frame should hold. It is only needed for a piece that is not one run of memory.
  std::vector<T> buffer;
  int64_t remaining = this->container_->GetSize();
  int64_t position = 0;
  while (remaining > 0) {
    int64_t k = remaining < kMigrateChunk ? remaining : kMigrateChunk;
    int64_t copied = k;
    // A piece inside one block of the in-memory storage (its first and last elements k - 1
    // apart) is handed over where it lies: the copy through the buffer would be the same bytes.
    const T* piece = this->container_->GetReadPtr(position);
    const T* piece_last = this->container_->GetReadPtr(position + k - 1);
    if (reinterpret_cast<uintptr_t>(piece_last) - reinterpret_cast<uintptr_t>(piece) !=
        static_cast<uint64_t>(k - 1) * sizeof(T)) {
      if (buffer.empty()) buffer.resize(kMigrateChunk);
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
  SetMemoryStorage(nullptr, nullptr);
  this->container_ = files;  // the in-memory storage goes here
  files_ = files.get();
  return kZuOk;
}

template <typename T, typename Alloc>
CZUMultiFileArrayImp<T>& CZUAutoDequeArray<T, Alloc>::Files() {
  return *files_;
}

template <typename T, typename Alloc>
void CZUAutoDequeArray<T, Alloc>::SetAt(uint64_t index, const void* value) {
  if (!spilled()) {
    CZUArrayBase<T, IZUArrayImp<T>>::SetAt(index, value);
  } else if (index < this->Size()) {
    // In files the segment head and the samples follow the new value too.
    Files().SetElement(index, *static_cast<const T*>(value));
  }
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::Find(const void* value) {
  if (!spilled()) return CZUArrayBase<T, IZUArrayImp<T>>::Find(value);
  const T& v = *static_cast<const T*>(value);
  uint64_t n = this->Size();
  uint64_t i = Files().LowerBound(v);
  return (i < n && *this->container_->GetReadPtr(static_cast<int64_t>(i)) == v) ? i : n;
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::UpperBound(const void* value) {
  if (!spilled()) return CZUArrayBase<T, IZUArrayImp<T>>::UpperBound(value);
  return Files().UpperBound(*static_cast<const T*>(value));
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::LowerBound(const void* value) {
  if (!spilled()) return CZUArrayBase<T, IZUArrayImp<T>>::LowerBound(value);
  return Files().LowerBound(*static_cast<const T*>(value));
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::FindNearest(void* inout, uint64_t tolerance) {
  if (!spilled()) return CZUArrayBase<T, IZUArrayImp<T>>::FindNearest(inout, tolerance);
  return Files().FindNearest(static_cast<T*>(inout), tolerance);
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::LocateLowerBound(const void* value) {
  if (!spilled()) return this->LowerBound(value);
  return Files().LocateLowerBound(*static_cast<const T*>(value));
}

template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::FindFloor(const void* value) {
  if (!spilled()) return CZUArrayBase<T, IZUArrayImp<T>>::FindFloor(value);
  return Files().FindFloor(*static_cast<const T*>(value));
}

template <typename T, typename Alloc>
bool CZUAutoDequeArray<T, Alloc>::LoadDescription(const base::DictionaryValue* desc) {
  if (!spilled()) return true;  // only an array already in files can take a description
  if (desc == nullptr) return false;
  return Files().LoadDescription(*desc);
}

template <typename T, typename Alloc>
bool CZUAutoDequeArray<T, Alloc>::SaveDescription(base::DictionaryValue** out) {
  if (!spilled()) return true;
  if (out == nullptr) return false;
  *out = Files().SaveDescription();
  return true;
}

template <typename T, typename Alloc>
bool CZUAutoDequeArray<T, Alloc>::Init() {
  auto deque = std::make_shared<CStdDeque<T, Alloc>>();
  this->SetMemoryStorage(deque.get(), nullptr);
  this->container_ = std::move(deque);
  files_ = nullptr;
  return this->container_ != nullptr;
}

template <typename T, typename Alloc>
bool CZUAutoVectorArray<T, Alloc>::Init() {
  auto vector = std::make_shared<CStdVector<T, Alloc>>();
  this->SetMemoryStorage(nullptr, vector.get());
  this->container_ = std::move(vector);
  this->files_ = nullptr;
  return this->container_ != nullptr;
}

#define ZU_DEFINE_AUTO_ARRAYS(T)                     \
  template class CZUArrayBase<T, IZUArrayImp<T>>; \
  template class CZUAutoDequeArray<T>;               \
  template class CZUAutoVectorArray<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_AUTO_ARRAYS)
#undef ZU_DEFINE_AUTO_ARRAYS

}  // namespace zu
