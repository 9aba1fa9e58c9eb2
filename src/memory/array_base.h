// CZUArrayBase<T, Container>: turns a container of T into an IZUArray.
//
// Two layers:
//  * CZUArrayCommon<T> holds the operations written only against other virtual slots
//    (FindNearest, LocateLowerBound, FindFloor, AppendBuffer, the refusing AppendRange, the
//    description stubs, GetItemPtr). Every array class shares them, so a class that overrides
//    LowerBound, GetAt or AppendRange changes their answers accordingly.
//  * CZUArrayBase<T, Container> gives the container bodies. Which bodies depends on the
//    container's family: the in-memory containers (std::vector, std::xdeque) get those below,
//    written over ContainerOps<Container>, which is specialised next to each container; the
//    file layer gives the bodies for its storages (src/file/imp_array_base.h).
//
// An array that holds no container (an attached view of a caller's buffer) refuses every
// in-memory body that needs one with the not-implemented error (std::logic_error), except the
// two hot paths, Append and GetAt, which such an array gives itself.
//
// Ownership: the array owns its container through a shared pointer, set by Init().
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_MEMORY_ARRAY_BASE_H_
#define ZU_MEMORY_ARRAY_BASE_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "src/core/batch_search.h"
#include "src/core/bisect.h"
#include "src/core/direct_reads.h"
#include "src/core/errors.h"
#include "src/core/range.h"
#include "zu_data_manager/zu_array.h"

namespace zu {

// In-memory containers address elements with 32-bit positions.
constexpr uint64_t kMaxInMemoryElements = 0xFFFFFFFFu;

// DirectReads is the second base: the exported read path finds it there, and its virtual
// functions stay out of the slots below.
template <typename T>
class CZUArrayCommon : public IZUArray, public DirectReads {
 public:
  CZUArrayCommon() : DirectReads(sizeof(T)) {}

  // The nearest element by LowerBound; the tolerance is only honoured by file arrays.
  uint64_t FindNearest(void* inout, uint64_t /*tolerance*/) override {
    uint64_t i = this->LowerBound(inout);
    if (i < this->GetSize()) this->GetAt(i, inout);
    return i;
  }

  uint64_t LocateLowerBound(const void* value) override { return this->LowerBound(value); }

  // Index of the last element not greater than *value. Beyond the last element it answers
  // the last index (while FindNearest answers the size); below the first it answers
  // all-ones, which callers test for.
  uint64_t FindFloor(const void* value) override {
    uint64_t i = this->LowerBound(value);
    uint64_t n = this->GetSize();
    if (i >= n) return n == 0 ? 0 : n - 1;
    T element{};
    this->GetAt(i, &element);
    return element == *static_cast<const T*>(value) ? i : i - 1;
  }

  // Only the low 32 bits of count are used: a range carries 32-bit positions.
  int AppendBuffer(const void* data, uint64_t count) override {
    auto n = static_cast<unsigned int>(count);
    SimpleDataIter<unsigned char> first(static_cast<unsigned char*>(const_cast<void*>(data)), n,
                                        sizeof(T));
    std::shared_ptr<ArrayIterBase> last = first.Clone();
    last->Seek(n);
    return this->AppendRange(&first, last.get());
  }

  int AppendRange(ArrayIterBase* /*first*/, ArrayIterBase* /*last*/) override {
    ThrowNotImplemented();
  }
  bool LoadDescription(const base::DictionaryValue* /*desc*/) override { return true; }
  bool SaveDescription(base::DictionaryValue** /*out*/) override { return true; }

  // Slot 19: the address of a record; only record (unsigned char*) arrays answer.
  virtual unsigned char* GetItemPtr(uint64_t /*index*/) { return nullptr; }
};

// Which family of bodies CZUArrayBase gives a container: the in-memory one unless a layer
// above names another for its own containers.
struct InMemoryFamily {};
template <typename Container>
struct ArrayBaseFamily {
  using type = InMemoryFamily;
};

// Per-container operations: At(c, i), InsertRange(c, pos, first, last), CopyOut(c, from, n,
// dest), EraseAll(c) (keeps capacity or blocks for reuse), RunAround(c, i, &first, &count) (the
// address of element first, from which count elements around element i < size lie one after
// another), and optionally TryPushBack(c, v) (a push that allocates nothing, or false).
// Specialised next to each container.
template <typename Container>
struct ContainerOps;

// The run of an in-memory container around `index`: false beyond its size.
template <typename Ops, typename Container>
bool ContainerRunAt(const Container& c, uint64_t index, uint32_t flags, ZuReadRun* run) {
  if (index >= c.size()) return false;
  run->data = Ops::RunAround(c, index, &run->first, &run->count);
  run->flags = flags;
  return true;
}

// The batch over the runs that run_at(index, ZuReadRun*) answers for [0, size); false, with
// nothing written, when some index has none.
template <typename T, typename RunAt>
bool SearchInRuns(uint64_t size, RunAt&& run_at, ZuSearch search, const void* keys, uint64_t count,
                  uint64_t* out) {
  std::vector<SortedRun<T>> runs;
  if (!CollectRuns<T>(size, run_at, &runs)) return false;
  SearchRuns(runs, search, static_cast<const T*>(keys), count, out);
  return true;
}
// The same over the runs the array itself answers (its ReadRunAt).
template <typename T>
bool SearchInOwnRuns(DirectReads& reads, uint64_t size, ZuSearch search, const void* keys,
                     uint64_t count, uint64_t* out) {
  return SearchInRuns<T>(
      size, [&reads](uint64_t i, ZuReadRun* run) { return reads.ReadRunAt(i, run); }, search, keys,
      count, out);
}

// Whether Ops offers TryPushBack.
template <typename Ops, typename = void>
struct HasTryPushBack : std::false_type {};
template <typename Ops>
struct HasTryPushBack<Ops, std::void_t<decltype(&Ops::TryPushBack)>> : std::true_type {};

// Pushes at the back of an in-memory container, refusing to pass the 32-bit index limit.
template <typename Container, typename T>
void PushBackWithinLimit(Container& c, const T& v) {
  if (c.size() >= kMaxInMemoryElements) ThrowVectorTooLong();
  c.push_back(v);
}

// The same push when it allocates nothing (and so cannot fail); false with nothing done
// otherwise.
template <typename Ops, typename Container, typename T>
bool TryPushBackWithinLimit(Container& c, const T& v) {
  return c.size() < kMaxInMemoryElements && Ops::TryPushBack(c, v);
}

template <typename T, typename Container,
          typename Family = typename ArrayBaseFamily<Container>::type>
class CZUArrayBase : public CZUArrayCommon<T> {
 public:
  using Ops = ContainerOps<Container>;

