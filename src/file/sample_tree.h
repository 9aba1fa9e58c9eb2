// SampleTree<T>: the in-memory samples of one file segment (a copy of the element at every
// multiple of the sample interval, one page of data), laid out so that a search over sorted
// data reaches its page through a handful of cache lines instead of a bisection that misses at
// every step.
//
// The samples lie in append order in blocks of 16 KiB (a chunk's samples, P of them, never
// straddle two blocks). Above them sit two thin levels of copies: a fence per node (the node's
// first sample; a node is one cache line of samples, and at least 16 of them) and a boundary
// per chunk (the chunk's first sample). A search counts, in one short run per level, the
// entries below the value: the boundaries pick the chunk (first among groups of 16 chunks,
// then within the group), the fences the node, the node's samples the page. Counting a run has
// no branch to mispredict and no load that waits for another; only the chosen node may be
// outside the CPU caches. Appending a sample only adds at the ends; nothing is rebuilt.
// Memory: the samples, plus at most 1/16 of them as fences and 1/P as boundaries, both grown
// in steps of 1/16 of their size; a block grows by doubling until it is full.
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

#include "src/core/bisect.h"

namespace zu {

template <typename T>
class SampleTree {
 public:
  // Chunks per group of boundaries.
  static constexpr uint64_t kGroup = 16;
  // Answered by LocateUpper for the entry when the samples do not ascend.
  static constexpr uint64_t kUnknown = ~uint64_t{0};

  // `per_chunk`: samples per chunk, a power of two.
  explicit SampleTree(uint64_t per_chunk) {
    chunk_shift_ = Log2(per_chunk);
    // All powers of two: a block holds whole chunks, a chunk whole nodes.
    block_shift_ = std::max(chunk_shift_, Log2(kBlockBytes / sizeof(T)));
    node_shift_ = std::min(chunk_shift_, Log2(std::max<uint64_t>(16, 64 / sizeof(T))));
  }

  // Drops every sample and its memory.
  void Clear() {
    std::vector<std::vector<T>>().swap(blocks_);
    std::vector<T>().swap(fences_);
    std::vector<T>().swap(boundaries_);
    size_ = 0;
    inversions_ = 0;
  }

  uint64_t size() const { return size_; }
  // Chunks begun (each holds at least one sample).
  uint64_t chunks() const { return boundaries_.size(); }
  uint64_t chunk_size(uint64_t k) const {
    return std::min(uint64_t{1} << chunk_shift_, size_ - (k << chunk_shift_));
  }
  // The samples of chunk k (< chunks()), in order.
  const T* chunk(uint64_t k) const { return &(*this)[k << chunk_shift_]; }
  // Sample i (< size()); boundary(k) is sample k * per_chunk.
  const T& operator[](uint64_t i) const {
    return blocks_[i >> block_shift_][i & ((uint64_t{1} << block_shift_) - 1)];
  }
  const T& boundary(uint64_t k) const { return boundaries_[k]; }
  // True while every sample is at or above the one before it.
  bool ascending() const { return inversions_ == 0; }

  // Adds sample size().
  void Append(const T& value) {
    const uint64_t i = size_;
    if (Starts(i, chunk_shift_)) Grow(&boundaries_)->push_back(value);
    if (Starts(i, node_shift_)) Grow(&fences_)->push_back(value);
    if (Starts(i, block_shift_)) blocks_.emplace_back();
    if (i > 0 && value < (*this)[i - 1]) ++inversions_;
    blocks_.back().push_back(value);
    ++size_;
  }

  // Overwrites sample i (< size()).
  void Set(uint64_t i, const T& value) {
    T& slot = blocks_[i >> block_shift_][i & ((uint64_t{1} << block_shift_) - 1)];
    inversions_ -= OutOfOrder(i, slot);
    slot = value;
    inversions_ += OutOfOrder(i, value);
    if (Starts(i, chunk_shift_)) boundaries_[i >> chunk_shift_] = value;
    if (Starts(i, node_shift_)) fences_[i >> node_shift_] = value;
  }

  // The chunk whose samples hold the first sample not below `value` (the chunk before the first
  // whose boundary is not below it) and the position `entry` of that sample in the chunk
  // (chunk_size when every sample of the chunk is below). False when value is at or below the
  // first boundary: the answer is the segment's start.
  bool LocateLower(const T& value, uint64_t* chunk, uint64_t* entry) const {
    if (ascending()) return Split(Count<false>(value), chunk, entry);
    const uint64_t b = BranchlessLower(boundaries_.data(), boundaries_.size(), value);
    if (b == 0) return false;
    *chunk = b - 1;
    *entry = BranchlessLower(this->chunk(b - 1), chunk_size(b - 1), value);
    return true;
  }

