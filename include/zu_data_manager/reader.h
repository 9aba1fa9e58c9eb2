// zu::Reader<T>: reads an array's elements where they lie, with no call through IZUArray per
// element; zu::ForEachRun: the elements of a range, run by run. Both rest on the exported read
// path (direct_read.h) and fall back to GetAt / CopyOut where an element cannot be read in
// place. zu::Array<T> (array.h) hands them out as reader() and for_each_run().
//
//   zu::Reader<int64_t> r = times.reader();
//   for (uint64_t i : random_indexes) sum += r[i];   // a bound check and a load while i lies in
//                                                    // the run at hand
//
// A reader keeps the run it last read from. Like an iterator of a standard container it is
// valid until the array changes in a way that ends runs (direct_read.h lists them: any append
// to a vector array, Clear, Assign, LoadDescription, SetAt on file storage, ...); after such a
// change call reset() (or take a new reader) before the next read.
// Header-only over the public interface; C++17 or later.
// Thread-safety: not thread-safe: one thread per array; a reader is a use of its array.
#ifndef ZU_DATA_MANAGER_READER_H_
#define ZU_DATA_MANAGER_READER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "zu_data_manager/direct_read.h"
#include "zu_data_manager/zu_array.h"

#if defined(_MSC_VER)
#define ZU_NOINLINE __declspec(noinline)
#else
#define ZU_NOINLINE __attribute__((noinline))
#endif

namespace zu {
namespace internal {

// CopyOut takes its start as an int that every kind reads back as an unsigned 32-bit number,
// and its count as an unsigned int.
constexpr uint64_t kCopyLimit = 0xFFFFFFFFu;

inline int CopyStart(uint64_t start) {  // start <= kCopyLimit
  return start <= 0x7FFFFFFFu ? static_cast<int>(start)
                              : static_cast<int>(static_cast<int64_t>(start) - (int64_t{1} << 32));
}

// Copies elements [start, start + count) (all below the size) into dest through the
// interface: CopyOut while the start fits its 32-bit argument, element reads beyond.
template <typename T>
void CopyThrough(IZUArray* array, uint64_t start, T* dest, uint64_t count) {
  uint64_t done = 0;
  while (done < count && start + done <= kCopyLimit) {
    const uint64_t piece = std::min(count - done, kCopyLimit);
    array->CopyOut(dest + done, CopyStart(start + done), static_cast<unsigned int>(piece));
    done += piece;
  }
  for (; done < count; ++done) array->GetAt(start + done, dest + done);
}

// Walks [start, end) (end <= size) in order: in_place(data, first, count) for each stretch that
// reads in place, elsewhere(first, count) for each stretch that does not, at most
// `elsewhere_length` elements at a time.
template <typename T, typename InPlace, typename Elsewhere>
void WalkRuns(IZUArray* array, uint64_t start, uint64_t end, uint64_t elsewhere_length,
              InPlace&& in_place, Elsewhere&& elsewhere) {
  for (uint64_t i = start; i < end;) {
    ZuReadRun run;
    if (ZuGetReadRun(array, i, &run)) {
      const uint64_t stop = std::min(run.first + run.count, end);
      in_place(static_cast<const T*>(run.data) + (i - run.first), i, stop - i);
      i = stop;
    } else {
      const uint64_t k = std::min(elsewhere_length, end - i);
      elsewhere(i, k);
      i += k;
    }
  }
}

}  // namespace internal

template <typename T>
class Reader {
 public:
  // The array must outlive the reader; null only for a reader that is never read.
  explicit Reader(IZUArray* array = nullptr) : array_(array) {}

  // The element at index, which must be below the size (as with std::vector): an inline bound
  // check and a load while index lies in the run at hand; otherwise the run around it is
  // fetched, or GetAt answers where the element cannot be read in place.
  T operator[](uint64_t index) const {
    const uint64_t offset = index - first_;
    if (offset < count_) return data_[offset];
    return Fetch(index);
  }
  // Forgets the run at hand: call it after a change that ends runs.
  void reset() {
    data_ = nullptr;
    first_ = 0;
    count_ = 0;
  }
  IZUArray* array() const { return array_; }

 private:
  ZU_NOINLINE T Fetch(uint64_t index) const {
    ZuReadRun run;
    if (ZuGetReadRun(array_, index, &run)) {
      data_ = static_cast<const T*>(run.data);
      first_ = run.first;
      count_ = run.count;
      return data_[index - first_];
    }
    T out{};
    array_->GetAt(index, &out);
    return out;
  }

  IZUArray* array_;                  // not owned
  mutable const T* data_ = nullptr;  // element first_ of the run at hand
  mutable uint64_t first_ = 0;       // the run covers [first_, first_ + count_)
  mutable uint64_t count_ = 0;       // 0: no run at hand
};

// Calls f(const T* data, size_t n) for consecutive runs that cover [start, start + count)
// clipped to the size, in order: in place where the storage allows, through a small staging
// buffer elsewhere. f must not change the array. Returns the number of elements covered.
template <typename T, typename F>
uint64_t ForEachRun(IZUArray* array, uint64_t start, uint64_t count, F&& f) {
  const uint64_t size = array->GetSize();
  if (start >= size) return 0;
  const uint64_t end = start + std::min(count, size - start);
  // Staged pieces: small enough to stay in the processor's cache.
  constexpr uint64_t kStaging = sizeof(T) < 0x10000 ? 0x10000 / sizeof(T) : 1;
  std::unique_ptr<T[]> staging;
  internal::WalkRuns<T>(
      array, start, end, kStaging,
      [&f](const T* data, uint64_t, uint64_t n) { f(data, static_cast<size_t>(n)); },
      [&](uint64_t first, uint64_t n) {
        if (!staging) staging.reset(new T[kStaging]);
        internal::CopyThrough(array, first, staging.get(), n);
        f(static_cast<const T*>(staging.get()), static_cast<size_t>(n));
      });
  return end - start;
}

}  // namespace zu

#undef ZU_NOINLINE

#endif  // ZU_DATA_MANAGER_READER_H_
