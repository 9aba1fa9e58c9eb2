// Bisections that run side by side, for the batched searches (batch_search.h). A lone
// bisection of a large array waits for one cache miss after another, and half of its
// branches are mispredicted. Here up to kLanes bisections step together: each step of a lane
// is a conditional move rather than a branch, and as soon as a lane knows where its next step
// will look it requests that line, which then arrives while the other lanes take their steps.
// Only lines that will be read are requested (requesting both halves' lines ahead doubles the
// traffic, and at a gigabyte the memory's rate of random lines is what bounds a batch).
#ifndef ZU_CORE_BATCH_BISECT_H_
#define ZU_CORE_BATCH_BISECT_H_

#include <algorithm>
#include <cstdint>

namespace zu {
namespace batch {

// Bisections that step together: a step of every lane takes longer than a line takes to
// arrive from memory, so a lane's next line is there when its turn comes again.
constexpr int kLanes = 128;
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

// Requests the line of `p` into the second-level cache, where the most lines can be on their
// way at once.
template <typename T>
void Request(const T* p) {
  __builtin_prefetch(p, 0, 1);
}

// Up to kLanes bisections, one window of ascending elements each.
template <typename T>
class Lanes {
 public:
  // Lane g searches for `key` in `data`, a run of `run_count` elements: the answer is known to
  // lie in [from, to] (to may be the run's end), and *out, when out is not null, receives the
  // answer's offset after Bisect.
  void Set(int g, const T& key, const T* data, uint64_t from, uint64_t to, uint64_t run_count,
           uint64_t* out) {
    // Every window looks at one element at least. An empty window [from, from] looks at the
    // one at `from` (or the run's last, when `from` is the end), and the answer stays `from`:
    // that element either is not passed or is the last one before the answer.
    const uint64_t start = std::min(from, run_count - 1);
    key_[g] = &key;
    data_[g] = data;
    base_[g] = data + start;
    length_[g] = std::max(to, start + 1) - start;
    out_[g] = out;
    Request(base_[g] + length_[g] / 2);
  }

  // Runs lanes [0, used) to their answers.
  template <typename Passed>
  void Bisect(int used, Passed passed) {
    uint64_t longest = 0;
    for (int g = 0; g < used; ++g) longest = std::max(longest, length_[g]);
    // The answer lies in [base, base + length]; each step keeps the half that holds it, and
    // the element looked at stays at the base of the upper half, so that length only halves,
    // rounded up, whichever half is kept. A lane whose window is shorter reaches length 1
    // earlier and then stays where it is: a step of half 0 does not move it.
    while (longest > 1) {
      for (int g = 0; g < used; ++g) {
        const uint64_t half = length_[g] / 2;
        // The move as arithmetic: an optimiser may turn a conditional expression into a
        // branch, which is mispredicted half the time.
        const uint64_t passed_mask = 0 - static_cast<uint64_t>(passed(base_[g][half], *key_[g]));
        const T* base = base_[g] + (half & passed_mask);
        base_[g] = base;
        length_[g] -= half;
        Request(base + length_[g] / 2);
      }
      longest -= longest / 2;
    }
    for (int g = 0; g < used; ++g) {
      base_[g] += static_cast<uint64_t>(passed(*base_[g], *key_[g]));
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
  // Searches the windows pushed so far.
  void Flush() {
    lanes_.Bisect(used_, passed_);
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
