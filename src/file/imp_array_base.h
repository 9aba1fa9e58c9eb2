// CZUArrayBase<T, Storage> for the storages behind the storage interface: the array bodies
// shared by the file array (over its CZUMultiFileArrayImp<T>) and the self-spilling arrays
// (over IZUArrayImp<T>, whichever storage they hold at the moment).
//
// Elements are read through GetReadPtr and copied at once (an address into a file view stays
// valid only until the next remap), written through GetWritePtr, appended with PushBack and
// Append, and copied out with ReadData; indexes stay 64-bit throughout. Searches here are
// plain bisections over GetReadPtr; storages with samples give better ones in the classes
// built on this.
//
// Ownership: the array owns its storage through the shared pointer, set by Init().
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_FILE_IMP_ARRAY_BASE_H_
#define ZU_FILE_IMP_ARRAY_BASE_H_

#include <algorithm>
#include <cstdint>
#include <memory>

#include "src/core/bisect.h"
#include "src/core/errors.h"
#include "src/file/array_imp.h"
#include "src/memory/array_base.h"

namespace zu {

// The storages take the bodies below rather than the in-memory ones: the storage interface
// here, the multi-file storage next to its class.
struct StorageFamily {};
template <typename T, typename A>
struct ArrayBaseFamily<IZUArrayImp<T, A>> {
  using type = StorageFamily;
};

template <typename T, typename Storage>
class CZUArrayBase<T, Storage, StorageFamily> : public CZUArrayCommon<T> {
 public:
  void* GetAt(uint64_t index, void* out) override {
    if (index >= Size()) return nullptr;
    *static_cast<T*>(out) = *container_->GetReadPtr(static_cast<int64_t>(index));
    return out;
  }

  int Append(const void* value) override {
    return GuardAdd([&] { container_->PushBack(*static_cast<const T*>(value)); });
  }

  void SetAt(uint64_t index, const void* value) override {
    if (index < Size()) {
      *container_->GetWritePtr(static_cast<int64_t>(index)) = *static_cast<const T*>(value);
    }
  }

  // Null on an empty array: no storage is asked for an element it does not have.
  void* GetLast(void* out) override {
    if (Size() == 0) return nullptr;
    *static_cast<T*>(out) = *container_->GetBackReadPtr();
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
    return GuardAdd([&] { container_->Assign(ZuArrayIter<T>(first), ZuArrayIter<T>(last)); });
  }

  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override {
    return GuardAdd([&] { container_->Append(ZuArrayIter<T>(first), ZuArrayIter<T>(last)); });
  }

  // Copies only what exists: a start at or beyond the end copies nothing.
  void CopyOut(void* dest, int start, unsigned int count) override {
    uint64_t size = Size();
    uint64_t from = static_cast<unsigned int>(start);
    if (from >= size) return;
    auto n = static_cast<int64_t>(std::min<uint64_t>(count, size - from));
    container_->ReadData(static_cast<T*>(dest), static_cast<int64_t>(from), n);
  }

  void Clear() override { container_->Clear(); }
  uint64_t GetSize() override { return Size(); }

  // Slot 20: builds the storage. The base has none to build.
  virtual bool Init() { return false; }

 protected:
  uint64_t Size() { return static_cast<uint64_t>(container_->GetSize()); }
  // Element i by value: the storage's address may not outlive the next read.
  auto Reader() {
    Storage* storage = container_.get();
    return [storage](uint64_t i) -> T { return *storage->GetReadPtr(static_cast<int64_t>(i)); };
  }

  // Empty until Init().
  std::shared_ptr<Storage> container_;
};

}  // namespace zu

#endif  // ZU_FILE_IMP_ARRAY_BASE_H_
