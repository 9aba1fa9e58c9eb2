// Iterators that carry ranges of elements across the array interface.
//
// ArrayIterBase is a type-erased forward iterator that knows its position and its element
// count; SimpleDataIter walks a plain memory block with a fixed stride and serves every
// element type (the stride is the element size). Bulk operations take a range as two
// iterators over the same data: `first`, and `last` = first->Clone() moved with Seek(n).
// Positions clamp to the count, so an iterator never moves past its end.
//
// Ownership: an iterator never owns the data it walks. Clone() returns an independent copy.
// Thread-safety: not thread-safe: one thread per iterator.
#ifndef ZU_DATA_MANAGER_ITERATORS_H_
#define ZU_DATA_MANAGER_ITERATORS_H_

#include <cstdint>
#include <memory>
#include <set>

#include "zu_data_manager/export.h"

class ZU_EXPORT ArrayIterBase {
 public:
  virtual ~ArrayIterBase() {}
  // Address of the element at the current position; null at or past the end.
  virtual void* GetCurrent() = 0;
  // Address of element `index`; null when index >= count.
  virtual void* GetAt(unsigned int index) = 0;
  virtual bool IsCurrentMarked() = 0;
  virtual bool IsMarked(unsigned int index) = 0;
  virtual unsigned int GetCount() = 0;
  // position >= count.
  virtual bool IsEnd() = 0;
  // position + 1, never beyond count.
  virtual void Next() = 0;
  // position = min(index, count).
  virtual void Seek(unsigned int index) = 0;
  virtual unsigned int GetPosition() = 0;
  // Independent copy with the same data, count, stride, position and marks.
  virtual std::shared_ptr<ArrayIterBase> Clone() = 0;
};

// Walks `count` elements starting at `data`, `stride` bytes apart. The template argument is
// the byte type of the walk; the library uses SimpleDataIter<unsigned char> for every element
// type. The mark set is carried and copied but never filled by the library itself.
template <typename Byte>
class SimpleDataIter : public ArrayIterBase {
 public:
  SimpleDataIter(Byte* data, unsigned int count, unsigned int stride)
      : data_(data), count_(count), position_(0), stride_(stride) {}

  void* GetCurrent() override { return position_ >= count_ ? nullptr : Address(position_); }
  void* GetAt(unsigned int index) override { return index >= count_ ? nullptr : Address(index); }
  bool IsCurrentMarked() override { return marks_.count(position_) != 0; }
  bool IsMarked(unsigned int index) override { return marks_.count(index) != 0; }
  unsigned int GetCount() override { return count_; }
  bool IsEnd() override { return position_ >= count_; }
  void Next() override {
    position_ = position_ + 1;
    if (position_ >= count_) position_ = count_;
  }
  void Seek(unsigned int index) override { position_ = index >= count_ ? count_ : index; }
  unsigned int GetPosition() override { return position_; }
  std::shared_ptr<ArrayIterBase> Clone() override {
    std::shared_ptr<SimpleDataIter> copy = std::make_shared<SimpleDataIter>(data_, count_, stride_);
    copy->position_ = position_;
    copy->marks_ = marks_;
    return copy;
  }

  // Not part of the virtual interface: a host that wants marked positions adds them here.
  void Mark(uint64_t position) { marks_.insert(position); }
  Byte* data() const { return data_; }
  unsigned int stride() const { return stride_; }

 private:
  void* Address(unsigned int index) const { return data_ + static_cast<size_t>(stride_) * index; }

  Byte* data_;                // first byte of the first element; not owned
  unsigned int count_;        // number of elements
  unsigned int position_;     // 0 <= position_ <= count_
  unsigned int stride_;       // bytes from one element to the next
  std::set<uint64_t> marks_;  // marked positions; empty unless a host adds some
};

#endif  // ZU_DATA_MANAGER_ITERATORS_H_
