// std::xdeque<T, N, A>: a double-ended sequence for large in-memory arrays.
//
// The shape is that of a deque (a circular map of pointers to fixed-size blocks, elements
// addressed by a running position) but a block holds N elements, chosen by the user, so that
// hundreds of megabytes live in a few hundred large blocks and the map stays a few thousand
// pointers at most. N must be a power of two: addressing an element is a shift and a mask
// plus two loads (the block pointer, then the element).
//
// Positions. The element at index i has the absolute position q = first position + i. Its
// block slot is q / N, reduced by one map size when that reaches the map size (the map is a
// ring: elements pushed in front of position 0 live in its last slots), and its place in the
// block is q mod N. The container keeps 32-bit first position, size and map size; iterators
// carry q in 64 bits so that first position + size never wraps for byte elements, whose ring
// can span almost 2^32 elements.
//
// Blocks are allocated when first written and kept when elements are popped or erased, for
// reuse; only clear() (and destruction) frees them. The map grows by at least 8 slots (half
// its size once larger) and stops at max_map_size() = floor((2^32 - 1) / sizeof(T)) / N
// slots; a push that needs more throws std::length_error("xdeque<T> too long") before
// anything changes. A failed block or map allocation throws std::bad_alloc and leaves the
// contents as they were.
//
// Pushing at the back is the hot path of the arrays (one push per appended element), so the
// container remembers where the next back push goes and where that block ends: a push then
// costs a compare, a store and two increments. Every other change of the first position or
// the size forgets that place, and the next back push finds it again by the position rule.
//
// T may be any copy-constructible type: elements are constructed in place when pushed and
// destroyed when popped, erased or cleared. Trivially copyable elements are moved in bulk.
//
// It lives in namespace std next to the standard containers because the rest of the library
// names it std::xdeque.
// Thread-safety: not thread-safe: one thread per container.
#ifndef ZU_MEMORY_XDEQUE_H_
#define ZU_MEMORY_XDEQUE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace std {

template <typename T, unsigned int N, typename A = allocator<T>>
class xdeque {
  static_assert(N != 0 && (N & (N - 1)) == 0, "the block length must be a power of two");

  using ElemTraits = allocator_traits<A>;
  using MapAlloc = typename ElemTraits::template rebind_alloc<T*>;
  using MapTraits = allocator_traits<MapAlloc>;

  static constexpr uint64_t kAddressSpace = 0xFFFFFFFFull;  // 32-bit byte budget of one map
  static constexpr uint32_t kMinMapGrowth = 8;
  static constexpr uint32_t kShift = [] {
    uint32_t s = 0;
    while ((1ull << s) != N) ++s;
    return s;
  }();
  static constexpr uint32_t kMask = N - 1;
  static constexpr uint32_t kMaxMapSize = static_cast<uint32_t>(kAddressSpace / sizeof(T) / N);
  static_assert(kMaxMapSize > 0, "a single block must fit the 32-bit element budget");

  template <bool Const>
  class basic_iterator;

 public:
  using value_type = T;
  using allocator_type = A;
  using size_type = uint32_t;
  using difference_type = ptrdiff_t;
  using reference = T&;
  using const_reference = const T&;
  using pointer = T*;
  using const_pointer = const T*;
  using iterator = basic_iterator<false>;
  using const_iterator = basic_iterator<true>;

  static constexpr uint32_t block_length = N;

  xdeque() = default;
  explicit xdeque(const A& alloc) : alloc_(alloc) {}
  xdeque(const xdeque& other) : alloc_(other.alloc_) {
    try {
      for (const T& v : other) push_back(v);
    } catch (...) {
      clear();  // no destructor runs for a constructor that throws
      throw;
    }
  }
  xdeque(xdeque&& other) noexcept { swap(other); }
  xdeque& operator=(xdeque other) noexcept {
    swap(other);
    return *this;
  }
  ~xdeque() { clear(); }

  void swap(xdeque& other) noexcept {
    std::swap(map_, other.map_);
    std::swap(map_size_, other.map_size_);
    std::swap(first_, other.first_);
    std::swap(size_, other.size_);
    std::swap(back_, other.back_);
    std::swap(back_end_, other.back_end_);
    std::swap(alloc_, other.alloc_);
  }

