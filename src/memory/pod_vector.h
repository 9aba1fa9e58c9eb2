// PodVector<T>: the contiguous growable container behind the vector arrays and the in-memory
// phase of the self-spilling vector arrays, for trivially copyable elements.
//
// It offers the part of std::vector's interface the arrays use, with one difference that is
// the reason it exists: it grows by realloc. The C library hands large blocks out as mappings
// of their own and grows them by moving pages (glibc uses mremap), so a vector of hundreds of
// megabytes doubles without copying a byte and without touching fresh pages twice; a
// std::vector copies every element into a new block at each doubling. Where the C library
// copies instead (smaller blocks, other platforms) this costs what std::vector's growth costs.
//
// Growth doubles the capacity, as std::vector does, and is all-or-nothing: when the block
// cannot grow, std::bad_alloc leaves every element where it was; a capacity whose byte count
// does not fit size_t raises std::length_error. Inserting a range taken from the vector itself
// is allowed, as with std::vector.
// Thread-safety: not thread-safe: one thread per container.
#ifndef ZU_MEMORY_POD_VECTOR_H_
#define ZU_MEMORY_POD_VECTOR_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <type_traits>

namespace zu {

template <typename T>
class PodVector {
  static_assert(std::is_trivially_copyable<T>::value, "elements are moved as bytes");

 public:
  using value_type = T;
  using size_type = size_t;
  using iterator = T*;
  using const_iterator = const T*;

  PodVector() = default;
  PodVector(const PodVector&) = delete;
  PodVector& operator=(const PodVector&) = delete;
  ~PodVector() { std::free(data_); }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }

  // Keeps the capacity, as std::vector::clear does.
  void clear() { size_ = 0; }

  void reserve(size_t n) {
    if (n > capacity_) Reallocate(n);
  }

  void push_back(const T& value) {
    if (size_ == capacity_) {
      const T copy = value;  // value may live in the block that is about to move
      Reallocate(Grown(size_ + 1));
      data_[size_++] = copy;
      return;
    }
    data_[size_++] = value;
  }

  // Inserts [from, to) before pos; the range may lie inside this vector.
  T* insert(T* pos, const T* from, const T* to) {
    const size_t at = static_cast<size_t>(pos - data_);
    const size_t n = static_cast<size_t>(to - from);
    if (n == 0) return data_ + at;
    if (n > capacity_ - size_) {
      const bool inside = Holds(from);
      const size_t offset = inside ? static_cast<size_t>(from - data_) : 0;
      if (n > std::numeric_limits<size_t>::max() - size_) throw std::length_error("PodVector");
      Reallocate(Grown(size_ + n));
      if (inside) from = data_ + offset;  // the block moved with its contents
    }
    T* gap = data_ + at;
    if (at == size_) {
      std::memcpy(gap, from, n * sizeof(T));
    } else {
      // Taking the source from inside the vector: copy it aside before opening the gap.
      PodVector aside;
      if (Holds(from)) {
        aside.insert(aside.end(), from, from + n);
        from = aside.data();
      }
      std::memmove(gap + n, gap, (size_ - at) * sizeof(T));
      std::memcpy(gap, from, n * sizeof(T));
    }
    size_ += n;
    return gap;
  }

 private:
  static constexpr size_t kMaxElements = std::numeric_limits<size_t>::max() / sizeof(T);

  // The capacity that holds `needed`: at least double the present one.
  size_t Grown(size_t needed) const {
    size_t doubled = capacity_ <= kMaxElements / 2 ? capacity_ * 2 : kMaxElements;
    return needed > doubled ? needed : doubled;
  }

  bool Holds(const T* p) const {
    std::less_equal<const T*> le;
    return data_ != nullptr && le(data_, p) && std::less<const T*>()(p, data_ + size_);
  }

  void Reallocate(size_t n) {
    if (n > kMaxElements) throw std::length_error("PodVector");
    void* grown = std::realloc(data_, n * sizeof(T));
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<T*>(grown);
    capacity_ = n;
  }

  T* data_ = nullptr;    // a malloc'd block of capacity_ elements, or null while capacity_ is 0
  size_t size_ = 0;      // elements in use; size_ <= capacity_
  size_t capacity_ = 0;  // <= kMaxElements
};

}  // namespace zu

#endif  // ZU_MEMORY_POD_VECTOR_H_
