// Searches of many keys at once over ascending data that lies in memory, in one or more runs
// laid end to end (the runs an array reads in place). The answers are those of one standard
// search per key (std::lower_bound, std::upper_bound, a lower bound that holds the key), in any
// key order; the array kinds adjust them to their own answers where those differ.
#ifndef ZU_CORE_BATCH_SEARCH_H_
#define ZU_CORE_BATCH_SEARCH_H_

#include <algorithm>
#include <cstdint>
#include <vector>

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

// out[k] for keys[k], k < count, over the runs (ascending, consecutive from index 0):
// kZuSearchLowerBound the first index whose element is not less than the key,
// kZuSearchUpperBound the first whose element is greater, kZuSearchFind the lower bound when
// its element equals the key; the total count where there is no such index.
template <typename T>
void SearchRuns(const std::vector<SortedRun<T>>& runs, ZuSearch search, const T* keys,
                uint64_t count, uint64_t* out) {
  const uint64_t total = runs.empty() ? 0 : runs.back().first + runs.back().count;
  const bool upper = search == kZuSearchUpperBound;
  for (uint64_t k = 0; k < count; ++k) {
    const T& key = keys[k];
    // The first run whose last element is not below (above, for upper) the key holds the
    // answer; none: every element is below.
    auto r = std::partition_point(runs.begin(), runs.end(), [&](const SortedRun<T>& run) {
      const T& last = run.data[run.count - 1];
      return upper ? !(key < last) : last < key;
    });
    if (r == runs.end()) {
      out[k] = total;
      continue;
    }
    const T* end = r->data + r->count;
    const T* at = upper ? std::upper_bound(r->data, end, key) : std::lower_bound(r->data, end, key);
    uint64_t i = r->first + static_cast<uint64_t>(at - r->data);
    if (search == kZuSearchFind && !(*at == key)) i = total;
    out[k] = i;
  }
}

}  // namespace zu

#endif  // ZU_CORE_BATCH_SEARCH_H_