  size_type size() const { return size_; }
  bool empty() const { return size_ == 0; }
  static constexpr size_type max_map_size() { return kMaxMapSize; }
  size_type map_size() const { return map_size_; }
  // Absolute position of the first element; always below map_size() * N.
  size_type first_position() const { return first_; }
  // Whether map slot `slot` holds a block (blocks outlive the elements that were popped).
  bool has_block(size_type slot) const { return slot < map_size_ && map_[slot] != nullptr; }

  iterator begin() { return iterator(this, first_); }
  iterator end() { return iterator(this, uint64_t{first_} + size_); }
  const_iterator begin() const { return const_iterator(this, first_); }
  const_iterator end() const { return const_iterator(this, uint64_t{first_} + size_); }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  // No range check: callers test the index against size() first.
  // The elements around element i (< size()) that share its block, which never moves while it
  // holds elements: the address of element *first, from which *count elements follow.
  const T* block_run(size_type i, uint64_t* first, uint64_t* count) const {
    const uint64_t q = uint64_t{first_} + i;
    const uint64_t before = std::min<uint64_t>(i, q & kMask);
    *first = i - before;
    *count = std::min<uint64_t>(size_ - *first, before + (N - (q & kMask)));
    return Address(q - before);
  }
  T& operator[](size_type i) { return *Address(uint64_t{first_} + i); }
  const T& operator[](size_type i) const { return *Address(uint64_t{first_} + i); }
  T& front() { return (*this)[0]; }
  T& back() { return (*this)[size_ - 1]; }
  const T& front() const { return (*this)[0]; }
  const T& back() const { return (*this)[size_ - 1]; }

  void push_back(const T& value) { emplace_back(value); }
  void push_back(T&& value) { emplace_back(std::move(value)); }
  void push_front(const T& value) { emplace_front(value); }
  void push_front(T&& value) { emplace_front(std::move(value)); }

  template <typename... Args>
  T& emplace_back(Args&&... args) {
    // Inside the remembered block the slot exists: no growth test, no allocation test.
    if (__builtin_expect(back_ == back_end_, 0)) FindBack();
    return PlaceBack(std::forward<Args>(args)...);
  }

  // Pushes at the back only when the place is remembered (no new block, no map growth, nothing
  // allocated) and answers whether it did. A caller that keeps the container behind a pointer
  // tries this first and calls push_back out of line, so that its inlined part stays small.
  bool try_push_back(const T& value) {
    if (back_ == back_end_) return false;
    PlaceBack(value);
    return true;
  }

  template <typename... Args>
  T& emplace_front(Args&&... args) {
    ForgetBack();
    uint64_t q = FrontPosition();
    T* slot = EnsureBlock(q) + (q & kMask);
    ElemTraits::construct(alloc_, slot, std::forward<Args>(args)...);
    first_ = static_cast<uint32_t>(q);
    ++size_;
    return *slot;
  }

  void pop_back() {
    if (size_ == 0) return;
    ForgetBack();
    ElemTraits::destroy(alloc_, &back());
    if (--size_ == 0) first_ = 0;
  }

  void pop_front() {
    if (size_ == 0) return;
    ForgetBack();
    ElemTraits::destroy(alloc_, &front());
    if (++first_ == RingLength()) first_ = 0;
    if (--size_ == 0) first_ = 0;
  }

  // Inserts a single-pass range. In the back half the elements are pushed at the back and
  // rotated into place; otherwise they are pushed at the front (arriving reversed), reversed,
  // and rotated. An empty container therefore takes the front path.
  template <typename InputIt>
  iterator insert(const_iterator where, InputIt first, InputIt last) {
    uint32_t off = static_cast<uint32_t>(where - cbegin());
    uint32_t old_size = size_;
    if (first == last) return begin() + off;
    if (size_ / 2 < off) {
      for (; first != last; ++first) push_back(*first);
      std::rotate(begin() + off, begin() + old_size, end());
    } else {
      uint32_t pushed = 0;
      for (; first != last; ++first, ++pushed) push_front(*first);
      std::reverse(begin(), begin() + pushed);
      std::rotate(begin(), begin() + pushed, begin() + pushed + off);
    }
    return begin() + off;
  }

