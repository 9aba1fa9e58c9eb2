// Arrays of records larger than eight bytes, held through unsigned char* elements: each
// element is the address of one record of a fixed record size, carried by the array.
//
//  * CZUArrayBase<unsigned char*, Container>: the record base. Its added slots are 19
//    GetItemPtr, 20 GetItemPtrAt, 21 CopyItemAt, 22 ItemLess, 23 ItemNotLess, 24 FreeItems,
//    25 Init. The ordering used by its searches, ItemLess, holds only when every byte of one
//    record is strictly below the byte of the other at the same place; it is deliberately not
//    a lexicographic order.
//  * CZUDequeArray<unsigned char*, N>: records copied into arrays owned by the array, their
//    addresses kept in a std::xdeque. Clear, FreeItems and destruction free every record;
//    replacing the content (Assign) frees the replaced records and stores owned copies of the
//    new ones, so the array never holds or frees memory it did not allocate.
//  * CZUBufferArray<unsigned char*>, CZUCrossBufferArray<unsigned char*>: records lying in a
//    caller's buffer, contiguous or interleaved. The buffer is never written, resized or
//    freed: the operations that would need that refuse with the not-implemented error (the
//    base's SetAt, Assign and FreeItems because the view holds no container; Append and Clear
//    with the plain std::exception).
//
// Searches other than the backward one in the UpperBound slot are not offered by record
// arrays (std::logic_error "The method or operation is not implemented.").
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_MEMORY_RECORD_ARRAY_H_
#define ZU_MEMORY_RECORD_ARRAY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "src/core/errors.h"
#include "src/core/range.h"
#include "src/memory/array_base.h"
#include "src/memory/buffer_array.h"
#include "src/memory/deque_array.h"
#include "src/memory/xdeque.h"

namespace zu {

using RecordPtr = unsigned char*;

// Records per block of the record deque (its blocks hold addresses, not records).
constexpr unsigned int kRecordBlockLength = 0x100000;

template <typename Container>
class CZUArrayBase<RecordPtr, Container, InMemoryFamily> : public CZUArrayCommon<RecordPtr> {
 public:
  using Ops = ContainerOps<Container>;

  explicit CZUArrayBase(int record_size) : record_size_(record_size) {}
  // Frees the records the array owns; an array without a container (the buffer views) has
  // none and touches nothing.
  ~CZUArrayBase() override { ReleaseRecords(); }

  // Copies the record to out and answers the record's own address.
  void* GetAt(uint64_t index, void* out) override {
    RecordPtr record = RecordAt(index);
    if (record == nullptr) return nullptr;
    std::memcpy(out, record, RecordBytes());
    return record;
  }

  int Append(const void* value) override {
    return GuardAdd([&] { PushOwnedCopy(static_cast<const unsigned char*>(value)); });
  }

  void SetAt(uint64_t index, const void* value) override {
    RequireContainer();
    RecordPtr record = RecordAt(index);
    if (record != nullptr) std::memcpy(record, value, RecordBytes());
  }

  // Null on an empty array rather than reading before the first record.
  void* GetLast(void* out) override {
    uint64_t n = GetSize();
    return n == 0 ? nullptr : GetAt(n - 1, out);
  }

  // The backward search with ItemLess; its probe lies half the remaining count below the
  // current position.
  uint64_t UpperBound(const void* value) override {
    const auto* v = static_cast<const unsigned char*>(value);
    return BackwardSearch(GetSize(), BackwardProbe::kBelowPosition,
                          [&](uint64_t i) { return this->ItemLess(v, RecordAt(i)); });
  }

  uint64_t Find(const void* /*value*/) override { ThrowNotImplemented(); }
  uint64_t LowerBound(const void* /*value*/) override { ThrowNotImplemented(); }
  uint64_t FindNearest(void* /*inout*/, uint64_t /*tolerance*/) override { ThrowNotImplemented(); }
  uint64_t LocateLowerBound(const void* /*value*/) override { ThrowNotImplemented(); }
  uint64_t FindFloor(const void* /*value*/) override { ThrowNotImplemented(); }
  int AppendBuffer(const void* /*data*/, uint64_t /*count*/) override { ThrowNotImplemented(); }
  void CopyOut(void* /*dest*/, int /*start*/, unsigned int /*count*/) override {
    ThrowNotImplemented();
  }

