// CZUBufferArray<T> and CZUCrossBufferArray<T>: read-only IZUArray views of memory the caller
// already holds, for the four integer element types. The plain array sees a contiguous run of
// elements; the cross array sees one channel of an interleaved buffer, where every element is
// followed by `gap` bytes belonging to other channels.
//
// Ownership: the caller's buffer is never copied, written, resized or freed; the caller keeps
// it alive and in place for the array's lifetime. No container is ever created, so every
// operation that would need one refuses with the not-implemented error: the base refuses with
// std::logic_error (SetAt, Find, LowerBound, Assign, CopyOut, and through them the searches
// and range appends built on them), while Append and Clear, which would change the element
// count, refuse with the plain std::exception.
//
// The cross array's GetAt and the element-address accessors are unchecked by design: they
// address the caller's buffer at any index.
// Thread-safety: not thread-safe: one thread per array; concurrent readers are safe while
// nobody writes the caller's buffer.
#ifndef ZU_MEMORY_BUFFER_ARRAY_H_
#define ZU_MEMORY_BUFFER_ARRAY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "src/core/bisect.h"
#include "src/core/element_list.h"
#include "src/core/errors.h"
#include "src/memory/array_base.h"
#include "src/memory/vector_array.h"

namespace zu {

// Where the backward searches read while they narrow the range: at the current position, or
// half the remaining count below it.
enum class BackwardProbe { kAtPosition, kBelowPosition };

// Searches from the last element towards the first. value_less_at(i) tells whether the
// searched value is less than element i. The answer is the position left when the remaining
// count reaches 0, or 0 when that position fell below the first element. Every probe lies in
// [0, count): the position never drops below the remaining count minus one.
template <typename ValueLessAt>
uint64_t BackwardSearch(uint64_t count, BackwardProbe probe_at, ValueLessAt&& value_less_at) {
  uint64_t n = count;
  uint64_t pos = count - 1;
  while (n != 0) {
    uint64_t half = n >> 1;
    uint64_t probe = probe_at == BackwardProbe::kAtPosition ? pos : pos - half;
    if (value_less_at(probe)) {
      pos = pos - half - 1;
      n = n - half - 1;
    } else {
      n = half;
    }
  }
  return pos >= count ? 0 : pos;
}

// The caller's buffer seen as `count` elements `stride` bytes apart.
class AttachedBuffer {
 public:
  AttachedBuffer(unsigned char* buffer, uint64_t length, uint64_t count, size_t stride)
      : buffer_(buffer), length_(length), count_(count), stride_(stride) {}

  // Only the low 32 bits of the index take part, as the positions of every in-memory array;
  // the offset itself is computed in full width.
  unsigned char* Address(uint64_t index) const {
    return buffer_ + static_cast<size_t>(static_cast<uint32_t>(index)) * stride_;
  }
  uint64_t count() const { return count_; }
  uint64_t length() const { return length_; }
  size_t stride() const { return stride_; }

 private:
  unsigned char* buffer_;  // the caller's; never written, resized or freed
  uint64_t length_;        // bytes attached (the span of the interleaved data for cross views)
  uint64_t count_;         // elements visible through the array
  size_t stride_;          // bytes from one element to the next; >= the element size
};

template <typename T>
class CZUBufferArray : public CZUArrayBase<T, PodVector<T>> {
 public:
  CZUBufferArray(unsigned char* buffer, int64_t length)
      : CZUBufferArray(buffer, static_cast<uint64_t>(length), sizeof(T)) {}

  void* GetAt(uint64_t index, void* out) override {
    return index < view_.count() ? CopyOutOne(index, out) : nullptr;
  }
  // Null on an empty view rather than reading before the buffer.
  void* GetLast(void* out) override {
    return view_.count() == 0 ? nullptr : CopyOutOne(view_.count() - 1, out);
  }
  // This slot answers an exact-match search: the index of the first element equal to
  // *value, or the count.
  uint64_t UpperBound(const void* value) override {
    const T& v = *static_cast<const T*>(value);
    uint64_t n = view_.count();
    auto at = [this](uint64_t i) { return Load(i); };
    uint64_t i = BisectLower(n, v, at);
    return (i < n && Load(i) == v) ? i : n;
  }
  uint64_t GetSize() override { return view_.count(); }