  void* GetAt(uint64_t index, void* out) override {
    Container& c = *container_;
    if (index >= c.size()) return nullptr;
    *static_cast<T*>(out) = Ops::At(c, static_cast<uint32_t>(index));
    return out;
  }

  // Most pushes need no allocation and cannot throw: they are done here, outside the exception
  // guard, and only the others (a new block, a larger buffer, the length limit) take the
  // guarded path, out of line, so that this one stays a few instructions without saved
  // registers.
  int Append(const void* value) override {
    const T& v = *static_cast<const T*>(value);
    if constexpr (HasTryPushBack<Ops>::value && std::is_nothrow_copy_constructible<T>::value) {
      if (TryPushBackWithinLimit<Ops>(*container_, v)) return kZuOk;
    }
    return AppendGuarded(v);
  }

  void SetAt(uint64_t index, const void* value) override {
    Container& c = Held();
    if (index < c.size()) Ops::At(c, static_cast<uint32_t>(index)) = *static_cast<const T*>(value);
  }

  // Null on an empty array rather than reading before the first element.
  void* GetLast(void* out) override {
    Container& c = Held();
    if (c.size() == 0) return nullptr;
    *static_cast<T*>(out) = Ops::At(c, static_cast<uint32_t>(c.size() - 1));
    return out;
  }

  uint64_t Find(const void* value) override {
    Container& c = Held();
    const T& v = *static_cast<const T*>(value);
    uint64_t n = c.size();
    uint64_t i = BisectLower(n, v, ElementAt(c));
    return (i < n && Ops::At(c, static_cast<uint32_t>(i)) == v) ? i : n;
  }

  uint64_t UpperBound(const void* value) override {
    Container& c = Held();
    return BisectUpper(c.size(), *static_cast<const T*>(value), ElementAt(c));
  }

  uint64_t LowerBound(const void* value) override {
    Container& c = Held();
    return BisectLower(c.size(), *static_cast<const T*>(value), ElementAt(c));
  }

  int Assign(ArrayIterBase* first, ArrayIterBase* last) override {
    Container& c = Held();  // refused before the guard: it is not a failure to add
    return GuardAdd([&] {
      Ops::EraseAll(c);
      Ops::InsertRange(c, 0, first, last);
    });
  }

  // Copies only what exists: a start at or beyond the end copies nothing.
  void CopyOut(void* dest, int start, unsigned int count) override {
    Container& c = Held();
    uint64_t size = c.size();
    uint64_t from = static_cast<unsigned int>(start);
    if (from >= size) return;
    uint64_t n = std::min<uint64_t>(count, size - from);
    Ops::CopyOut(c, static_cast<uint32_t>(from), static_cast<uint32_t>(n), static_cast<T*>(dest));
  }

  void Clear() override { Held().clear(); }
  uint64_t GetSize() override { return Held().size(); }

  // Slot 20: builds the container. The base has none to build.
  virtual bool Init() { return false; }

 protected:
  [[gnu::noinline]] int AppendGuarded(const T& v) {
    return GuardAdd([&] { PushBackWithinLimit(*container_, v); });
  }

  // The container; an array without one refuses the operation.
  Container& Held() {
    if (container_ == nullptr) ThrowNotImplemented();
    return *container_;
  }

  static auto ElementAt(Container& c) {
    return [&c](uint64_t i) -> const T& { return Ops::At(c, static_cast<uint32_t>(i)); };
  }

  // Empty until Init(); the array is the container's only owner.
  std::shared_ptr<Container> container_;
};

}  // namespace zu

#endif  // ZU_MEMORY_ARRAY_BASE_H_
