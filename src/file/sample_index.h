// SampleIndex<T, kChunkLength>: the in-memory copies of a file segment's elements that let a
// search over sorted data narrow down without reading the file.
//
// It keeps the element at every multiple of the chunk length (boundary samples, one per chunk)
// and at every multiple of the sample interval, one page of data (page samples, one run per
// chunk whose first entry repeats the chunk's boundary sample). A search asks it which chunk
// or which page of the file holds the answer; reading that page is the segment's business.
// Positions are element indexes counted from the segment's start.
//
// Only this class knows how the samples are laid out in memory, so that layout can change
// without touching the segment.
// Thread-safety: none of its own; the segment's locks guard it.
#ifndef ZU_FILE_SAMPLE_INDEX_H_
#define ZU_FILE_SAMPLE_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "src/core/bisect.h"
#include "src/memory/xdeque.h"
#include "zu_data_manager/element_types.h"

namespace zu {

// Vectors per block of the page-sample container.
constexpr unsigned int kPageSampleBlock = 1024;

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
      : interval_(IntervalFor(page_bytes)), mask_(interval_ - 1) {
    while ((uint64_t{1} << shift_) < interval_) ++shift_;
  }

  uint64_t interval() const { return interval_; }
  bool IsSampled(uint64_t index) const { return (index & mask_) == 0; }
  // The first sampled index at or after `index`.
  uint64_t NextSampled(uint64_t index) const { return (index + mask_) & ~mask_; }

  // Records element `index` (the next one appended) when it is sampled.
  void Add(uint64_t index, const T& value) {
    if (!IsSampled(index)) return;  // the common case: nothing to record
    if (index % kChunkLength == 0) {
      boundary_.push_back(value);
      pages_.push_back(std::vector<T>());
    }
    if (pages_.size() != 0) pages_.back().push_back(value);
  }

  void Clear() {
    boundary_.clear();
    pages_.clear();
  }

  // The sample of element `index`, or null when it has none (not sampled, or not recorded).
  // A chunk's first element is answered by its boundary sample alone.
  const T* Find(uint64_t index) const {
    if (!IsSampled(index)) return nullptr;
    const uint64_t chunk = index / kChunkLength;
    if (index % kChunkLength == 0) return chunk < boundary_.size() ? &boundary_[chunk] : nullptr;
    if (chunk >= pages_.size()) return nullptr;
    const std::vector<T>& samples = pages_[chunk];
    const uint64_t entry = (index % kChunkLength) >> shift_;
    return entry < samples.size() ? &samples[entry] : nullptr;
  }

  // Gives the samples of element `index` (if it has any) a new value.
  void Overwrite(uint64_t index, const T& value) {
    const uint64_t chunk = index / kChunkLength;
    if (index % kChunkLength == 0 && chunk < boundary_.size()) boundary_[chunk] = value;
    if (index % interval_ == 0 && chunk < pages_.size()) {
      std::vector<T>& samples = pages_[chunk];
      const uint64_t entry = (index % kChunkLength) / interval_;
      if (entry < samples.size()) samples[entry] = value;
    }
  }

  // Position of the last page sample; 0 without samples.
  uint64_t LastPosition() const {
    if (pages_.size() == 0) return 0;
    const uint64_t chunks = pages_.size();
    const uint64_t entries = pages_.back().size();
    return (chunks - 1) * kChunkLength + (entries > 0 ? (entries - 1) * interval_ : 0);
  }

  // --- searches over ascending data ---------------------------------------------------
  // The page that holds the lower bound of value: the one before the first page sample not
  // below it (unless the whole page is below value; its end is the answer then). False when
  // value is at or below the first sample: the answer is 0.
  bool LowerBoundPage(const T& value, Page* page) const {
    uint64_t chunk = 0;
    if (!ChunkBelow(value, &chunk)) return false;
    const std::vector<T>& samples = pages_[chunk];
    const uint64_t i = BranchlessLower(samples.data(), samples.size(), value);
    *page = Page{chunk, i > 0 ? (i - 1) * interval_ : 0};
    return true;
  }

  // The chunk that holds the upper bound of value: the one before the first boundary sample
  // above it. False when value is below the first sample: the answer is 0.
  bool UpperBoundChunk(const T& value, uint64_t* chunk) const {
    const uint64_t b = BranchlessUpper(boundary_.data(), boundary_.size(), value);
    if (b == 0) return false;
    *chunk = b - 1;
    return true;
  }

  // The first sampled position whose sample is not less than value, from the samples alone.
  uint64_t LocateLowerBound(const T& value) const {
    uint64_t chunk = 0;
    if (!ChunkBelow(value, &chunk)) return 0;
    const std::vector<T>& samples = pages_[chunk];
    return BranchlessLower(samples.data(), samples.size(), value) * interval_ +
           chunk * kChunkLength;
  }

  // A sample within `tolerance` of value (strictly closer; the one below first), with its
  // position and value in *position and *sample, or else the page to search.
  Nearest FindNearest(const T& value, uint64_t tolerance, uint64_t* position, T* sample,
                      Page* page) const {
    uint64_t chunk = 0;
    if (!ChunkBelow(value, &chunk)) return Nearest::kAtZero;
    const uint64_t base = chunk * kChunkLength;
    const std::vector<T>& samples = pages_[chunk];
    const uint64_t n = samples.size();
    const uint64_t i = BranchlessLower(samples.data(), n, value);
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
      if (chunk + 1 < boundary_.size() && Distance(boundary_[chunk + 1], value) < tolerance) {
        return found(boundary_[chunk + 1], (chunk + 1) * kChunkLength);
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

  // The chunk whose range may hold value: the one before the first boundary sample not below
  // it. False when value is at or below the first sample.
  bool ChunkBelow(const T& value, uint64_t* chunk) const {
    const uint64_t b = BranchlessLower(boundary_.data(), boundary_.size(), value);
    if (b == 0 || b - 1 >= pages_.size()) return false;
    *chunk = b - 1;
    return true;
  }

  using PageSamples = std::xdeque<std::vector<T>, kPageSampleBlock>;

  uint64_t interval_;        // power of two dividing kChunkLength
  uint64_t mask_;            // interval_ - 1
  unsigned shift_ = 0;       // log2(interval_)
  std::vector<T> boundary_;  // element k * kChunkLength for every chunk k begun
  PageSamples pages_;        // per chunk begun: its elements at multiples of the interval
};

}  // namespace zu

#endif  // ZU_FILE_SAMPLE_INDEX_H_
