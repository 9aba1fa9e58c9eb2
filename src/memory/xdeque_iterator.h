// std::xdeque<T, N, A>::basic_iterator: the random-access iterator of the block deque. The
// container's header includes this one once the container is complete; include either.
//
// A container pointer and a 64-bit absolute position; dereferencing performs the block-slot
// computation. Valid across pushes that do not grow the map.
#ifndef ZU_MEMORY_XDEQUE_ITERATOR_H_
#define ZU_MEMORY_XDEQUE_ITERATOR_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "src/memory/xdeque.h"

namespace std {

template <typename T, unsigned int N, typename A>
template <bool Const>
class xdeque<T, N, A>::basic_iterator {
  using Owner = conditional_t<Const, const xdeque, xdeque>;

 public:
  using iterator_category = random_access_iterator_tag;
  using value_type = T;
  using difference_type = ptrdiff_t;
  using pointer = conditional_t<Const, const T*, T*>;
  using reference = conditional_t<Const, const T&, T&>;

  basic_iterator() = default;
  basic_iterator(Owner* owner, uint64_t position) : owner_(owner), position_(position) {}
  // A mutable iterator converts to a constant one.
  template <bool C = Const, typename = enable_if_t<C>>
  basic_iterator(const basic_iterator<false>& other)  // NOLINT(runtime/explicit)
      : owner_(other.owner_), position_(other.position_) {}

  reference operator*() const { return *owner_->Address(position_); }
  pointer operator->() const { return owner_->Address(position_); }
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  reference operator[](I n) const {
    return *(*this + n);
  }

  // Any integral offset: signed ones are sign-extended, so negative steps go backwards.
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  basic_iterator& operator+=(I n) {
    position_ += static_cast<uint64_t>(
        static_cast<conditional_t<is_signed<I>::value, int64_t, uint64_t>>(n));
    return *this;
  }
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  basic_iterator& operator-=(I n) {
    position_ -= static_cast<uint64_t>(
        static_cast<conditional_t<is_signed<I>::value, int64_t, uint64_t>>(n));
    return *this;
  }
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  friend basic_iterator operator+(basic_iterator it, I n) {
    return it += n;
  }
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  friend basic_iterator operator+(I n, basic_iterator it) {
    return it += n;
  }
  template <typename I, typename = enable_if_t<is_integral<I>::value>>
  friend basic_iterator operator-(basic_iterator it, I n) {
    return it -= n;
  }
  basic_iterator& operator++() {
    ++position_;
    return *this;
  }
  basic_iterator& operator--() {
    --position_;
    return *this;
  }
  basic_iterator operator++(int) {
    basic_iterator old = *this;
    ++position_;
    return old;
  }
  basic_iterator operator--(int) {
    basic_iterator old = *this;
    --position_;
    return old;
  }

  friend difference_type operator-(const basic_iterator& a, const basic_iterator& b) {
    return static_cast<difference_type>(a.position_ - b.position_);
  }
  friend bool operator==(const basic_iterator& a, const basic_iterator& b) {
    return a.position_ == b.position_;
  }
  friend bool operator!=(const basic_iterator& a, const basic_iterator& b) {
    return a.position_ != b.position_;
  }
  friend bool operator<(const basic_iterator& a, const basic_iterator& b) {
    return a.position_ < b.position_;
  }
  friend bool operator>(const basic_iterator& a, const basic_iterator& b) { return b < a; }
  friend bool operator<=(const basic_iterator& a, const basic_iterator& b) { return !(b < a); }
  friend bool operator>=(const basic_iterator& a, const basic_iterator& b) { return !(a < b); }

  uint64_t position() const { return position_; }

 private:
  friend class xdeque;
  template <bool>
  friend class basic_iterator;

  Owner* owner_ = nullptr;  // the container addressed; not owned
  uint64_t position_ = 0;   // absolute position: first position + index, never wrapped
};

}  // namespace std

#endif  // ZU_MEMORY_XDEQUE_ITERATOR_H_
