// CZUVectorArray<T>: the array over one contiguous vector (PodVector<T>, which grows by moving
// pages rather than copying elements) that AllocVectorArray hands out, for the four integer
// element types. It holds at most 2^32 - 1 elements (every index then fits
// the 32-bit positions of the in-memory containers); a push beyond reports kZuFailed.
//
// Range appends from a plain contiguous buffer (AppendBuffer) are copied in one block instead
// of element by element through the iterator's virtual calls.
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_MEMORY_VECTOR_ARRAY_H_
#define ZU_MEMORY_VECTOR_ARRAY_H_

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "src/core/element_list.h"
#include "src/memory/array_base.h"
#include "src/memory/pod_vector.h"

namespace zu {

template <typename T>
struct ContainerOps<PodVector<T>> {
  using Container = PodVector<T>;

  static T& At(Container& c, uint32_t i) { return c[i]; }
  // A push within the capacity, or false (nothing done).
  static bool TryPushBack(Container& c, const T& v) {
    if (c.size() == c.capacity()) return false;
    c.push_back(v);
    return true;
  }
  static void EraseAll(Container& c) { c.clear(); }
  static const T* RunAround(const Container& c, uint64_t /*i*/, uint64_t* first, uint64_t* count) {
    *first = 0;
    *count = c.size();
    return c.data();
  }
  static void CopyOut(Container& c, uint32_t from, uint32_t n, T* dest) {
    if (n != 0) std::memcpy(dest, c.data() + from, static_cast<size_t>(n) * sizeof(T));
  }

  // Inserts [first, last) at pos (0 or the size), leaving first at last's position.
  static void InsertRange(Container& c, uint32_t pos, ArrayIterBase* first, ArrayIterBase* last) {
    int64_t n = RangeCount(first, last);
    if (n < 0 || c.size() + static_cast<uint64_t>(n) > kMaxInMemoryElements) {
      throw std::length_error("vector<T> too long");
    }
    if (n == 0) return;
    auto insert = [&c, pos](const T* from, const T* to) { c.insert(c.begin() + pos, from, to); };
    if (InsertContiguous<T>(first, last, insert)) return;
    size_t wanted = c.size() + static_cast<size_t>(n);
    if (c.capacity() < wanted) c.reserve(std::max(wanted, c.capacity() * 2));
    if (pos == c.size()) {
      ForEachInRange<T>(first, last, [&c](const T& v) { c.push_back(v); });
    } else {
      Container tail;
      tail.reserve(static_cast<size_t>(n));
      ForEachInRange<T>(first, last, [&tail](const T& v) { tail.push_back(v); });
      c.insert(c.begin() + pos, tail.begin(), tail.end());
    }
  }
};

template <typename T>
class CZUVectorArray : public CZUArrayBase<T, PodVector<T>> {
 public:
  using Base = CZUArrayBase<T, PodVector<T>>;

  ~CZUVectorArray() override = default;

  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override {
    return GuardAdd([&] {
      PodVector<T>& c = *this->container_;
      Base::Ops::InsertRange(c, static_cast<uint32_t>(c.size()), first, last);
    });
  }

  bool Init() override {
    this->container_ = std::make_shared<PodVector<T>>();
    return this->container_ != nullptr;
  }

  // The whole vector; any append may move it.
  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    return ContainerRunAt<typename Base::Ops>(*this->container_, index, 0, run);
  }
  bool SearchBatch(ZuSearch search, const void* keys, uint64_t count, uint64_t* out) override {
    return SearchInOwnRuns<T>(*this, this->container_->size(), search, keys, count, out);
  }
};

#define ZU_DECLARE_VECTOR_ARRAY(T)                     \
  extern template class CZUArrayBase<T, PodVector<T>>; \
  extern template class CZUVectorArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DECLARE_VECTOR_ARRAY)
#undef ZU_DECLARE_VECTOR_ARRAY

}  // namespace zu

#endif  // ZU_MEMORY_VECTOR_ARRAY_H_
