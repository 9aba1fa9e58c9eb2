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

// The same bisections over a plain array, for the searches that run over a sample run or a page
// of file data. They probe exactly the positions BisectLower / BisectUpper probe, in the same
// order (so even unsorted data give the same answer), with the step chosen by arithmetic
// instead of a branch: the branch of a bisection is mispredicted half the time.
// go_right(element) says whether the answer lies past the probed element. With kPrefetch, for
// data likely in the CPU caches but not in the first level (a small segment's file data), each
// step first requests the lines of both probes the next step may make, so that the next load
// is under way while this one waits (a step of the plain bisection waits a whole second-level
// latency; this takes a fifth off a search of 64 Ki int64s).
template <bool kPrefetch = false, typename T, typename GoRight>
uint64_t BranchlessBisect(const T* data, uint64_t count, GoRight go_right) {
  uint64_t first = 0;
  while (count > 0) {
    const uint64_t half = count >> 1;
    if constexpr (kPrefetch) {
      __builtin_prefetch(data + first + (half >> 1));                           // left
      __builtin_prefetch(data + first + half + 1 + ((count - 1 - half) >> 1));  // right
    }
    // 1: go right past the probe, 0: keep the left half. Written as arithmetic so the
    // compiler cannot turn it back into a branch (unsigned wrap-around makes the difference
    // exact when it is "negative").
    const uint64_t right = static_cast<uint64_t>(go_right(data[first + half]));
    first += right * (half + 1);
    count = half + right * (count - 1 - half - half);
  }
  return first;
}

// The questions of a lower- and an upper-bound bisection: whether the answer lies past x.
template <typename T>
struct BelowValue {
  const T& value;
  bool operator()(const T& x) const { return x < value; }
};
template <typename T>
struct NotAboveValue {
  const T& value;
  bool operator()(const T& x) const { return !(value < x); }
};

// First position in data[0, count) not less than value (Lower) or greater than it (Upper);
// count when none.
template <typename T>
uint64_t BranchlessLower(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect(data, count, BelowValue<T>{value});
}
template <typename T>
uint64_t BranchlessUpper(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect(data, count, NotAboveValue<T>{value});
}

// The prefetching form (see BranchlessBisect).
template <typename T>
uint64_t PrefetchedLower(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect<true>(data, count, BelowValue<T>{value});
}
template <typename T>
uint64_t PrefetchedUpper(const T* data, uint64_t count, const T& value) {
  return BranchlessBisect<true>(data, count, NotAboveValue<T>{value});
}

// The same probes again, for a run of file data that is likely outside the CPU caches (one page
// of a file, or one chunk): the lines of the first probes of every path (the whole run, when it
// is one page) are requested up front, level by level, so that they arrive together instead of
// one dependent miss after another; and the steps branch, so that the processor runs ahead into
// the likely half rather than waiting on each load.
template <typename T, typename GoRight>
uint64_t PageBisect(const T* data, uint64_t count, GoRight go_right) {
  constexpr uint64_t kLine = 64 / sizeof(T) > 0 ? 64 / sizeof(T) : 1;
  constexpr int kMaxRequests = 64;  // one page of 4 KiB
  uint64_t stride = 1;
  while (stride * 4 <= count) stride *= 2;
  int requests = 0;
  for (; stride >= kLine && requests < kMaxRequests; stride >>= 1) {
    for (uint64_t at = stride; at < count && requests < kMaxRequests; at += 2 * stride) {
      __builtin_prefetch(data + at);
      ++requests;
    }
  }
  uint64_t first = 0;
  while (count > 0) {
    const uint64_t half = count >> 1;
    if (go_right(data[first + half])) {
      first += half + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  return first;
}

template <typename T>
uint64_t PageLower(const T* data, uint64_t count, const T& value) {
  return PageBisect(data, count, BelowValue<T>{value});
}
template <typename T>
uint64_t PageUpper(const T* data, uint64_t count, const T& value) {
  return PageBisect(data, count, NotAboveValue<T>{value});
}

}  // namespace zu

#endif  // ZU_CORE_BISECT_H_
