// The exported read path and batched searches (zu_data_manager/direct_read.h): the array's
// DirectReads side answers, found with a dynamic_cast, so that an IZUArray made elsewhere
// gets no answer rather than a wrong one.
#include "zu_data_manager/direct_read.h"

#include "src/core/direct_reads.h"

bool ZuGetReadRun(IZUArray* array, uint64_t index, ZuReadRun* run) {
  if (run == nullptr) return false;
  *run = ZuReadRun();
  auto* reads = dynamic_cast<zu::DirectReads*>(array);
  if (reads == nullptr || !reads->ReadRunAt(index, run)) {
    *run = ZuReadRun();
    return false;
  }
  return true;
}

bool ZuSearchBatch(IZUArray* array, ZuSearch search, const void* keys, uint64_t count,
                   uint64_t* out) {
  if (search != kZuSearchLowerBound && search != kZuSearchUpperBound && search != kZuSearchFind) {
    return false;
  }
  if (count > 0 && (keys == nullptr || out == nullptr)) return false;
  auto* reads = dynamic_cast<zu::DirectReads*>(array);
  if (reads == nullptr) return false;
  if (count == 0 || reads->SearchBatch(search, keys, count, out)) return true;
  zu::SearchEach(*array, search, keys, count, reads->element_size(), out);
  return true;
}
