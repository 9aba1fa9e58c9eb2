// Bisections that run side by side, for the batched searches (batch_search.h). A lone
// bisection of a large array waits for one cache miss after another, and half of its
// branches are mispredicted. Here kLanes bisections step together: each step of a lane is a
// conditional move rather than a branch, and requests the two lines its next step may read,
// so that the misses of all lanes and of two steps overlap.
#ifndef ZU_CORE_BATCH_BISECT_H_
#define ZU_CORE_BATCH_BISECT_H_

#include <algorithm>
#include <cstdint>

namespace zu {
namespace batch {

// Bisections that step together; enough to keep the memory system busy, few enough that
// their state stays in registers and the first level of cache.
constexpr int kLanes = 16;
// The keys of a sorted batch are searched in levels: each level searches the keys that lie
// kFanOut places apart in key order between the keys the level before answered.
constexpr uint64_t kFanOut = 16;

// The question of each step: whether the answer lies past `element`. PassedLower answers the
// lower bound (the first element not less than the key), PassedUpper the upper bound (the
// first element greater).
template <typename T>
struct PassedLower {
  bool operator()(const T& element, const T& key) const { return element < key; }
};
template <typename T>
struct PassedUpper {
  bool operator()(const T& element, const T& key) const { return !(key < element); }
};

// kLanes bisections, one window of ascending elements each.
template <typename T>
class Lanes {
 public:
  // Lane g searches for `key` among data[from, from + ...]: the answer is known to lie in
  // [from, to] (to may be the run's end, `run_count`), and `out`, when not null, receives the
  // answer's offset from `data` after Bisect.
  void Set(int g, const T& key, const T* data, uint64_t from, uint64_t to, uint64_t run_count,
           uint64_t* out = nullptr) {
    // An empty window [from, from] still looks at one element, the one at `from` (or the
    // run's last one, when `from` is the end): the answer stays the same, as the element
    // either is not passed or is the last one before the answer.
    const uint64_t start = std::min(from, run_count - 1);
    key_[g] = &key;
    data_[g] = data;
    base_[g] = data + start;
    length_[g] = std::max(to, start + 1) - start;
    out_[g] = out;
  }

  // Lane `to` repeats lane `from` (its answer goes to the same place).
  void Copy(int from, int to) {
    key_[to] = key_[from];
    data_[to] = data_[from];
    base_[to] = base_[from];
    length_[to] = length_[from];
    out_[to] = out_[from];
  }

  // Runs every lane to its answer.
  template <typename Passed>
  void Bisect(Passed passed) {
    uint64_t longest = 0;
    for (int g = 0; g < kLanes; ++g) longest = std::max(longest, length_[g]);
    // A lane whose window is shorter reaches length 1 earlier and then stays where it is:
    // its step of half 0 looks at the same element again and does not move.
    while (longest > 1) {
      for (int g = 0; g < kLanes; ++g) {
        const uint64_t half = length_[g] / 2;
        const uint64_t rest = length_[g] - half;
        const T* base = base_[g];
        __builtin_prefetch(base + rest / 2);
        __builtin_prefetch(base + half + rest / 2);
        base_[g] = passed(base[half], *key_[g]) ? base + half : base;
        length_[g] = rest;
      }
      longest -= longest / 2;
    }
    for (int g = 0; g < kLanes; ++g) {
      base_[g] += passed(*base_[g], *key_[g]) ? 1 : 0;
      if (out_[g] != nullptr) *out_[g] = Offset(g);
    }
  }

  // Lane g's answer after Bisect: the offset from its data.
  uint64_t Offset(int g) const { return static_cast<uint64_t>(base_[g] - data_[g]); }

 private:
  const T* key_[kLanes];
  const T* data_[kLanes];  // the lane's run
  const T* base_[kLanes];  // the answer lies in [base, base + length]
  uint64_t length_[kLanes];
  uint64_t* out_[kLanes];  // where the offset goes, or null
};

// Windows to search, kLanes at a time as they come.
template <typename T, typename Passed>
class LaneQueue {
 public:
  explicit LaneQueue(Passed passed) : passed_(passed) {}
  // The offset from `data` of the answer for `key`, known to lie in [from, to], goes to *out.
  void Push(const T& key, const T* data, uint64_t from, uint64_t to, uint64_t run_count,
            uint64_t* out) {
    lanes_.Set(used_, key, data, from, to, run_count, out);
    if (++used_ == kLanes) Flush();
  }
  // Searches the windows pushed so far; idle lanes repeat the first one.
  void Flush() {
    if (used_ == 0) return;
    for (int g = used_; g < kLanes; ++g) lanes_.Copy(0, g);
    lanes_.Bisect(passed_);
    used_ = 0;
  }

 private:
  Passed passed_;
  Lanes<T> lanes_;
  int used_ = 0;  // lanes set since the last search
};

}  // namespace batch
}  // namespace zu

#endif  // ZU_CORE_BATCH_BISECT_H_
