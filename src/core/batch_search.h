// Searches of many keys at once over ascending data that lies in memory, in one or more runs
// laid end to end (the runs an array reads in place). The answers are those of one standard
// search per key (std::lower_bound, std::upper_bound, a lower bound that holds the key), in any
// key order; the array kinds adjust them to their own answers where those differ.
//
// How: one search of a large array waits on a chain of cache misses, one per halving, and
// the branch of each halving is mispredicted half the time. Here the searches run in lanes
// (batch_bisect.h): several bisections step together without branches, and each step requests
// the lines of the following one, so the misses of all lanes overlap. A large batch is sorted
// first; then every key's answer lies between the answers of two keys around it in key order,
// which are searched first, and the keys are searched in levels that narrow each window down
// to a few lines that earlier searches have just brought into the cache.
#ifndef ZU_CORE_BATCH_SEARCH_H_
#define ZU_CORE_BATCH_SEARCH_H_

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <vector>

#include "src/core/batch_bisect.h"
#include "src/core/bisect.h"
#include "src/core/radix_sort.h"
#include "zu_data_manager/direct_read.h"

namespace zu {

// `count` ascending elements at `data`, element `first` of the whole sequence first.
template <typename T>
struct SortedRun {
  const T* data;
  uint64_t first;
  uint64_t count;
};

// The runs that cover [0, size) as run_at(index, ZuReadRun*) answers them, in order; false
// when some index has none.
template <typename T, typename RunAt>
bool CollectRuns(uint64_t size, RunAt&& run_at, std::vector<SortedRun<T>>* runs) {
  runs->clear();
  for (uint64_t i = 0; i < size;) {
    ZuReadRun run;
    if (!run_at(i, &run) || run.count == 0 || run.first > i || run.first + run.count <= i) {
      return false;
    }
    const uint64_t skip = i - run.first;
    runs->push_back({static_cast<const T*>(run.data) + skip, i, run.count - skip});
    i = run.first + run.count;
  }
  return true;
}

namespace batch {

// Below this many keys a batch is searched in the order given: sorting it costs about what it
// saves (measured from 64 Ki to 128 Mi int64 elements: the two ways cross between 1 Ki and
// 4 Ki keys, nearer 1 Ki the larger the array).
constexpr uint64_t kMinSortedKeys = 1024;
// At most this many keys are sorted at once, so that the buffers of a huge batch stay bounded
// (some 24 bytes a key); a larger batch is searched in parts.
constexpr uint64_t kMaxSortedKeys = uint64_t{1} << 22;
// A sorted batch is searched in blocks of this many keys, each down to its answers before
// the next: a block's window of the data then stays in the cache (and its pages in the TLB)
// from one level to the next.
constexpr uint64_t kBlockKeys = 4096;

// Records larger than this are searched in the order given whatever the batch's size: their
// comparisons, not cache misses, are what their searches cost, and sorting adds about as many
// again (256- and 512-byte records take 0.5-0.7 of the time in order that they take sorted;
// 16- to 128-byte records 0.6-1.0 sorted).
constexpr size_t kMaxSortedRecordBytes = 128;
template <typename T>
constexpr bool SortsBatches() {
  return std::is_integral<T>::value || sizeof(T) <= kMaxSortedRecordBytes;
}

// A batch in key order: key(j) is the j-th smallest key, position(j) where the caller passed
// it. Integer keys are radix-sorted with their positions; records, which only their own
// operator< orders, are sorted by comparison as copies next to their positions (comparisons
// through the positions would read the caller's keys all over).
template <typename T, bool = std::is_integral<T>::value>
class SortedKeys {
 public:
  SortedKeys(const T* keys, uint32_t count) : sorted_(new KeyAndPosition<T>[count]) {
    RadixSortWithPositions(keys, count, sorted_.get());
  }
  const T& key(uint64_t j) const { return sorted_[j].key; }
  uint32_t position(uint64_t j) const { return sorted_[j].position; }

 private:
  std::unique_ptr<KeyAndPosition<T>[]> sorted_;  // ascending by key
};
template <typename T>
class SortedKeys<T, false> {
 public:
  SortedKeys(const T* keys, uint32_t count) : sorted_(new KeyAndPosition<T>[count]) {
    for (uint32_t i = 0; i < count; ++i) sorted_[i] = {keys[i], i};
    std::sort(sorted_.get(), sorted_.get() + count,
              [](const KeyAndPosition<T>& a, const KeyAndPosition<T>& b) { return a.key < b.key; });
  }
  const T& key(uint64_t j) const { return sorted_[j].key; }
  uint32_t position(uint64_t j) const { return sorted_[j].position; }

