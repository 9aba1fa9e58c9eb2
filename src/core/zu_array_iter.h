// ZuArrayIter<T>: the thin random-access adaptor through which containers consume a range
// given as ArrayIterBase objects. Copies share the wrapped iterator (advancing one advances
// all), equality compares positions only, and the difference of two adaptors is the signed
// 32-bit difference of their positions. It lives only for the duration of one container
// operation; it never owns the wrapped iterator.
#ifndef ZU_CORE_ZU_ARRAY_ITER_H_
#define ZU_CORE_ZU_ARRAY_ITER_H_

#include <cstdint>
#include <iterator>

#include "zu_data_manager/iterators.h"

namespace zu {

template <typename T>
class ZuArrayIter {
 public:
  using iterator_category = std::random_access_iterator_tag;
  using value_type = T;
  using difference_type = int;
  using pointer = T*;
  using reference = T&;

  ZuArrayIter() : it_(nullptr) {}
  explicit ZuArrayIter(ArrayIterBase* it) : it_(it) {}
  virtual ~ZuArrayIter() {}
  ZuArrayIter(const ZuArrayIter&) = default;
  ZuArrayIter& operator=(const ZuArrayIter&) = default;

  // The element at the current position. Callers test current() for null first when the
  // range may be shorter than announced.
  T& operator*() const { return *current(); }
  T* current() const { return static_cast<T*>(it_->GetCurrent()); }
  ZuArrayIter& operator++() {
    it_->Next();
    return *this;
  }
  unsigned int position() const { return it_->GetPosition(); }
  ArrayIterBase* base() const { return it_; }

  friend bool operator==(const ZuArrayIter& a, const ZuArrayIter& b) {
    return a.position() == b.position();
  }
  friend bool operator!=(const ZuArrayIter& a, const ZuArrayIter& b) { return !(a == b); }
  friend int operator-(const ZuArrayIter& b, const ZuArrayIter& a) {
    return static_cast<int>(b.position() - a.position());
  }

 private:
  ArrayIterBase* it_;  // not owned; shared by every copy
};

}  // namespace zu

#endif  // ZU_CORE_ZU_ARRAY_ITER_H_