  // A contiguous source is placed block by block (one copy per block touched) instead of
  // one push per element; the result is that of the single-pass insert above.
  iterator insert(const_iterator where, const T* first, const T* last) {
    uint32_t off = static_cast<uint32_t>(where - cbegin());
    uint32_t old_size = size_;
    auto n = static_cast<uint64_t>(last - first);
    if (n == 0) return begin() + off;
    if (size_ / 2 < off) {
      AppendBlocks(first, n);
      std::rotate(begin() + off, begin() + old_size, end());
    } else {
      PrependBlocks(first, n);
      std::rotate(begin(), begin() + n, begin() + n + off);
    }
    return begin() + off;
  }
  iterator insert(const_iterator where, T* first, T* last) {
    return insert(where, static_cast<const T*>(first), static_cast<const T*>(last));
  }

  // Moves the shorter side over the hole, then pops. Never frees a block.
  iterator erase(const_iterator first, const_iterator last) {
    uint32_t off = static_cast<uint32_t>(first - cbegin());
    uint32_t count = static_cast<uint32_t>(last - first);
    if (count == 0) return begin() + off;
    iterator from = begin() + off;
    iterator to = from + count;
    if (off < static_cast<uint32_t>(end() - to)) {
      std::move_backward(begin(), from, to);
      for (uint32_t i = 0; i < count; ++i) pop_front();
    } else {
      std::move(to, end(), from);
      for (uint32_t i = 0; i < count; ++i) pop_back();
    }
    return begin() + off;
  }
  iterator erase(const_iterator where) { return erase(where, where + 1); }

  // Drops every element, then frees every block and the map.
  void clear() {
    ForgetBack();
    if constexpr (is_trivially_destructible<T>::value) {
      size_ = 0;
      first_ = 0;
    } else {
      while (size_ != 0) pop_back();
    }
    for (uint32_t slot = map_size_; slot-- > 0;) {
      if (map_[slot] != nullptr) ElemTraits::deallocate(alloc_, map_[slot], N);
    }
    if (map_ != nullptr) {
      MapAlloc map_alloc(alloc_);
      MapTraits::deallocate(map_alloc, map_, map_size_);
    }
    map_ = nullptr;
    map_size_ = 0;
  }

  // Copies elements [from, from + n) to dest, one block segment at a time.
  void copy_out(size_type from, size_type n, T* dest) const {
    uint64_t q = uint64_t{first_} + from;
    while (n != 0) {
      uint32_t in_block = static_cast<uint32_t>(q & kMask);
      uint32_t chunk = std::min<uint32_t>(n, N - in_block);
      const T* src = Address(q);
      if constexpr (is_trivially_copyable<T>::value) {
        std::memcpy(static_cast<void*>(dest), src, size_t{chunk} * sizeof(T));
      } else {
        std::copy(src, src + chunk, dest);
      }
      dest += chunk;
      q += chunk;
      n -= chunk;
    }
  }

 private:
  uint32_t RingLength() const { return map_size_ * N; }  // <= 2^32 - 1 by kMaxMapSize

  uint32_t SlotOf(uint64_t q) const {
    uint64_t b = q >> kShift;
    if (b >= map_size_) b -= map_size_;
    return static_cast<uint32_t>(b);
  }
  T* Address(uint64_t q) const { return map_[SlotOf(q)] + (q & kMask); }

  // The block that holds position q, allocated (not initialised) if the slot is empty.
  T* EnsureBlock(uint64_t q) {
    T*& block = map_[SlotOf(q)];
    if (block == nullptr) block = ElemTraits::allocate(alloc_, N);
    return block;
  }

  bool MapFullFor(uint32_t size) const { return map_size_ <= (uint64_t{size} + N) / N; }

  // Constructs the element at the remembered place behind the last one.
  template <typename... Args>
  T& PlaceBack(Args&&... args) {
    T* slot = back_;
    ElemTraits::construct(alloc_, slot, std::forward<Args>(args)...);
    ++size_;  // only after the element exists: a throwing constructor changes nothing
    back_ = slot + 1;
    return *slot;
  }

  // Remembers the place just after the last element (its block allocated, the map grown when
  // a new block starts) and the end of its block.
  void FindBack() {
    T* slot = BackSlot();
    uint32_t in_block = static_cast<uint32_t>((uint64_t{first_} + size_) & kMask);
    back_end_ = slot - in_block + N;
    back_ = slot;
  }

  void ForgetBack() { back_ = back_end_ = nullptr; }

  // Address of the place just after the last element, with its block present.
  T* BackSlot() {
    uint64_t q = uint64_t{first_} + size_;
    if ((q & kMask) == 0 && MapFullFor(size_)) {
      GrowMap(1);
      q = uint64_t{first_} + size_;
    }
    return EnsureBlock(q) + (q & kMask);
  }

