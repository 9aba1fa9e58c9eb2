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
template <typename Memory>
int CZUAutoDequeArray<T, Alloc>::AppendTo(const void* value) {
  const T& v = *static_cast<const T*>(value);
  if (!spilled_) {
    // At the threshold the general path moves the elements first.
    auto& memory = static_cast<Memory&>(*this->container_);
    if (memory.size() < kSpillThreshold && memory.try_push_back(v)) return kZuOk;
  } else if (Files().TryStage(v)) {
    return kZuOk;
  }
  return AppendToStorage(v);
}

template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::Append(const void* value) {
  return AppendTo<CStdDeque<T, Alloc>>(value);
}

template <typename T, typename Alloc>
int CZUAutoVectorArray<T, Alloc>::Append(const void* value) {
  return this->template AppendTo<CStdVector<T, Alloc>>(value);
}

template <typename T, typename Alloc>
int CZUAutoDequeArray<T, Alloc>::AppendToStorage(const T& value) {
  return GuardAndClear([&] {
    if (!spilled_ && this->Size() >= kSpillThreshold) {
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
    if (!spilled_) {
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
  if (spilled_) return kZuOk;
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
  this->container_ = std::move(files);  // the in-memory storage goes here
  spilled_ = true;
  return kZuOk;
}

// In files the lower bound comes from the samples, and an answer beyond the size is the size.
template <typename T, typename Alloc>
uint64_t CZUAutoDequeArray<T, Alloc>::Find(const void* value) {
  if (!spilled_) return Base::Find(value);
  const T& v = *static_cast<const T*>(value);
  uint64_t n = this->Size();
  uint64_t i = Files().LowerBound(v);
  return (i < n && *this->container_->GetReadPtr(static_cast<int64_t>(i)) == v) ? i : n;
}

template <typename T, typename Alloc>
template <typename Memory>
bool CZUAutoDequeArray<T, Alloc>::StartInMemory() {
  this->container_ = std::make_shared<Memory>();
  spilled_ = false;
  return this->container_ != nullptr;
}

template <typename T, typename Alloc>
bool CZUAutoDequeArray<T, Alloc>::Init() {
  return StartInMemory<CStdDeque<T, Alloc>>();
}

template <typename T, typename Alloc>
bool CZUAutoVectorArray<T, Alloc>::Init() {
  return this->template StartInMemory<CStdVector<T, Alloc>>();
}

#define ZU_DEFINE_AUTO_ARRAYS(T)                  \
  template class CZUArrayBase<T, IZUArrayImp<T>>; \
  template class CZUAutoDequeArray<T>;            \
  template class CZUAutoVectorArray<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_AUTO_ARRAYS)
#undef ZU_DEFINE_AUTO_ARRAYS

}  // namespace zu
