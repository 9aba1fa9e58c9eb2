// DirectReads: an array's side of the exported read path (zu_data_manager/direct_read.h): the
// run of elements around an index that can be read in place, and a batch of searches.
//
// Every array class of the library has it as a second base beside IZUArray, so that its
// virtual functions stay out of IZUArray's table and out of the slots the array classes add
// to it: the exported functions reach it with a dynamic_cast. The defaults answer no run and
// leave a batch to one search per key; the kinds whose data can be read in place override
// both, in their most derived class, after that class's own virtual functions.
//
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_CORE_DIRECT_READS_H_
#define ZU_CORE_DIRECT_READS_H_

#include <cstddef>
#include <cstdint>

#include "zu_data_manager/direct_read.h"
#include "zu_data_manager/zu_array.h"

namespace zu {

class DirectReads {
 public:
  explicit DirectReads(size_t element_size) : element_size_(element_size) {}
  DirectReads(const DirectReads&) = default;
  DirectReads& operator=(const DirectReads&) = default;

  // The run around `index` in *run (which the caller has emptied); false when there is none.
  virtual bool ReadRunAt(uint64_t /*index*/, ZuReadRun* /*run*/) { return false; }
  // Answers a whole batch (see ZuSearchBatch); false, with nothing written, to leave it to one
  // search per key.
  virtual bool SearchBatch(ZuSearch /*search*/, const void* /*keys*/, uint64_t /*count*/,
                           uint64_t* /*out*/) {
    return false;
  }

  // Bytes of one element (and of one key of a batch).
  size_t element_size() const { return element_size_; }

 protected:
  ~DirectReads() = default;

 private:
  size_t element_size_;  // sizeof the array's element type
};

// One single search of `array`, as the batch's answer for `key` must be.
inline uint64_t SearchOne(IZUArray& array, ZuSearch search, const void* key) {
  switch (search) {
    case kZuSearchUpperBound:
      return array.UpperBound(key);
    case kZuSearchFind:
      return array.Find(key);
    case kZuSearchLowerBound:
      break;
  }
  return array.LowerBound(key);
}

// The batch one single search per key: the answer every batch must equal.
inline void SearchEach(IZUArray& array, ZuSearch search, const void* keys, uint64_t count,
                       size_t key_bytes, uint64_t* out) {
  const auto* key = static_cast<const unsigned char*>(keys);
  for (uint64_t k = 0; k < count; ++k) out[k] = SearchOne(array, search, key + k * key_bytes);
}

}  // namespace zu

#endif  // ZU_CORE_DIRECT_READS_H_
