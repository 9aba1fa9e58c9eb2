// CZUDequeArray<T, N>: the in-memory array for data that grows to hundreds of megabytes. Its
// elements live in a std::xdeque with 1 MiB blocks, so appending never moves existing
// elements and never needs one contiguous allocation. Everything but construction, range
// appends and Init comes from CZUArrayBase over the deque.
//
// Unlike the vector array, Clear() frees every block (Assign keeps them for reuse).
// Range appends from a plain contiguous buffer are copied block by block.
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_MEMORY_DEQUE_ARRAY_H_
#define ZU_MEMORY_DEQUE_ARRAY_H_

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <typeinfo>
#include <vector>

#include "src/core/element_list.h"
#include "src/core/range.h"
#include "src/core/zu_array_iter.h"
#include "src/memory/array_base.h"
#include "src/memory/xdeque.h"

namespace zu {

// Every block of an integer deque array is exactly this many bytes.
constexpr unsigned int kDequeBlockBytes = 0x100000;

template <typename T, unsigned int N, typename A>
struct ContainerOps<std::xdeque<T, N, A>> {
  using Container = std::xdeque<T, N, A>;

  static T& At(Container& c, uint32_t i) { return c[i]; }
  // A push that needs no allocation, or false (nothing done).
  static bool TryPushBack(Container& c, const T& v) { return c.try_push_back(v); }
  // Keeps the blocks for the elements that usually follow.
  static void EraseAll(Container& c) { c.erase(c.begin(), c.end()); }
  static const T* RunAround(const Container& c, uint64_t i, uint64_t* first, uint64_t* count) {
    return c.block_run(static_cast<uint32_t>(i), first, count);
  }
  static void CopyOut(Container& c, uint32_t from, uint32_t n, T* dest) {
    c.copy_out(from, n, dest);
  }

  // Inserts [first, last) at pos (0 or the size) by the deque's range insert, leaving first
  // at last's position. A contiguous source is handed over as one pointer range so that the
  // deque copies it block by block.
  static void InsertRange(Container& c, uint32_t pos, ArrayIterBase* first, ArrayIterBase* last) {
    int64_t n = RangeCount(first, last);
    if (n < 0) throw std::length_error("xdeque<T> too long");
    if (n == 0) return;
    auto insert = [&c, pos](const T* from, const T* to) { c.insert(c.begin() + pos, from, to); };
    if (InsertContiguous<T>(first, last, insert)) return;
    // The library's own iterator yields an element at every position below its count, so
    // the wrappers can walk it directly when last lies within reach.
    if (typeid(*first) == typeid(SimpleDataIter<unsigned char>) &&
        last->GetPosition() <= first->GetCount()) {
      c.insert(c.begin() + pos, ZuArrayIter<T>(first), ZuArrayIter<T>(last));
      return;
    }
    // Any other iterator may run dry before last: stage what it yields.
    std::vector<T> staged;
    ForEachInRange<T>(first, last, [&staged](const T& v) { staged.push_back(v); });
    c.insert(c.begin() + pos, staged.data(), staged.data() + staged.size());
  }
};

template <typename T, unsigned int N>
class CZUDequeArray : public CZUArrayBase<T, std::xdeque<T, N>> {
 public:
  using Base = CZUArrayBase<T, std::xdeque<T, N>>;
  using Container = std::xdeque<T, N>;

  // A new array already owns an empty deque.
  CZUDequeArray() { CZUDequeArray::Init(); }
  ~CZUDequeArray() override = default;

  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override {
    return GuardAdd([&] {
      Container& c = *this->container_;
      Base::Ops::InsertRange(c, c.size(), first, last);
    });
  }

  bool Init() override {
    this->container_ = std::make_shared<Container>();
    return this->container_ != nullptr;
  }

  // The block around the index: appends add blocks but never move one.
  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    return ContainerRunAt<typename Base::Ops>(*this->container_, index, kZuRunKeptByAppends, run);
  }
  bool SearchBatch(ZuSearch search, const void* keys, uint64_t count, uint64_t* out) override {
    return SearchInOwnRuns<T>(*this, this->container_->size(), search, keys, count, out);
  }
};

// The deque array the factory builds for element type T: 1 MiB blocks.
template <typename T>
using CZUDequeArrayOf = CZUDequeArray<T, kDequeBlockBytes / sizeof(T)>;

#define ZU_DECLARE_DEQUE_ARRAY(T)                                                      \
  extern template class CZUArrayBase<T, std::xdeque<T, kDequeBlockBytes / sizeof(T)>>; \
  extern template class CZUDequeArray<T, kDequeBlockBytes / sizeof(T)>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DECLARE_DEQUE_ARRAY)
#undef ZU_DECLARE_DEQUE_ARRAY

}  // namespace zu

#endif  // ZU_MEMORY_DEQUE_ARRAY_H_
