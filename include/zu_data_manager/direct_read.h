// Direct reads: an array's elements read where they lie, without a call through IZUArray for
// each element, and searches of many keys at once.
//
//   ZuReadRun run;
//   if (ZuGetReadRun(array, i, &run)) {            // the run around element i
//     const int64_t* data = static_cast<const int64_t*>(run.data);
//     for (uint64_t k = 0; k < run.count; ++k) use(data[k]);   // elements run.first + k
//   }
//   ZuSearchBatch(array, kZuSearchLowerBound, keys, n, out);  // out[k] = LowerBound(&keys[k])
//
// ZuGetReadRun answers the longest run of elements around `index` that can be read in place:
// `count` elements of the array's element type, element `first` at `data`, index inside
// [first, first + count). Where no element around the index can be read in place it answers
// false and a run of count 0: read that element through GetAt or CopyOut. Which runs exist:
//  * vector array, self-spilling vector array in memory: the whole array;
//  * deque array, self-spilling deque array in memory: the block that holds the index;
//  * attached plain buffer: the caller's buffer (when it is aligned for the element type);
//    an interleaved buffer only when its gap is 0;
//  * file array and self-spilling arrays in files: the mapped file data. On 64-bit Linux the
//    files' read views stand one after another in one reserved range of addresses, and the
//    whole readable prefix of the array is one run; elsewhere a run is at most one file
//    (128 MiB), and where files are not mapped whole (Windows, 32-bit) there is none.
//    Elements that only a GetAt can answer stay outside every run: elements appended one by
//    one and not yet written to their file, the file whose sampled elements a SetAt made
//    differ from the file (see SetAt on file storage in the README), a file whose storage
//    failed;
//  * arrays of records held through pointers: none.
// A run never shows a value that GetAt would not answer at the time it was given.
//
// How long a run stays valid, like an iterator of a standard container:
//  * Clear, Assign, LoadDescription and destroying the array end every run of every kind.
//  * An append (Append, AppendBuffer, AppendRange) ends the runs of a vector array and of a
//    self-spilling array that still lives in memory (its storage may move, or move into
//    files). Appends leave the runs of a deque array and of file storage (file array,
//    self-spilling array in files) in place, and run.flags then carries kZuRunKeptByAppends:
//    appended elements never move what is mapped. An append to a file array that fails
//    (result 2, or a single Append a failed storage drops) may take elements away: the run's
//    memory stays readable until one of the changes above, but its values are no longer the
//    array's. A self-spilling array that fails an add clears itself, which ends its runs.
//  * SetAt ends the runs of file storage; in memory it writes in place and the run shows the
//    new value.
//  * An attached buffer's runs are the caller's buffer: valid while the caller keeps it.
//  * Reads (GetAt, CopyOut, searches, ZuGetReadRun itself) never end a run.
//
// ZuSearchBatch answers `count` searches at once: out[k] is what one call of the chosen
// search (LowerBound, UpperBound or Find) answers for keys[k], for every kind with its own
// answers (see the README: UpperBound on file storage, the attached views' searches), keys in
// any order. Where the array's data can be read in place it searches the runs itself: a
// batch of 1 Ki keys or more is sorted first (scratch in proportion to the keys, 24 bytes a
// key for int64, at most 4 Mi keys at a time), each key then searched between the answers of
// keys around it; a smaller batch (or records over 128 bytes) in the order given, many
// bisections side by side. Otherwise it calls the search once per key. It throws what the single
// search throws (the not-implemented error of attached views). False, with nothing written, for a
// null array or one this library did not make.
//
// Exported from the library (shared library and DLL). Thread-safety: not thread-safe: one
// thread per array, and a run is a use of its array.
#ifndef ZU_DATA_MANAGER_DIRECT_READ_H_
#define ZU_DATA_MANAGER_DIRECT_READ_H_

#include <cstdint>

#include "zu_data_manager/export.h"
#include "zu_data_manager/zu_array.h"

// Elements that can be read in place: `count` elements from index `first`, at `data`.
struct ZuReadRun {
  const void* data = nullptr;  // element `first`; null when count is 0
  uint64_t first = 0;          // index of the first element of the run
  uint64_t count = 0;          // elements in the run; 0: none
  uint32_t flags = 0;          // kZuRunKeptByAppends or 0
};

// Successful appends leave the run in place (deque arrays, file storage, attached buffers).
constexpr uint32_t kZuRunKeptByAppends = 1;

// Which search ZuSearchBatch makes for every key.
enum ZuSearch : int {
  kZuSearchLowerBound = 0,  // IZUArray::LowerBound
  kZuSearchUpperBound = 1,  // IZUArray::UpperBound
  kZuSearchFind = 2,        // IZUArray::Find
};

// The run around `index` in *run; false (and a run of count 0) where there is none: an index
// at or beyond the size, an element that only GetAt can answer, a kind without runs, a null
// array or run.
ZU_EXPORT bool ZuGetReadRun(IZUArray* array, uint64_t index, ZuReadRun* run);

// out[k] = the chosen search's answer for keys[k], k < count (keys: elements of the array's
// type). False, with nothing written, for a null array, keys or out (with count > 0), an
// unknown search, or an array this library did not make.
ZU_EXPORT bool ZuSearchBatch(IZUArray* array, ZuSearch search, const void* keys, uint64_t count,
                             uint64_t* out);

#endif  // ZU_DATA_MANAGER_DIRECT_READ_H_
