// SampleIndex<T, kChunkLength>: the in-memory copies of a file segment's elements that let a
// search over sorted data narrow down without reading the file.
//
// It keeps the element at every multiple of the sample interval, one page of data (page
// samples; those at multiples of the chunk length are the chunk's boundary samples). A search
// asks it which chunk or which page of the file holds the answer; reading that page is the
// segment's business. Positions are element indexes counted from the segment's start.
//
// The samples lie in a SampleTree, a layout that a search over sorted data crosses in a few
// cache lines; only this class knows it, so the layout can change without touching the
// segment.
// Thread-safety: none of its own; the segment's locks guard it.
#ifndef ZU_FILE_SAMPLE_INDEX_H_
#define ZU_FILE_SAMPLE_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "src/file/sample_tree.h"
#include "zu_data_manager/element_types.h"

namespace zu {

// high - low in the element type's own value range, widened to 64 bits. Records have no
// arithmetic: their distance never falls within a tolerance, so the search reads the file.
template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
uint64_t Distance(T high, T low) {
  using U = std::make_unsigned_t<T>;
  return static_cast<U>(static_cast<U>(high) - static_cast<U>(low));
}
template <int N>
uint64_t Distance(const SimpleBigData<N>&, const SimpleBigData<N>&) {
  return std::numeric_limits<uint64_t>::max();
}

template <typename T, uint64_t kChunkLength>
class SampleIndex {
 public:
  // A page of file data that a search reads: the elements of chunk `chunk` from `start` (a
  // multiple of the interval, counted in the chunk) up to the next sample.
  struct Page {
    uint64_t chunk = 0;
    uint64_t start = 0;
  };
  // Where the element nearest to a value lies, as far as the samples tell.
  enum class Nearest {
    kAtZero,    // the value is at or below the first sample
    kAtSample,  // a sample lies within the tolerance
    kInPage,    // the page to search
  };

  // One sample per page of `page_bytes` (the system's page size); a page size that does not
  // divide the chunk takes one sample per chunk.
  explicit SampleIndex(size_t page_bytes)
      : interval_(IntervalFor(page_bytes)), mask_(interval_ - 1), tree_(kChunkLength / interval_) {
    while ((uint64_t{1} << shift_) < interval_) ++shift_;
  }

  uint64_t interval() const { return interval_; }
  bool IsSampled(uint64_t index) const { return (index & mask_) == 0; }
  // The first sampled index at or after `index`.
  uint64_t NextSampled(uint64_t index) const { return (index + mask_) & ~mask_; }

  // Records element `index` (the next one appended) when it is sampled; a sample recorded
  // already takes the new value.
  void Add(uint64_t index, const T& value) {
    if (!IsSampled(index)) return;  // the common case: nothing to record
    if ((index >> shift_) < tree_.size()) {
      tree_.Set(index >> shift_, value);
    } else {
      tree_.Append(value);
    }
  }

  void Clear() { tree_.Clear(); }

  // The sample of element `index`, or null when it has none (not sampled, or not recorded).
  const T* Find(uint64_t index) const {
    if (!IsSampled(index) || (index >> shift_) >= tree_.size()) return nullptr;
    return &tree_[index >> shift_];
  }

  // Gives the sample of element `index` (if it has one) a new value.
  void Overwrite(uint64_t index, const T& value) {
    if (IsSampled(index) && (index >> shift_) < tree_.size()) tree_.Set(index >> shift_, value);
  }

  // Position of the last page sample; 0 without samples.
  uint64_t LastPosition() const { return tree_.size() == 0 ? 0 : (tree_.size() - 1) * interval_; }
  // Bytes the samples take, for the memory bound.
  uint64_t HeldBytes() const { return tree_.HeldBytes(); }

  // --- searches over ascending data ---------------------------------------------------
  // The page that holds the lower bound of value: the one before the first page sample not
  // below it (unless the whole page is below value; its end is the answer then). False when
  // value is at or below the first sample: the answer is 0.
  bool LowerBoundPage(const T& value, Page* page) const {
    uint64_t chunk = 0, i = 0;
    if (!tree_.LocateLower(value, &chunk, &i)) return false;
    *page = Page{chunk, i > 0 ? (i - 1) * interval_ : 0};
    return true;
  }

  // The chunk that holds the upper bound of value: the one before the first boundary sample
  // above it. While the samples ascend, *samples_not_above is the number of that chunk's page
  // samples not above value (at least 1), else kUnknown. False when value is below the first
  // sample: the answer is 0.
  static constexpr uint64_t kUnknown = SampleTree<T>::kUnknown;
  bool UpperBoundChunk(const T& value, uint64_t* chunk, uint64_t* samples_not_above) const {
    return tree_.LocateUpper(value, chunk, samples_not_above);
  }

  // The first sampled position whose sample is not less than value, from the samples alone.
  uint64_t LocateLowerBound(const T& value) const {
    uint64_t chunk = 0, i = 0;
    if (!tree_.LocateLower(value, &chunk, &i)) return 0;
    return i * interval_ + chunk * kChunkLength;
  }

  // A sample within `tolerance` of value (strictly closer; the one below first), with its
  // position and value in *position and *sample, or else the page to search.
  Nearest FindNearest(const T& value, uint64_t tolerance, uint64_t* position, T* sample,
                      Page* page) const {
    uint64_t chunk = 0, i = 0;
    if (!tree_.LocateLower(value, &chunk, &i)) return Nearest::kAtZero;
    const uint64_t base = chunk * kChunkLength;
    const T* samples = tree_.chunk(chunk);
    const uint64_t n = tree_.chunk_size(chunk);
    auto found = [&](const T& s, uint64_t at) {
      *sample = s;
      *position = at;
      return Nearest::kAtSample;
    };
    uint64_t entry = 0;
    if (i < n) {
      if (i >= 1 && Distance(value, samples[i - 1]) < tolerance) {
        return found(samples[i - 1], (i - 1) * interval_ + base);
      }
      if (Distance(samples[i], value) < tolerance) return found(samples[i], i * interval_ + base);
      entry = i >= 1 ? i - 1 : 0;
    } else {
      if (n >= 1 && Distance(value, samples[n - 1]) < tolerance) {
        return found(samples[n - 1], (n - 1) * interval_ + base);
      }
      if (chunk + 1 < tree_.chunks() && Distance(tree_.boundary(chunk + 1), value) < tolerance) {
        return found(tree_.boundary(chunk + 1), (chunk + 1) * kChunkLength);
      }
      entry = n >= 1 ? n - 1 : 0;
    }
    *page = Page{chunk, entry * interval_};
    return Nearest::kInPage;
  }

 private:
  // One page of data in elements, as a power of two dividing the chunk length.
  static uint64_t IntervalFor(size_t page_bytes) {
    const uint64_t chunk_bytes = kChunkLength * sizeof(T);
    uint64_t bytes = page_bytes;
    if (bytes == 0 || bytes > chunk_bytes || chunk_bytes % bytes != 0) bytes = chunk_bytes;
    uint64_t elements = bytes / sizeof(T) > 0 ? bytes / sizeof(T) : 1;
    while ((elements & (elements - 1)) != 0) elements &= elements - 1;
    return elements;
  }

  uint64_t interval_;   // power of two dividing kChunkLength
  uint64_t mask_;       // interval_ - 1
  unsigned shift_ = 0;  // log2(interval_)
  SampleTree<T> tree_;  // sample i is element i * interval_
};

}  // namespace zu

#endif  // ZU_FILE_SAMPLE_INDEX_H_