  // Position just before the first element (wrapping to the end of the ring), growing the
  // map when the ring is about to close.
  uint64_t FrontPosition() {
    if ((first_ & kMask) == 0 && MapFullFor(size_)) GrowMap(1);
    uint64_t q = first_ == 0 ? uint64_t{RingLength()} : first_;
    return q - 1;
  }

  // Adds at least `count` slots. Blocks that had wrapped to the start of the old ring move
  // behind its end, so every element keeps its absolute position.
  void GrowMap(uint32_t count) {
    if (kMaxMapSize - map_size_ < count) throw length_error("xdeque<T> too long");
    uint32_t inc = std::max(map_size_ / 2, kMinMapGrowth);
    if (count < inc && inc <= kMaxMapSize - map_size_) count = inc;  // map_size_ <= kMaxMapSize
    uint32_t boff = first_ >> kShift;
    uint32_t old_size = map_size_;
    MapAlloc map_alloc(alloc_);
    T** fresh = MapTraits::allocate(map_alloc, size_t{old_size} + count);
    T** old = map_;
    std::copy(old + boff, old + old_size, fresh + boff);
    if (boff <= count) {
      std::copy(old, old + boff, fresh + old_size);
      std::fill(fresh + old_size + boff, fresh + old_size + count, nullptr);
      std::fill(fresh, fresh + boff, nullptr);
    } else {
      std::copy(old, old + count, fresh + old_size);
      std::copy(old + count, old + boff, fresh);
      std::fill(fresh + boff - count, fresh + boff, nullptr);
    }
    if (old != nullptr) MapTraits::deallocate(map_alloc, old, old_size);
    map_size_ = old_size + count;
    map_ = fresh;
  }

  // Constructs n elements from src behind the last one, a block segment at a time. The
  // elements placed before a failure stay.
  void AppendBlocks(const T* src, uint64_t n) {
    ForgetBack();
    while (n != 0) {
      T* dest = BackSlot();
      uint32_t in_block = static_cast<uint32_t>((uint64_t{first_} + size_) & kMask);
      uint32_t chunk = static_cast<uint32_t>(std::min<uint64_t>(n, N - in_block));
      ConstructCopies(src, chunk, dest);
      size_ += chunk;
      src += chunk;
      n -= chunk;
    }
  }

  // Places n elements from src in front of the first one, in source order, filling each
  // block from its end (the layout the front pushes of insert() leave after the reverse).
  void PrependBlocks(const T* src, uint64_t n) {
    ForgetBack();
    while (n != 0) {
      uint64_t q = FrontPosition();
      T* block = EnsureBlock(q);
      uint32_t room = static_cast<uint32_t>(q & kMask) + 1;
      uint32_t chunk = static_cast<uint32_t>(std::min<uint64_t>(n, room));
      ConstructCopies(src + (n - chunk), chunk, block + room - chunk);
      first_ = static_cast<uint32_t>(q + 1 - chunk);
      size_ += chunk;
      n -= chunk;
    }
  }

  void ConstructCopies(const T* src, uint32_t count, T* dest) {
    if constexpr (is_trivially_copyable<T>::value) {
      std::memcpy(static_cast<void*>(dest), src, size_t{count} * sizeof(T));
    } else {
      uint32_t built = 0;
      try {
        for (; built < count; ++built) ElemTraits::construct(alloc_, dest + built, src[built]);
      } catch (...) {
        while (built-- > 0) ElemTraits::destroy(alloc_, dest + built);
        throw;
      }
    }
  }

  T** map_ = nullptr;      // null, or map_size_ slots each null or a block of N elements
  uint32_t map_size_ = 0;  // <= kMaxMapSize
  uint32_t first_ = 0;     // < map_size_ * N when map_size_ > 0; 0 when empty
  uint32_t size_ = 0;      // elements; every block they occupy is allocated
  // The place of the next back push and the end of its block while back_ != back_end_;
  // both null once forgotten.
  T* back_ = nullptr;
  T* back_end_ = nullptr;
  A alloc_;  // stateless in every instantiation of the library
};

}  // namespace std

// The iterator, defined once the container is complete.
#include "src/memory/xdeque_iterator.h"  // IWYU pragma: export

#endif  // ZU_MEMORY_XDEQUE_H_
