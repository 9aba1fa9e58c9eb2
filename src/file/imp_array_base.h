// CZUImpArrayBase<T, Storage>: the array bodies shared by every array whose container is a
// storage behind the storage interface (IZUArrayImp<T>): the file array over its multi-file
// storage and the self-spilling arrays over whichever storage they hold at the moment.
//
// Elements are read through GetReadPtr and copied at once (an address into a file view stays
// valid only until the next remap), written through GetWritePtr, appended with PushBack and
// Append, and copied out with ReadData. Searches here are plain bisections over GetReadPtr;
// storages with samples give better ones in the classes built on this.
//
// Ownership: the array owns its storage through the base's shared pointer, set by Init().
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_FILE_IMP_ARRAY_BASE_H_
#define ZU_FILE_IMP_ARRAY_BASE_H_

#include <algorithm>
#include <cstdint>

#include "src/file/array_imp.h"
#include "src/core/bisect.h"
#include "src/core/errors.h"
#include "src/memory/array_base.h"

namespace zu {

// The container operations of the array base, expressed over the storage interface. Only
// reached through the base's own bodies, which the arrays over storages override.
template <typename T>
struct StorageContainerOps {
  // Writable only where the storage allows it (a dummy elsewhere).
  static T& At(IZUArrayImp<T>& c, uint32_t i) { return *c.GetWritePtr(i); }
  static void EraseAll(IZUArrayImp<T>& c) { c.Clear(); }
  static void InsertRange(IZUArrayImp<T>& c, uint32_t /*at_end*/, ArrayIterBase* first,
                          ArrayIterBase* last) {
    c.Append(ZuArrayIter<T>(first), ZuArrayIter<T>(last));
  }
  static void CopyOut(IZUArrayImp<T>& c, uint32_t from, uint32_t n, T* dest) {
    int64_t count = n;
    c.ReadData(dest, from, count);
  }
};

template <typename T, typename A>
struct ContainerOps<IZUArrayImp<T, A>> : StorageContainerOps<T> {};

template <typename T, typename Storage>
class CZUImpArrayBase : public CZUArrayBase<T, Storage> {
 public:
  void* GetAt(uint64_t index, void* out) override {
    if (index >= Size()) return nullptr;
    *static_cast<T*>(out) = *this->container_->GetReadPtr(static_cast<int64_t>(index));
    return out;
  }

  int Append(const void* value) override {
    return GuardAdd([&] { this->container_->PushBack(*static_cast<const T*>(value)); });
  }

  void SetAt(uint64_t index, const void* value) override {
    if (index < Size()) {
      *this->container_->GetWritePtr(static_cast<int64_t>(index)) = *static_cast<const T*>(value);
    }
  }

  // Null on an empty array: no storage is asked for an element it does not have.
  void* GetLast(void* out) override {
    if (Size() == 0) return nullptr;
    *static_cast<T*>(out) = *this->container_->GetBackReadPtr();
    return out;
  }

  uint64_t Find(const void* value) override {
    const T& v = *static_cast<const T*>(value);
    uint64_t n = Size();
    uint64_t i = BisectLower(n, v, Reader());
    return (i < n && Reader()(i) == v) ? i : n;
  }

  uint64_t UpperBound(const void* value) override {
    return BisectUpper(Size(), *static_cast<const T*>(value), Reader());
  }

  uint64_t LowerBound(const void* value) override {
    return BisectLower(Size(), *static_cast<const T*>(value), Reader());
  }

  int Assign(ArrayIterBase* first, ArrayIterBase* last) override {
    return GuardAdd([&] { this->container_->Assign(ZuArrayIter<T>(first), ZuArrayIter<T>(last)); });
  }

  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override {
    return GuardAdd([&] { this->container_->Append(ZuArrayIter<T>(first), ZuArrayIter<T>(last)); });
  }

  // Copies only what exists: a start at or beyond the end copies nothing.
  void CopyOut(void* dest, int start, unsigned int count) override {
    uint64_t size = Size();
    uint64_t from = static_cast<unsigned int>(start);
    if (from >= size) return;
    auto n = static_cast<int64_t>(std::min<uint64_t>(count, size - from));
    this->container_->ReadData(static_cast<T*>(dest), static_cast<int64_t>(from), n);
  }

  void Clear() override { this->container_->Clear(); }
  uint64_t GetSize() override { return Size(); }

 protected:
  uint64_t Size() { return static_cast<uint64_t>(this->container_->GetSize()); }
  // Element i by value: the storage's address may not outlive the next read.
  auto Reader() {
    Storage* storage = this->container_.get();
    return [storage](uint64_t i) -> T { return *storage->GetReadPtr(static_cast<int64_t>(i)); };
  }
};

}  // namespace zu

#endif  // ZU_FILE_IMP_ARRAY_BASE_H_