 private:
  std::unique_ptr<KeyAndPosition<T>[]> sorted_;  // ascending by key
};

// Whether a key's answer lies past the whole run: every element of the run is passed.
template <typename T, typename Passed>
bool PastRun(const SortedRun<T>& run, const T& key, Passed passed) {
  return passed(run.data[run.count - 1], key);
}

// The run that holds the answer of `key`: the first one the key does not pass, the last
// one when it passes them all (its search then answers the run's end, the total).
template <typename T, typename Passed>
size_t RunOf(const std::vector<SortedRun<T>>& runs, const T& key, Passed passed) {
  return static_cast<size_t>(
      BranchlessBisect(runs.data(), runs.size() - 1,
                       [&](const SortedRun<T>& run) { return PastRun(run, key, passed); }));
}

// The answer at `offset` in `run` for the search asked: the index itself, or for Find the
// index when its element equals the key and the total otherwise.
template <typename T>
uint64_t Answer(const SortedRun<T>& run, uint64_t offset, const T& key, bool find, uint64_t total) {
  if (!find) return run.first + offset;
  return offset < run.count && run.data[offset] == key ? run.first + offset : total;
}

// Keys in the order given, kLanes at a time: each lane finds its run, then its element.
template <typename T, typename Passed>
void SearchInOrder(const std::vector<SortedRun<T>>& runs, Passed passed, bool find, const T* keys,
                   uint64_t count, uint64_t total, uint64_t* out) {
  Lanes<T> lanes;
  size_t run_of[kLanes];
  for (uint64_t k0 = 0; k0 < count; k0 += kLanes) {
    const int used = static_cast<int>(std::min<uint64_t>(kLanes, count - k0));
    for (int g = 0; g < used; ++g) {
      const T& key = keys[k0 + static_cast<uint64_t>(g)];
      run_of[g] = runs.size() == 1 ? 0 : RunOf(runs, key, passed);
      const SortedRun<T>& run = runs[run_of[g]];
      lanes.Set(g, key, run.data, 0, run.count, run.count, nullptr);
    }
    lanes.Bisect(used, passed);
    for (int g = 0; g < used; ++g) {
      const uint64_t k = k0 + static_cast<uint64_t>(g);
      out[k] = Answer(runs[run_of[g]], lanes.Offset(g), keys[k], find, total);
    }
  }
}

// Offsets within `run` of the sorted keys key(begin + i * step), i < count, whose answers
// lie in [from, to], into offsets[i * step]: the keys at every kFanOut^L-th place first, then
// level by level the keys between two answered ones, each over the window their answers
// bound.
template <typename T, typename Keys, typename Passed>
void SearchLevels(const SortedRun<T>& run, LaneQueue<T, Passed>& queue, const Keys& keys,
                  uint64_t begin, uint64_t count, uint64_t step, uint64_t from, uint64_t to,
                  uint64_t* offsets) {
  uint64_t stride = 1;
  while (stride <= count / kFanOut) stride *= kFanOut;
  for (; stride > 0; stride /= kFanOut) {
    const uint64_t outer = stride * kFanOut;  // the stride of the keys answered before
    // Windows between the answered keys j - 1 and j + outer - 1; the first one starts at
    // `from`, the last one ends at `to`.
    for (uint64_t j = 0;; j += outer) {
      const uint64_t low = j == 0 ? from : offsets[(j - 1) * step];
      const uint64_t high = j + outer - 1 < count ? offsets[(j + outer - 1) * step] : to;
      const uint64_t end = std::min(j + outer - 1, count);
      for (uint64_t i = j + stride - 1; i < end; i += stride) {
        queue.Push(keys.key(begin + i * step), run.data, low, high, run.count, &offsets[i * step]);
      }
      if (j + outer - 1 >= count) break;
    }
    queue.Flush();
  }
}

// Offsets within one run of the sorted keys [begin, begin + count). The keys at every
// kBlockKeys-th place are searched first; then each block of keys between two of them, down
// to its last level, before the next: the lines of a block's window, found again at every
// level, are still in the cache. done(from, to) sees each block's keys [from, to) (absolute
// places) answered while those lines are still there.
template <typename T, typename Keys, typename Passed, typename Done>
void SearchSortedRun(const SortedRun<T>& run, Passed passed, const Keys& keys, uint64_t begin,
                     uint64_t count, uint64_t* offsets, Done&& done) {
  LaneQueue<T, Passed> queue(passed);
  const uint64_t blocks = count / kBlockKeys;
  SearchLevels(run, queue, keys, begin + kBlockKeys - 1, blocks, kBlockKeys, 0, run.count,
               offsets + kBlockKeys - 1);
  for (uint64_t b = 0; b <= blocks; ++b) {
    const uint64_t first = b * kBlockKeys;
    const uint64_t last = std::min(first + kBlockKeys - 1, count);  // the next block key
    SearchLevels(run, queue, keys, begin + first, last - first, 1, b == 0 ? 0 : offsets[first - 1],
                 last < count ? offsets[last] : run.count, offsets + first);
    done(begin + first, begin + std::min(last + 1, count));
  }
}

// The first of the sorted keys [begin, count) that passes the whole run (count if none):
// found by galloping from `begin`, as the runs take their keys in turn.
template <typename T, typename Passed, typename Keys>
uint64_t FirstPassing(const SortedRun<T>& run, Passed passed, const Keys& sorted, uint64_t begin,
                      uint64_t count) {
  uint64_t low = begin;  // the keys before `low` do not pass
  uint64_t step = 1;
  uint64_t high = begin;  // the next key to try
  while (high < count && !PastRun(run, sorted.key(high), passed)) {
    low = high + 1;
    high = begin + step;
    step *= 2;
  }
  high = std::min(high, count);
  while (low < high) {  // the answer lies in [low, high]
    const uint64_t mid = low + (high - low) / 2;
    if (PastRun(run, sorted.key(mid), passed)) {
      high = mid;
    } else {
      low = mid + 1;
    }
  }
  return low;
}

// A batch of at most kMaxSortedKeys keys in key order: the keys of each run are the ones
// that pass every run before it; keys that pass every run answer the total.
template <typename T, typename Passed>
void SearchSorted(const std::vector<SortedRun<T>>& runs, Passed passed, bool find, const T* keys,
                  uint64_t count, uint64_t total, uint64_t* out) {
  const SortedKeys<T> sorted(keys, static_cast<uint32_t>(count));
  std::unique_ptr<uint64_t[]> offsets(new uint64_t[count]);
  uint64_t begin = 0;
  for (const SortedRun<T>& run : runs) {
    if (begin == count) break;
    const uint64_t end = FirstPassing(run, passed, sorted, begin, count);
    auto answer = [&](uint64_t from, uint64_t to) {
      for (uint64_t j = from; j < to; ++j) {
        out[sorted.position(j)] = Answer(run, offsets[j], sorted.key(j), find, total);
      }
    };
    // Find compares the element at each answer: block by block, while the block's lines are
    // in the cache. The bounds are written in one pass after the run, so that the writes,
    // scattered over the caller's buffer, stay out of the cache while the run is searched.
    SearchSortedRun(run, passed, sorted, begin, end - begin, offsets.get() + begin,
                    [&](uint64_t from, uint64_t to) {
                      if (find) answer(from, to);
                    });
    if (!find) answer(begin, end);
    begin = end;
  }
  for (uint64_t j = begin; j < count; ++j) out[sorted.position(j)] = total;
}

template <typename T, typename Passed>
void SearchAll(const std::vector<SortedRun<T>>& runs, Passed passed, bool find, const T* keys,
               uint64_t count, uint64_t total, uint64_t* out) {
  if constexpr (SortsBatches<T>()) {
    if (count >= kMinSortedKeys) {
      for (uint64_t k = 0; k < count; k += kMaxSortedKeys) {
        const uint64_t part = std::min(kMaxSortedKeys, count - k);
        SearchSorted(runs, passed, find, keys + k, part, total, out + k);
      }
      return;
    }
  }
  SearchInOrder(runs, passed, find, keys, count, total, out);
}

}  // namespace batch

// out[k] for keys[k], k < count, over the runs (ascending, consecutive from index 0):
// kZuSearchLowerBound the first index whose element is not less than the key,
// kZuSearchUpperBound the first whose element is greater, kZuSearchFind the lower bound when
// its element equals the key; the total count where there is no such index. Only operator<
// and operator== of T are used. Single-threaded; allocates scratch in proportion to the keys
// (at most kMaxSortedKeys of them at once), never to the elements.
template <typename T>
void SearchRuns(const std::vector<SortedRun<T>>& runs, ZuSearch search, const T* keys,
                uint64_t count, uint64_t* out) {
  if (count == 0) return;
  // Runs without elements answer nothing; the lanes need at least one element to look at.
  std::vector<SortedRun<T>> filled;
  const bool has_empty =
      std::any_of(runs.begin(), runs.end(), [](const SortedRun<T>& r) { return r.count == 0; });
  if (has_empty) {
    std::copy_if(runs.begin(), runs.end(), std::back_inserter(filled),
                 [](const SortedRun<T>& r) { return r.count > 0; });
  }
  const std::vector<SortedRun<T>>& used = has_empty ? filled : runs;
  if (used.empty()) {
    std::fill(out, out + count, 0);
    return;
  }
  const uint64_t total = used.back().first + used.back().count;
  const bool find = search == kZuSearchFind;
  if (search == kZuSearchUpperBound) {
    batch::SearchAll(used, batch::PassedUpper<T>(), find, keys, count, total, out);
  } else {
    batch::SearchAll(used, batch::PassedLower<T>(), find, keys, count, total, out);
  }
}

}  // namespace zu

#endif  // ZU_CORE_BATCH_SEARCH_H_