  // Each position of the range addresses one record (as the value of Append does); the array
  // stores its own copy of each and frees the records it replaces. The copies are made
  // before anything is replaced, so a failed copy leaves the content as it was.
  int Assign(ArrayIterBase* first, ArrayIterBase* last) override {
    RequireContainer();  // refused before the guard: it is not a failure to add
    return GuardAdd([&] {
      // A range that ends before it starts is refused like the other containers' length
      // error, before any record is replaced.
      if (RangeCount(first, last) < 0) throw std::length_error("xdeque<T> too long");
      // Each position of the range holds a record's address, as every element of this array
      // does; the array keeps copies of the records behind those addresses. All copies are
      // made before anything is replaced, so a failure leaves the old content as it was.
      std::vector<std::unique_ptr<unsigned char[]>> copies;
      ForEachInRange<unsigned char>(first, last, [&](const unsigned char& position) {
        RecordPtr record;
        std::memcpy(&record, &position, sizeof(record));  // the caller's slot may be unaligned
        if (record == nullptr) throw std::invalid_argument("null record address");
        copies.push_back(CopyRecord(record));
      });
      DeleteRecords();
      Ops::EraseAll(*container_);
      for (auto& copy : copies) {
        container_->push_back(copy.get());
        copy.release();
      }
    });
  }

  void Clear() override { FreeItems(); }
  uint64_t GetSize() override { return container_ == nullptr ? 0 : container_->size(); }

  RecordPtr GetItemPtr(uint64_t index) override { return RecordAt(index); }
  virtual RecordPtr GetItemPtrAt(uint64_t index) { return RecordAt(index); }
  virtual void* CopyItemAt(uint64_t index, void* out) { return GetAt(index, out); }

  // True only when every byte of a is strictly below the byte of b at the same place (and for
  // a record size of 0).
  virtual bool ItemLess(const unsigned char* a, const unsigned char* b) {
    bool less = true;
    for (size_t i = 0; less && i < RecordBytes(); ++i) less = a[i] < b[i];
    return less;
  }
  virtual bool ItemNotLess(const unsigned char* a, const unsigned char* b) {
    return !ItemLess(a, b);
  }
  // Frees every record, then drops the container's blocks and map.
  virtual void FreeItems() {
    RequireContainer();
    ReleaseRecords();
  }
  virtual bool Init() { return false; }

  int record_size() const { return record_size_; }

 protected:
  size_t RecordBytes() const { return record_size_ > 0 ? static_cast<size_t>(record_size_) : 0; }

  // An array without a container (a view of a caller's buffer) refuses the operation.
  void RequireContainer() const {
    if (container_ == nullptr) ThrowNotImplemented();
  }

  // The stored address at index; null out of range or without a container.
  RecordPtr RecordAt(uint64_t index) {
    if (container_ == nullptr || index >= container_->size()) return nullptr;
    return Ops::At(*container_, static_cast<uint32_t>(index));
  }

  std::unique_ptr<unsigned char[]> CopyRecord(const unsigned char* source) const {
    std::unique_ptr<unsigned char[]> record(new unsigned char[RecordBytes()]);
    std::memcpy(record.get(), source, RecordBytes());
    return record;
  }

  // A record whose address cannot be stored is freed again.
  void PushOwnedCopy(const unsigned char* source) {
    std::unique_ptr<unsigned char[]> record = CopyRecord(source);
    container_->push_back(record.get());
    record.release();
  }

  void DeleteRecords() {
    if (container_ == nullptr) return;
    Container& c = *container_;
    for (uint32_t i = 0; i < c.size(); ++i) delete[] Ops::At(c, i);
  }

  void ReleaseRecords() {
    if (container_ == nullptr) return;
    DeleteRecords();
    container_->clear();
  }

  // Empty until Init(); every stored address is a record this array allocated.
  std::shared_ptr<Container> container_;
  int record_size_;  // bytes per record, the factory's type code
};

template <unsigned int N>
class CZUDequeArray<RecordPtr, N> : public CZUArrayBase<RecordPtr, std::xdeque<RecordPtr, N>> {
 public:
  using Base = CZUArrayBase<RecordPtr, std::xdeque<RecordPtr, N>>;
  using Container = std::xdeque<RecordPtr, N>;

  // The record size is stored before the deque is built.
  explicit CZUDequeArray(int record_size) : Base(record_size) { CZUDequeArray::Init(); }
  ~CZUDequeArray() override = default;

  // The status starts at 0 and the loop runs only while it is non-zero, so nothing is ever
  // appended and the answer is 0. Hosts rely on this, so it stays.
  int AppendRange(ArrayIterBase* first, ArrayIterBase* last) override {
    int status = kZuOk;
    while (first->GetPosition() != last->GetPosition() && status != kZuOk) {
      status = this->Append(first->GetCurrent());
      first->Next();
    }
    return status;
  }

