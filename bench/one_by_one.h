// One-by-one appends, shared by the suites that time them: the arrays through IZUArray, the
// standard containers' push_back, and two floors for appends through IZUArray, all run in one
// process so that every ratio comes from one run:
//  * EmptyAppendArray: Append answers kZuOk and does nothing else. What one call through the
//    array interface costs by itself.
//  * StoreAppendArray: Append stores into a buffer sized and touched up front (a compare, a
//    store, an increment), with its state in the object. The cheapest append that the virtual
//    interface allows; no array can beat it.
// Both override only what the benchmarks call. The objects are created out of line and their
// address is hidden from the optimiser, so every Append stays an indirect call, as it is for a
// host holding an IZUArray*.
//
// Every contender appends the elements of one source vector (0, 1, 2, ...), the arrays by
// address (&src[i]) and the standard containers by value. Appending the address of a loop
// counter instead would keep the counter in memory for the interface callers only and time
// its store-to-load round trip with them.
//
// While one of these runs, freed memory stays in the heap (no trimming, no mapping of large
// blocks of their own): a container built and destroyed per iteration then reuses the same
// pages instead of faulting them in again, whether its blocks are 512 bytes or 1 MiB. Without
// this, which contender pays page faults depends on what ran before it (glibc adapts its
// thresholds to the largest block freed), and the faults, not the appends, decide the ratios.
// Afterwards the heap is trimmed and glibc's default thresholds (128 KiB, then fixed) apply,
// so that benchmarks that measure resident memory see it returned. ZU_BENCH_DEFAULT_MALLOC=1
// leaves the allocator alone.
#ifndef ZU_BENCH_ONE_BY_ONE_H_
#define ZU_BENCH_ONE_BY_ONE_H_

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <vector>

#include "src/memory/vector_array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_bench {

class HeapKept {
 public:
  HeapKept() {
    const char* defaults = std::getenv("ZU_BENCH_DEFAULT_MALLOC");
    active_ = defaults == nullptr || defaults[0] != '1';
    if (active_) {
      mallopt(M_TRIM_THRESHOLD, 1 << 30);
      mallopt(M_MMAP_THRESHOLD, 32 << 20);
    }
  }
  ~HeapKept() {
    if (!active_) return;
    mallopt(M_TRIM_THRESHOLD, 128 << 10);
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    malloc_trim(0);
  }
  HeapKept(const HeapKept&) = delete;
  HeapKept& operator=(const HeapKept&) = delete;

 private:
  bool active_ = false;
};

// 0, 1, ..., n - 1; one vector per size, built on first use.
inline const std::vector<int64_t>& Values(int64_t n) {
  static std::map<int64_t, std::vector<int64_t>> cache;
  std::vector<int64_t>& v = cache[n];
  if (v.empty()) {
    v.resize(static_cast<size_t>(n));
    std::iota(v.begin(), v.end(), int64_t{0});
  }
  return v;
}

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

// Each runner does one untimed pass first: the heap then holds the pages that every timed
// iteration reuses, and caches start alike for every contender.

// Appends Values(n) one by one through the interface; each iteration the floor starts empty.
inline void RunEmptyFloor(benchmark::State& state, int64_t n) {
  HeapKept heap;
  const std::vector<int64_t>& src = Values(n);
  std::unique_ptr<IZUArray> a(NewFloor<EmptyAppendArray>());
  auto once = [&] {
    for (const int64_t& v : src) a->Append(&v);
    benchmark::DoNotOptimize(a->GetSize());
  };
  once();
  for (auto _ : state) once();
  state.SetItemsProcessed(state.iterations() * n);
}

inline void RunStoreFloor(benchmark::State& state, int64_t n) {
  HeapKept heap;
  const std::vector<int64_t>& src = Values(n);
  std::unique_ptr<IZUArray> a(NewFloor<StoreAppendArray>(static_cast<size_t>(n)));
  auto once = [&] {
    a->Clear();
    for (const int64_t& v : src) a->Append(&v);
    benchmark::DoNotOptimize(a->GetSize());
  };
  once();
  for (auto _ : state) once();
  state.SetItemsProcessed(state.iterations() * n);
}

// Appends Values(n) one by one into a fresh array from make() each iteration.
template <typename Make>
void RunArrayAppend(benchmark::State& state, int64_t n, Make make) {
  HeapKept heap;
  const std::vector<int64_t>& src = Values(n);
  auto once = [&] {
    std::unique_ptr<IZUArray> a(make());
    for (const int64_t& v : src) a->Append(&v);
    return a->GetSize();
  };
  once();
  for (auto _ : state) {
    if (once() != static_cast<uint64_t>(n)) state.SkipWithError("append failed");
  }
  state.SetItemsProcessed(state.iterations() * n);
}

// push_back of Values(n) into a fresh Container each iteration.
template <typename Container>
void RunPushBack(benchmark::State& state, int64_t n) {
  HeapKept heap;
  const std::vector<int64_t>& src = Values(n);
  auto once = [&] {
    Container c;
    for (int64_t v : src) c.push_back(static_cast<typename Container::value_type>(v));
    benchmark::DoNotOptimize(c.back());
  };
  once();
  for (auto _ : state) once();
  state.SetItemsProcessed(state.iterations() * n);
}

}  // namespace zu_bench

#endif  // ZU_BENCH_ONE_BY_ONE_H_
