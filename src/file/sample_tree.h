// SampleTree<T>: the in-memory samples of one file segment (a copy of the element at every
// multiple of the sample interval, one page of data), laid out so that a search over sorted
// data reaches its page through a handful of cache lines instead of a bisection that misses at
// every step.
//
// The samples are kept per chunk (the data behind one view): chunk k holds samples k * P up to
// k * P + P - 1, P being the samples per chunk. Above them sit two thin levels of copies: one
// fence per node of kNode samples (the node's first sample) and one boundary per chunk (the
// chunk's first sample). A search counts, in one short run per level, the entries below the
// value: the boundaries pick the chunk (first among groups of kNode chunks, then within the
// group), the fences the node, the node's samples the page. Counting a run of kNode entries has
// no branch to mispredict and no load that waits for another; only the chosen node's samples
// may be outside the CPU caches. Every level keeps its entries in append order, so appending a
// sample only adds at the ends and nothing is rebuilt. Memory: the samples plus 1/kNode of them
// (fences) plus 1/P of them (boundaries); the fences and boundaries grow in steps of 1/16 of
// their size, and a chunk's samples by doubling up to P.
//
// Counting answers "the first sample not below the value" only while the samples stand in
// ascending order. The tree tracks that (it counts adjacent pairs out of order as samples are
// appended and overwritten); while they do not, the searches run the bisections over the
// boundaries and the chunk's samples that probe exactly the positions the segment always
// probed, so even data out of order keep their answers.
//
// Not thread-safe: the owning segment guards it.
#ifndef ZU_FILE_SAMPLE_TREE_H_
#define ZU_FILE_SAMPLE_TREE_H_

#include <algorithm>
#include <cstdint>
#include <vector>

