// CStdVector<T> and CStdDeque<T>: the in-memory storages behind the self-spilling arrays,
// over a PodVector (the vector arrays' container, which grows by moving pages and allocates
// through the C library whatever Alloc names) and over a std::xdeque with blocks of 16384 elements.
// Each operation is one container call; range operations take the container's bulk path when the
// source is a plain contiguous buffer.
//
// The element accessors do not test the index (the owning array compares it with GetSize()
// first); only the back accessors answer null on an empty storage, because an empty deque has
// no block to point into. ReadData copies only elements that exist: the count it reports is
// the number it copied.
//
// Growth failures pass through unchanged: std::bad_alloc, or std::length_error when the
// container's maximum size is passed.
//
// The adapters are final, and their container-style size(), push_back() and try_push_back()
// go straight to the container: an owner that holds the concrete adapter (the auto arrays
// while in memory) appends without a virtual call, with the same checks as PushBack.
// Thread-safety: not thread-safe: one thread per storage.
#ifndef ZU_AUTO_STD_ADAPTERS_H_
#define ZU_AUTO_STD_ADAPTERS_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "src/core/element_list.h"
#include "src/file/array_imp.h"
#include "src/memory/deque_array.h"
#include "src/memory/vector_array.h"
#include "src/memory/xdeque.h"

namespace zu {

// Elements per block of the deque storage, for every element type.
constexpr unsigned int kStdDequeBlockLength = 16384;

// The one body of both adapters; Container is a std::vector or a std::xdeque of T.
template <typename T, typename Container, typename Alloc = std::allocator<T>>
class CStdContainer : public IZUArrayImp<T, Alloc> {
 public:
  using Ops = ContainerOps<Container>;

  T* GetWritePtr(int64_t index) override { return &*(data_.begin() + index); }
  const T* GetReadPtr(int64_t index) override { return GetWritePtr(index); }
  T* GetBackWritePtr() override { return data_.empty() ? nullptr : &*(data_.end() - 1); }
  const T* GetBackReadPtr() override { return GetBackWritePtr(); }
  void Clear() override { data_.clear(); }
  int64_t GetSize() override { return static_cast<int64_t>(size()); }
  void PushBack(const T& value) override { push_back(value); }
  void Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override {
    Ops::EraseAll(data_);
    Ops::InsertRange(data_, 0, first.base(), last.base());
  }
  void Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) override {
    Ops::InsertRange(data_, static_cast<uint32_t>(data_.size()), first.base(), last.base());
  }

  uint64_t size() const { return data_.size(); }
  // The elements around `index` that lie one after another (see ZuGetReadRun); any append may
  // move them into files.
  bool RunAt(uint64_t index, ZuReadRun* run) const {
    return ContainerRunAt<Ops>(data_, index, 0, run);
  }
  // Indexes are 32-bit inside; the deque's map limit is always reached first.
  void push_back(const T& value) { PushBackWithinLimit(data_, value); }
  // A push that allocates nothing (and so cannot fail), or false with nothing done.
  bool try_push_back(const T& value) { return TryPushBackWithinLimit<Ops>(data_, value); }

  // Offsets and counts compare as unsigned: an offset beyond the size copies nothing, and the
  // copy stops at the last element.
  void ReadData(T* dest, int64_t offset, int64_t& count) override {
    uint64_t wanted = static_cast<uint64_t>(count);
    count = 0;
    uint64_t size = data_.size();
    uint64_t from = static_cast<uint64_t>(offset);
    if (from > size) return;
    uint64_t n = std::min(wanted, size - from);
    Ops::CopyOut(data_, static_cast<uint32_t>(from), static_cast<uint32_t>(n), dest);
    count = static_cast<int64_t>(n);
  }

 private:
  Container data_;  // the elements, index 0 first
};

template <typename T, typename Alloc = std::allocator<T>>
class CStdVector final : public CStdContainer<T, PodVector<T>, Alloc> {};

template <typename T, typename Alloc = std::allocator<T>>
class CStdDeque final
    : public CStdContainer<T, std::xdeque<T, kStdDequeBlockLength, Alloc>, Alloc> {};

#define ZU_DECLARE_STD_ADAPTERS(T)                                              \
  extern template class CStdContainer<T, PodVector<T>>;                         \
  extern template class CStdContainer<T, std::xdeque<T, kStdDequeBlockLength>>; \
  extern template class CStdVector<T>;                                          \
  extern template class CStdDeque<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DECLARE_STD_ADAPTERS)
#undef ZU_DECLARE_STD_ADAPTERS

}  // namespace zu

#endif  // ZU_AUTO_STD_ADAPTERS_H_
