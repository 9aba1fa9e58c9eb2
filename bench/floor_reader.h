// The floor of any read through a virtual call, for zu-bench: an interface whose GetAt does
// nothing but check the index and copy the element out of a plain array. Its implementation
// lives in a translation unit of its own, so that the compiler sees no derived type at the
// call and makes a real indirect call, as a host's call through IZUArray is.
#ifndef ZU_BENCH_FLOOR_READER_H_
#define ZU_BENCH_FLOOR_READER_H_

#include <cstdint>
#include <memory>

namespace zu_bench {

class FloorReader {
 public:
  virtual ~FloorReader() = default;
  virtual void* GetAt(uint64_t index, void* out) = 0;
};

// Reads element `index` of data[0, size).
std::unique_ptr<FloorReader> MakeFloorReader(const int64_t* data, uint64_t size);

}  // namespace zu_bench

#endif  // ZU_BENCH_FLOOR_READER_H_
