#include "bench/floor_reader.h"

namespace zu_bench {
namespace {

class ArrayFloorReader final : public FloorReader {
 public:
  ArrayFloorReader(const int64_t* data, uint64_t size) : data_(data), size_(size) {}
  void* GetAt(uint64_t index, void* out) override {
    if (index >= size_) return nullptr;
    *static_cast<int64_t*>(out) = data_[index];
    return out;
  }

 private:
  const int64_t* data_;  // not owned
  uint64_t size_;
};

}  // namespace

std::unique_ptr<FloorReader> MakeFloorReader(const int64_t* data, uint64_t size) {
  return std::make_unique<ArrayFloorReader>(data, size);
}

}  // namespace zu_bench