namespace zu {

// A bisection of a run of file data that is likely not in the CPU caches (one page of a
// file): it probes exactly the positions BisectLower/BisectUpper probe, in the same order, so
// even unsorted data give the same answer. The lines of every path's first probes (the whole
// page, when the run is one page) are requested up front, level by level, so that they arrive
// together instead of one dependent miss after another; the steps branch, so the processor
// runs ahead into the likely half rather than waiting on each load.
template <typename T, typename GoRight>
uint64_t PageBisect(const T* data, uint64_t count, GoRight go_right) {
  constexpr uint64_t kLine = 64 / sizeof(T) > 0 ? 64 / sizeof(T) : 1;
  constexpr int kMaxRequests = 64;
  uint64_t stride = 1;
  while (stride * 2 <= count / 2) stride *= 2;
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
uint64_t PageLowerIndex(const T* data, uint64_t count, const T& value) {
  return PageBisect(data, count, [&value](const T& x) { return x < value; });
}

template <typename T>
uint64_t PageUpperIndex(const T* data, uint64_t count, const T& value) {
  return PageBisect(data, count, [&value](const T& x) { return !(value < x); });
}

template <typename T>
class SampleTree {
 public:
  // Samples per node, and chunks per group of boundaries.
  static constexpr uint64_t kNode = 16;

  // `per_chunk`: samples per chunk, a power of two.
  explicit SampleTree(uint64_t per_chunk = 1) { Reset(per_chunk); }

  // Drops every sample (and its memory) and sets the samples per chunk.
  void Reset(uint64_t per_chunk) {
    per_chunk_ = per_chunk == 0 ? 1 : per_chunk;
    node_ = std::min(kNode, per_chunk_);
    Clear();
  }
  void Clear() {
    std::vector<std::vector<T>>().swap(chunks_);
    std::vector<T>().swap(fences_);
    std::vector<T>().swap(boundaries_);
    size_ = 0;
    inversions_ = 0;
  }

  uint64_t size() const { return size_; }
  uint64_t per_chunk() const { return per_chunk_; }
  // Chunks begun (each holds at least one sample).
  uint64_t chunks() const { return chunks_.size(); }
  uint64_t chunk_size(uint64_t k) const { return chunks_[k].size(); }
  // The samples of chunk k, in order.
  const T* chunk(uint64_t k) const { return chunks_[k].data(); }
  // Sample i (< size()); boundary(k) is sample k * per_chunk().
  const T& operator[](uint64_t i) const { return chunks_[i / per_chunk_][i % per_chunk_]; }
  const T& boundary(uint64_t k) const { return boundaries_[k]; }
  // True while every sample is at or above the one before it.
  bool ascending() const { return inversions_ == 0; }

  // Adds sample size().
  void Append(const T& value) {
    const uint64_t i = size_;
    const uint64_t within = i % per_chunk_;
    if (within == 0) {
      Reserve(&boundaries_);
      boundaries_.push_back(value);
      chunks_.emplace_back();
    }
    if (within % node_ == 0) {
      Reserve(&fences_);
      fences_.push_back(value);
    }
    if (i > 0 && value < (*this)[i - 1]) ++inversions_;
    chunks_.back().push_back(value);
    ++size_;
  }

  // Overwrites sample i (< size()).
  void Set(uint64_t i, const T& value) {
    T& slot = chunks_[i / per_chunk_][i % per_chunk_];
    inversions_ -= OutOfOrder(i, slot);
    slot = value;
    inversions_ += OutOfOrder(i, value);
    if (i % per_chunk_ == 0) boundaries_[i / per_chunk_] = value;
    if (i % node_ == 0) fences_[i / node_] = value;
  }

  // The chunk whose samples hold the first sample not below `value` (or the chunk before the
  // first whose boundary is not below it) and the position `entry` of that sample in the
  // chunk (chunk_size when every sample of the chunk is below). False when value is at or
  // below the first boundary: the answer is the segment's start.
  bool LocateLower(const T& value, uint64_t* chunk, uint64_t* entry) const {
    if (ascending()) return Split(Count<false>(value), chunk, entry);
    const uint64_t b = Bisect<false>(boundaries_.data(), boundaries_.size(), value);
    if (b == 0 || b - 1 >= chunks_.size()) return false;
    *chunk = b - 1;
    *entry = Bisect<false>(chunks_[b - 1].data(), chunks_[b - 1].size(), value);
    return true;
  }

  // The chunk before the first whose boundary is above `value`. While the samples ascend,
  // `entry` is the number of that chunk's samples not above value (at least 1), else
  // kUnknown. False when the first boundary is above value.
  static constexpr uint64_t kUnknown = ~uint64_t{0};
  bool LocateUpper(const T& value, uint64_t* chunk, uint64_t* entry) const {
    if (ascending()) return Split(Count<true>(value), chunk, entry);
    const uint64_t b = Bisect<true>(boundaries_.data(), boundaries_.size(), value);
    if (b == 0) return false;
    *chunk = b - 1;
    *entry = kUnknown;
    return true;
  }

  // Bytes held, for the memory bound (vector headers left out).
  uint64_t HeldBytes() const {
    uint64_t n = fences_.capacity() + boundaries_.capacity();
    for (const std::vector<T>& c : chunks_) n += c.capacity();
    return n * sizeof(T);
  }

 private:
  // Grows `level` by 1/16 of its size (at least kNode entries) when full, rather than
  // doubling: it stays within 1/16 of what it holds.
  static void Reserve(std::vector<T>* level) {
    if (level->size() < level->capacity()) return;
    level->reserve(level->size() + std::max<size_t>(kNode, level->size() / 16));
  }

  // 1 for each neighbour of sample i that stands out of order with `value` at i.
  uint64_t OutOfOrder(uint64_t i, const T& value) const {
    uint64_t n = 0;
    if (i > 0 && value < (*this)[i - 1]) ++n;
    if (i + 1 < size_ && (*this)[i + 1] < value) ++n;
    return n;
  }

  // The bisection the samples have always been searched with, for samples out of order:
  // the first of the `count` entries at `data` not below value (with `upper`: above it),
  // probing the same positions in the same order as BisectLower / BisectUpper. Branch-free:
  // the samples are in the CPU caches, and a branch here is mispredicted half the time.
  template <bool upper>
  static uint64_t Bisect(const T* data, uint64_t count, const T& value) {
    uint64_t first = 0;
    while (count > 0) {
      const uint64_t half = count >> 1;
      const T& x = data[first + half];
      const uint64_t right = upper ? !(value < x) : x < value;
      first += right * (half + 1);
      count = half + right * (count - 1 - half - half);
    }
    return first;
  }

  // How many of the `n` entries at `run` are below value (with `upper`: not above it).
  template <bool upper>
  static uint64_t CountRun(const T* run, uint64_t n, const T& value) {
    uint64_t c = 0;
    if (n == kNode) {
      // A full run, the common case: a fixed trip count the compiler unrolls.
      for (uint64_t i = 0; i < kNode; ++i) c += upper ? !(value < run[i]) : run[i] < value;
    } else {
      for (uint64_t i = 0; i < n; ++i) c += upper ? !(value < run[i]) : run[i] < value;
    }
    return c;
  }

  // The number of samples below value (not above it with `upper`); the samples ascend.
  template <bool upper>
  uint64_t Count(const T& value) const {
    const uint64_t chunks = boundaries_.size();
    if (chunks == 0) return 0;
    // The group of kNode chunks: the last whose first boundary counts.
    uint64_t group = 0;
    for (uint64_t j = kNode; j < chunks; j += kNode) {
      group += upper ? !(value < boundaries_[j]) : boundaries_[j] < value;
    }
    const uint64_t first = group * kNode;
    const uint64_t in_group =
        CountRun<upper>(boundaries_.data() + first, std::min(kNode, chunks - first), value);
    if (in_group == 0) return 0;  // at or below the first sample
    const uint64_t k = first + in_group - 1;
    const std::vector<T>& samples = chunks_[k];
    const uint64_t n = samples.size();
    // The node: the last whose fence counts (the chunk's first fence, its boundary, does).
    const uint64_t nodes = (n + node_ - 1) / node_;
    const uint64_t node =
        CountRun<upper>(fences_.data() + k * (per_chunk_ / node_), nodes, value) - 1;
    const uint64_t at = node * node_;
    return k * per_chunk_ + at +
           CountRun<upper>(samples.data() + at, std::min(node_, n - at), value);
  }

  // Turns a count of samples (see Count) into the chunk and the entry in it.
  bool Split(uint64_t count, uint64_t* chunk, uint64_t* entry) const {
    if (count == 0) return false;
    *chunk = (count - 1) / per_chunk_;
    *entry = count - *chunk * per_chunk_;
    return true;
  }

  std::vector<std::vector<T>> chunks_;  // chunk k: samples k * per_chunk_ onwards
  std::vector<T> fences_;               // fences_[j] == sample j * node_
  std::vector<T> boundaries_;           // boundaries_[k] == sample k * per_chunk_
  uint64_t size_ = 0;                   // samples held
  uint64_t per_chunk_ = 1;              // samples per chunk, a power of two
  uint64_t node_ = 1;                   // samples per node: min(kNode, per_chunk_)
  uint64_t inversions_ = 0;             // adjacent samples i, i + 1 with [i + 1] < [i]
};

}  // namespace zu

#endif  // ZU_FILE_SAMPLE_TREE_H_
