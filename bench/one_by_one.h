// Floors for one-by-one appends through IZUArray, run next to the arrays and the standard
// containers so that every ratio comes from one process:
//  * EmptyAppendArray: Append answers kZuOk and does nothing else. What one call through the
//    array interface costs by itself.
//  * StoreAppendArray: Append stores into a buffer sized and touched up front (a compare, a
//    store, an increment), with its state in the object. The cheapest append that the virtual
//    interface allows; no array can beat it.
// Both override only what the benchmarks call. The objects are created out of line and their
// address is hidden from the optimiser, so every Append stays an indirect call, as it is for a
// host holding an IZUArray*.
#ifndef ZU_BENCH_APPEND_FLOOR_H_
#define ZU_BENCH_APPEND_FLOOR_H_

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "src/memory/vector_array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_bench {

class EmptyAppendArray : public zu::CZUVectorArray<int64_t> {
 public:
  int Append(const void* /*value*/) override { return kZuOk; }
  uint64_t GetSize() override { return 0; }
};

class StoreAppendArray : public zu::CZUVectorArray<int64_t> {
 public:
  explicit StoreAppendArray(size_t capacity) : buffer_(capacity, 1) { Clear(); }

  int Append(const void* value) override {
    if (next_ == end_) return kZuFailed;
    *next_++ = *static_cast<const int64_t*>(value);
    return kZuOk;
  }
  uint64_t GetSize() override { return static_cast<uint64_t>(next_ - buffer_.data()); }
  void Clear() override {
    next_ = buffer_.data();
    end_ = next_ + buffer_.size();
  }

 private:
  std::vector<int64_t> buffer_;  // touched when built: no page faults while timing
  int64_t* next_ = nullptr;
  int64_t* end_ = nullptr;
};

// Out of line and laundered: the caller sees only an IZUArray*.
template <typename Floor, typename... Args>
__attribute__((noinline)) IZUArray* NewFloor(Args... args) {
  IZUArray* a = new Floor(args...);
  benchmark::DoNotOptimize(a);
  return a;
}

// Appends 0 .. n-1 one by one through the interface; each iteration the floor starts empty.
inline void RunEmptyFloor(benchmark::State& state, int64_t n) {
  std::unique_ptr<IZUArray> a(NewFloor<EmptyAppendArray>());
  for (auto _ : state) {
    for (int64_t i = 0; i < n; ++i) a->Append(&i);
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetItemsProcessed(state.iterations() * n);
}

inline void RunStoreFloor(benchmark::State& state, int64_t n) {
  std::unique_ptr<IZUArray> a(NewFloor<StoreAppendArray>(static_cast<size_t>(n)));
  for (auto _ : state) {
    a->Clear();
    for (int64_t i = 0; i < n; ++i) a->Append(&i);
    benchmark::DoNotOptimize(a->GetSize());
  }
  state.SetItemsProcessed(state.iterations() * n);
}

}  // namespace zu_bench

#endif  // ZU_BENCH_APPEND_FLOOR_H_