  // A second Init starts over with an empty deque, freeing the records held so far.
  bool Init() override {
    this->ReleaseRecords();
    this->container_ = std::make_shared<Container>();
    return this->container_ != nullptr;
  }
};

using CZUDequeRecordArray = CZUDequeArray<RecordPtr, kRecordBlockLength>;

// Records of the caller's buffer, record i at buffer + i * record size.
template <>
class CZUBufferArray<RecordPtr> : public CZUArrayBase<RecordPtr, PodVector<RecordPtr>> {
 public:
  CZUBufferArray(int record_size, unsigned char* buffer, int64_t length)
      : CZUBufferArray(record_size, buffer, static_cast<uint64_t>(length),
                       static_cast<uint64_t>(length) / RecordUnit(record_size),
                       RecordUnit(record_size)) {}

  void* GetAt(uint64_t index, void* out) override {
    return index < view_.count() ? CopyRecordOut(index, out) : nullptr;
  }
  void* GetLast(void* out) override {
    return view_.count() == 0 ? nullptr : CopyRecordOut(view_.count() - 1, out);
  }
  uint64_t UpperBound(const void* value) override {
    const auto* v = static_cast<const unsigned char*>(value);
    return BackwardSearch(view_.count(), BackwardProbe::kBelowPosition,
                          [&](uint64_t i) { return ItemLess(v, view_.Address(i)); });
  }
  uint64_t GetSize() override { return view_.count(); }
  RecordPtr GetItemPtr(uint64_t index) override {
    return index < view_.count() ? view_.Address(index) : nullptr;
  }
  RecordPtr GetItemPtrAt(uint64_t index) override { return GetItemPtr(index); }
  void* CopyItemAt(uint64_t index, void* out) override { return GetAt(index, out); }

  int Append(const void* /*value*/) override { ThrowPlainNotImplemented(); }
  void Clear() override { ThrowPlainNotImplemented(); }

 protected:
  CZUBufferArray(int record_size, unsigned char* buffer, uint64_t length, uint64_t count,
                 size_t stride)
      : CZUArrayBase(record_size), view_(buffer, length, count, stride) {}

  // The factory only attaches records of nine bytes or more; a smaller size is read as one.
  static size_t RecordUnit(int record_size) {
    return record_size > 0 ? static_cast<size_t>(record_size) : 1;
  }
  RecordPtr CopyRecordOut(uint64_t index, void* out) {
    RecordPtr record = view_.Address(index);
    std::memcpy(out, record, RecordBytes());
    return record;
  }

  AttachedBuffer view_;  // stride == record size for the plain view
};

// Records of one channel of an interleaved buffer, record i at buffer + i * (record size +
// gap). The count is span / record size, as if there were no gaps, so it exceeds the records
// the buffer holds whenever gap > 0; only the address-comparing search relies on it.
template <>
class CZUCrossBufferArray<RecordPtr> : public CZUBufferArray<RecordPtr> {
 public:
  CZUCrossBufferArray(int record_size, int gap, unsigned char* buffer, int64_t span)
      : CZUBufferArray(record_size, buffer, static_cast<uint64_t>(span),
                       static_cast<uint64_t>(span) / RecordUnit(record_size),
                       RecordUnit(record_size) + static_cast<size_t>(gap)),
        gap_(gap) {}

  // Unchecked by design: any index addresses the caller's buffer.
  void* GetAt(uint64_t index, void* out) override { return CopyRecordOut(index, out); }

  // The last record that lies wholly inside the attached span (the count would point past
  // it); null when none does.
  void* GetLast(void* out) override {
    uint64_t within = RecordsWithinSpan();
    return within == 0 ? nullptr : CopyRecordOut(within - 1, out);
  }

  // Compares the first four bytes at value, as an unsigned 32-bit number, with the record's
  // address taken as a 32-bit number: reads no record at all.
  uint64_t UpperBound(const void* value) override {
    uint32_t v;
    std::memcpy(&v, value, sizeof(v));
    return BackwardSearch(view_.count(), BackwardProbe::kBelowPosition, [&](uint64_t i) {
      return v < static_cast<uint32_t>(reinterpret_cast<uintptr_t>(view_.Address(i)));
    });
  }

  RecordPtr GetItemPtr(uint64_t index) override { return view_.Address(index); }

  int gap() const { return gap_; }

 private:
  uint64_t RecordsWithinSpan() const {
    uint64_t span = view_.length();
    if (span < RecordBytes()) return 0;
    return (span - RecordBytes()) / view_.stride() + 1;
  }

  int gap_;  // >= 0: foreign bytes after each record
};

extern template class CZUArrayBase<RecordPtr, PodVector<RecordPtr>>;
extern template class CZUArrayBase<RecordPtr, std::xdeque<RecordPtr, kRecordBlockLength>>;
extern template class CZUDequeArray<RecordPtr, kRecordBlockLength>;

}  // namespace zu

#endif  // ZU_MEMORY_RECORD_ARRAY_H_
