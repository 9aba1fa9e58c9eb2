// IZUArrayImp<T>: the storage interface behind the self-spilling arrays — a sequence of
// elements addressed by 64-bit index. The auto arrays talk to their storage only through it,
// so they can exchange an in-memory storage for a file-backed one while they live.
//
// Slots 1/2 and 3/4 are the writable and read-only forms of the same access: identical for
// in-memory storage, different for file storage, where only the part of a file mapped for
// writing may be written while a read may map any part. The accessors do not check the index;
// callers compare it with GetSize() first. Where a file storage has no element to give, it
// hands out one of its own placeholders (Placeholders<T>).
//
// Ownership: created with new and held by a std::shared_ptr; destroyed with its last owner.
// Thread-safety: not thread-safe: one thread per storage (file segments lock their views).
#ifndef ZU_FILE_ARRAY_IMP_H_
#define ZU_FILE_ARRAY_IMP_H_

#include <cstdint>
#include <memory>

#include "src/core/errors.h"
#include "src/core/zu_array_iter.h"

namespace zu {

// The elements a storage hands out where it has none to give (an index out of range, a failed
// segment): one per kind of access, owned by each storage object, so that arrays used on
// different threads never share a writable element.
template <typename T>
struct Placeholders {
  T write{};  // takes writes meant for no element; what it holds is never read as data
  T read{};   // read where no element is
  T back{};   // the last element of a storage that has none
};

template <typename T, typename Alloc = std::allocator<T>>
class IZUArrayImp {
 public:
  virtual ~IZUArrayImp() {}
  virtual T* GetWritePtr(int64_t index) = 0;
  virtual const T* GetReadPtr(int64_t index) = 0;
  virtual T* GetBackWritePtr() = 0;
  virtual const T* GetBackReadPtr() = 0;
  virtual void Clear() = 0;
  virtual int64_t GetSize() = 0;
  virtual void PushBack(const T& value) = 0;
  // Every concrete storage overrides the three range operations; these bodies only guard.
  virtual void Assign(const ZuArrayIter<T>& /*first*/, const ZuArrayIter<T>& /*last*/) {
    ThrowNotImplement();
  }
  virtual void Append(const ZuArrayIter<T>& /*first*/, const ZuArrayIter<T>& /*last*/) {
    ThrowNotImplement();
  }
  // Copies elements beginning at `offset` into dest; count carries the number wanted in and
  // the number copied out.
  virtual void ReadData(T* /*dest*/, int64_t /*offset*/, int64_t& /*count*/) {
    ThrowNotImplement();
  }
};

}  // namespace zu

#endif  // ZU_FILE_ARRAY_IMP_H_