  int Append(const void* /*value*/) override { ThrowPlainNotImplemented(); }
  void Clear() override { ThrowPlainNotImplemented(); }

  // Slots 21 to 23: element addresses without a range test, and GetAt under another name.
  virtual T* GetElementPtr(uint64_t index) { return reinterpret_cast<T*>(view_.Address(index)); }
  virtual T* GetElementPtrAt(uint64_t index) { return GetElementPtr(index); }
  virtual void* CopyElementAt(uint64_t index, void* out) { return this->GetAt(index, out); }

  // The caller's buffer when its elements lie one after another, aligned for T, and every
  // index reaches its element (the positions are 32-bit).
  bool ReadRunAt(uint64_t index, ZuReadRun* run) override {
    const uint64_t n = view_.count();
    const unsigned char* data = view_.Address(0);
    if (index >= n || view_.stride() != sizeof(T) || n > kMaxInMemoryElements ||
        reinterpret_cast<uintptr_t>(data) % alignof(T) != 0) {
      return false;
    }
    *run = {data, 0, n, kZuRunKeptByAppends};
    return true;
  }
  // Only the UpperBound slot searches here, and it answers an exact-match search; the other
  // searches are left to their single calls, which refuse.
  bool SearchBatch(ZuSearch search, const void* keys, uint64_t count, uint64_t* out) override {
    if (search != kZuSearchUpperBound) return false;
    return SearchInOwnRuns<T>(*this, view_.count(), kZuSearchFind, keys, count, out);
  }

 protected:
  CZUBufferArray(unsigned char* buffer, uint64_t length, size_t stride)
      : view_(buffer, length, stride == 0 ? 0 : length / stride, stride) {}

  // The caller's buffer need not be aligned for T.
  T Load(uint64_t index) const {
    T v;
    std::memcpy(&v, view_.Address(index), sizeof(T));
    return v;
  }
  void* CopyOutOne(uint64_t index, void* out) const {
    std::memcpy(out, view_.Address(index), sizeof(T));
    return out;
  }

  AttachedBuffer view_;  // stride == sizeof(T) for the plain view
};

template <typename T>
class CZUCrossBufferArray : public CZUBufferArray<T> {
 public:
  // span: the bytes of the interleaved data (the factory computes it from the payload
  // length); the count is span / (sizeof(T) + gap).
  CZUCrossBufferArray(int gap, unsigned char* buffer, int64_t span)
      : CZUBufferArray<T>(buffer, static_cast<uint64_t>(span), sizeof(T) + gap), gap_(gap) {}

  // Unchecked by design: any index addresses the caller's buffer.
  void* GetAt(uint64_t index, void* out) override { return this->CopyOutOne(index, out); }

  // This slot searches backwards; its probe stays at the current position while the range
  // halves. 0 for an empty view, count - 1 when *value is not less than the last element.
  uint64_t UpperBound(const void* value) override {
    const T& v = *static_cast<const T*>(value);
    return BackwardSearch(this->view_.count(), BackwardProbe::kAtPosition,
                          [&](uint64_t i) { return v < this->Load(i); });
  }

  int gap() const { return gap_; }

  // Its UpperBound slot searches backwards: a batch is one such search per key.
  bool SearchBatch(ZuSearch /*search*/, const void* /*keys*/, uint64_t /*count*/,
                   uint64_t* /*out*/) override {
    return false;
  }

 private:
  int gap_;  // >= 0: foreign bytes after each element
};

#define ZU_DECLARE_BUFFER_ARRAY(T)         \
  extern template class CZUBufferArray<T>; \
  extern template class CZUCrossBufferArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DECLARE_BUFFER_ARRAY)
#undef ZU_DECLARE_BUFFER_ARRAY

}  // namespace zu

#endif  // ZU_MEMORY_BUFFER_ARRAY_H_