  // The chunk before the first whose boundary is above `value`. While the samples ascend,
  // `entry` is the number of that chunk's samples not above value (at least 1), else
  // kUnknown. False when the first boundary is above value.
  bool LocateUpper(const T& value, uint64_t* chunk, uint64_t* entry) const {
    if (ascending()) return Split(Count<true>(value), chunk, entry);
    const uint64_t b = BranchlessUpper(boundaries_.data(), boundaries_.size(), value);
    if (b == 0) return false;
    *chunk = b - 1;
    *entry = kUnknown;
    return true;
  }

  // Bytes of samples and copies held (the vectors' own headers left out).
  uint64_t HeldBytes() const {
    uint64_t n = fences_.capacity() + boundaries_.capacity();
    for (const std::vector<T>& b : blocks_) n += b.capacity();
    return n * sizeof(T);
  }

 private:
  static constexpr uint64_t kBlockBytes = 0x4000;

  static unsigned Log2(uint64_t n) {
    unsigned shift = 0;
    while ((uint64_t{2} << shift) <= n) ++shift;
    return shift;
  }
  // Whether sample i is the first of a run of 2^shift.
  static bool Starts(uint64_t i, unsigned shift) { return (i & ((uint64_t{1} << shift) - 1)) == 0; }

  // Makes room for one more entry in a level: 1/16 of its size more (at least 16 entries)
  // rather than doubling, so a level stays within 1/16 of what it holds.
  static std::vector<T>* Grow(std::vector<T>* level) {
    if (level->size() == level->capacity()) {
      level->reserve(level->size() + std::max<size_t>(16, level->size() / 16));
    }
    return level;
  }

  // 1 for each neighbour of sample i that stands out of order with `value` at i.
  uint64_t OutOfOrder(uint64_t i, const T& value) const {
    uint64_t n = 0;
    if (i > 0 && value < (*this)[i - 1]) ++n;
    if (i + 1 < size_ && (*this)[i + 1] < value) ++n;
    return n;
  }

  // How many of the `n` entries at `run` are below value (with `upper`: not above it).
  template <bool upper>
  static uint64_t CountRun(const T* run, uint64_t n, const T& value) {
    uint64_t c = 0;
    for (uint64_t i = 0; i < n; ++i) c += upper ? !(value < run[i]) : run[i] < value;
    return c;
  }

  // The number of samples below value (not above it with `upper`); the samples ascend.
  template <bool upper>
  uint64_t Count(const T& value) const {
    const uint64_t chunks = boundaries_.size();
    if (chunks == 0) return 0;
    // The group: the last whose first boundary counts.
    uint64_t group = 0;
    for (uint64_t j = kGroup; j < chunks; j += kGroup) {
      group += upper ? !(value < boundaries_[j]) : boundaries_[j] < value;
    }
    const uint64_t first = group * kGroup;
    const uint64_t in_group =
        CountRun<upper>(boundaries_.data() + first, std::min(kGroup, chunks - first), value);
    if (in_group == 0) return 0;  // at or below the first sample
    const uint64_t k = first + in_group - 1;
    // The node: the last whose fence counts (the chunk's first fence, its boundary, does).
    const uint64_t n = chunk_size(k);
    const uint64_t node_size = uint64_t{1} << node_shift_;
    const uint64_t fences = (n + node_size - 1) >> node_shift_;
    const uint64_t node =
        CountRun<upper>(fences_.data() + (k << (chunk_shift_ - node_shift_)), fences, value) - 1;
    const uint64_t at = node << node_shift_;
    return (k << chunk_shift_) + at +
           CountRun<upper>(chunk(k) + at, std::min(node_size, n - at), value);
  }

  // Turns a count of samples (see Count) into the chunk and the entry in it.
  bool Split(uint64_t count, uint64_t* chunk, uint64_t* entry) const {
    if (count == 0) return false;
    *chunk = (count - 1) >> chunk_shift_;
    *entry = count - (*chunk << chunk_shift_);
    return true;
  }

  std::vector<std::vector<T>> blocks_;  // block b: samples b << block_shift_ onwards
  std::vector<T> fences_;               // fences_[j] == sample j << node_shift_
  std::vector<T> boundaries_;           // boundaries_[k] == sample k << chunk_shift_
  uint64_t size_ = 0;                   // samples held
  uint64_t inversions_ = 0;             // adjacent samples i, i + 1 with [i + 1] < [i]
  unsigned chunk_shift_ = 0;            // log2 of the samples per chunk
  unsigned block_shift_ = 0;            // log2 of the samples per block, >= chunk_shift_
  unsigned node_shift_ = 0;             // log2 of the samples per node, <= chunk_shift_
};

}  // namespace zu

#endif  // ZU_FILE_SAMPLE_TREE_H_
