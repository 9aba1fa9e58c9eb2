// The bisections behind every search. They run over 64-bit positions; `at(i)` yields element
// i (by value or reference). Results match std::lower_bound / std::upper_bound.
#ifndef ZU_CORE_BISECT_H_
#define ZU_CORE_BISECT_H_

#include <cstdint>

namespace zu {

// First position in [0, count) whose element is not less than value; count when none.
template <typename T, typename At>
uint64_t BisectLower(uint64_t count, const T& value, At&& at) {
  uint64_t first = 0;
  while (count > 0) {
    uint64_t half = count >> 1;
    uint64_t mid = first + half;
    if (at(mid) < value) {
      first = mid + 1;
      count = count - half - 1;
    } else {
      count = half;
    }
  }
  return first;
}

// First position in [0, count) whose element is greater than value; count when none.
template <typename T, typename At>
uint64_t BisectUpper(uint64_t count, const T& value, At&& at) {
  uint64_t first = 0;
  while (count > 0) {
    uint64_t half = count >> 1;
    uint64_t mid = first + half;
    if (value < at(mid)) {
      count = half;
    } else {
      first = mid + 1;
      count = count - half - 1;
    }
  }
  return first;
}

}  // namespace zu

#endif  // ZU_CORE_BISECT_H_
