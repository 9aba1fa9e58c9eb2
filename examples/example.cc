// A small host program: creates a vector array through the factory, appends sorted values,
// searches them and prints what it did.
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

int main() {
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocVectorArray(8));
  if (!array) {
    std::fprintf(stderr, "the factory refused an 8-byte vector array\n");
    return 1;
  }

  // One element at a time, then a whole buffer at once.
  for (int64_t t = 0; t < 1000; t += 10) {
    if (array->Append(&t) != kZuOk) return 1;
  }
  std::vector<int64_t> more;
  for (int64_t t = 1000; t < 2000; t += 10) more.push_back(t);
  if (array->AppendBuffer(more.data(), more.size()) != kZuOk) return 1;
  std::printf("appended %" PRIu64 " timestamps (0, 10, ..., 1990)\n", array->GetSize());

  int64_t probe = 455;
  std::printf("LowerBound(455) = %" PRIu64 "\n", array->LowerBound(&probe));
  std::printf("UpperBound(455) = %" PRIu64 "\n", array->UpperBound(&probe));
  std::printf("FindFloor(455)  = %" PRIu64 "\n", array->FindFloor(&probe));
  int64_t nearest = 455;
  uint64_t at = array->FindNearest(&nearest, 0);
  std::printf("FindNearest(455) = index %" PRIu64 ", value %" PRId64 "\n", at, nearest);
  int64_t present = 1230;
  int64_t absent = 1231;
  uint64_t found = array->Find(&present);
  uint64_t missing = array->Find(&absent);
  std::printf("Find(1230) = %" PRIu64 ", Find(1231) = %" PRIu64 " (the size: not found)\n", found,
              missing);

  int64_t window[5];
  array->CopyOut(window, 197, 5);  // only three elements remain from 197
  std::printf("CopyOut(197, 5) copied the tail: %" PRId64 " %" PRId64 " %" PRId64 "\n", window[0],
              window[1], window[2]);
  return 0;
}
