// Helpers for consuming an iterator range [first, last).
//
// A range is walked element by element through three virtual calls (position test, element
// address, advance). When `first` is exactly the library's SimpleDataIter with a stride equal
// to the element size, the elements are one contiguous block and can be copied in bulk; the
// copy then leaves `first` at the position the element-wise walk would have reached.
#ifndef ZU_CORE_RANGE_H_
#define ZU_CORE_RANGE_H_

#include <cstdint>
#include <typeinfo>

#include "src/core/zu_array_iter.h"
#include "zu_data_manager/iterators.h"

namespace zu {

// The element count of [first, last): the signed 32-bit difference of the positions (a
// `last` before `first` gives a negative count, which the containers report as a length
// error).
inline int64_t RangeCount(ArrayIterBase* first, ArrayIterBase* last) {
  return static_cast<int32_t>(last->GetPosition() - first->GetPosition());
}

// A contiguous view of the elements that an element-wise walk of [first, last) would read.
struct ContiguousRange {
  const void* data = nullptr;  // element at first's position; null when not contiguous
  uint64_t count = 0;          // elements readable from data
};

// Non-null data when first is a plain SimpleDataIter<unsigned char> with stride
// `element_size`. The count stops where first's own data ends, exactly where an element-wise
// walk would stop finding elements.
inline ContiguousRange FindContiguous(ArrayIterBase* first, ArrayIterBase* last,
                                      size_t element_size) {
  ContiguousRange range;
  if (typeid(*first) != typeid(SimpleDataIter<unsigned char>)) return range;
  auto* simple = static_cast<SimpleDataIter<unsigned char>*>(first);
  if (simple->stride() != element_size) return range;
  unsigned int from = first->GetPosition();
  unsigned int to = last->GetPosition();
  if (to > first->GetCount()) to = first->GetCount();
  if (to <= from) return range;
  range.data = simple->data() + static_cast<size_t>(from) * element_size;
  range.count = to - from;
  return range;
}

// When [first, last) is one contiguous block, hands it to insert(const T* begin, const T* end)
// in one call and moves first to last's position, as the element-wise walk would; answers
// whether it did.
template <typename T, typename Insert>
bool InsertContiguous(ArrayIterBase* first, ArrayIterBase* last, Insert&& insert) {
  ContiguousRange bulk = FindContiguous(first, last, sizeof(T));
  if (bulk.data == nullptr) return false;
  const T* src = static_cast<const T*>(bulk.data);
  insert(src, src + bulk.count);
  first->Seek(last->GetPosition());
  return true;
}

// Calls sink(const T&) for each element of [first, last), advancing first. Stops early when
// first runs out of elements before reaching last's position (a malformed range), instead of
// reading through a null address.
template <typename T, typename Sink>
void ForEachInRange(ArrayIterBase* first, ArrayIterBase* last, Sink&& sink) {
  while (first->GetPosition() != last->GetPosition()) {
    const void* current = first->GetCurrent();
    if (current == nullptr) break;
    sink(*static_cast<const T*>(current));
    first->Next();
  }
}

}  // namespace zu

#endif  // ZU_CORE_RANGE_H_
