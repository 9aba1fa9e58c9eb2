// std::xdeque against std::deque, in the ways the arrays use it: runs of back pushes (tried
// without allocating first), ranges inserted at the front (into an empty deque, as Assign does)
// and at the back, emptying and copying out. Small blocks make the ring wrap and the map grow in
// every state. Then failing allocations and the map limit.
#include "src/memory/xdeque.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <random>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

constexpr unsigned int kBlock = 4;

template <typename D, typename Model>
void ExpectSame(const D& d, const Model& model) {
  ASSERT_EQ(d.size(), model.size());
  ASSERT_TRUE(std::equal(d.begin(), d.end(), model.begin(), model.end()));
  if (model.size() < 2) return;
  std::vector<uint32_t> out(2);
  const uint32_t from = static_cast<uint32_t>(model.size() / 3);
  d.copy_out(from, 2, out.data());
  ASSERT_TRUE(out[0] == model[from] && out[1] == model[from + 1]) << from;
}

TEST(Xdeque, TheArraysOperationsMatchAStandardDeque) {
  std::mt19937 rng(2024);
  uint32_t next = 0, growths = 0;
  for (int round = 0; round < 200; ++round) {
    std::xdeque<uint32_t, kBlock> d;
    std::deque<uint32_t> model;
    for (int step = 0; step < 100; ++step) {
      const uint32_t map = d.map_size();
      std::vector<uint32_t> src(rng() % 13);
      for (uint32_t& v : src) v = ++next;
      const std::list<uint32_t> walked(src.begin(), src.end());  // taken element by element
      const bool at_end = rng() % 3 != 0;
      switch (rng() % 5) {
        case 0:
        case 1:
          for (uint32_t v : src) {
            if (!d.try_push_back(v)) d.push_back(v);
            model.push_back(v);
          }
          break;
        case 2:
          d.insert(at_end ? d.end() : d.begin(), src.data(), src.data() + src.size());
          model.insert(at_end ? model.end() : model.begin(), src.begin(), src.end());
          break;
        case 3:
          d.insert(at_end ? d.end() : d.begin(), walked.begin(), walked.end());
          model.insert(at_end ? model.end() : model.begin(), src.begin(), src.end());
          break;
        default:
          if (rng() % 3 == 0) d.erase(d.begin(), d.end()), model.clear();
          break;
      }
      growths += d.map_size() > map && map > 0;
      ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model)) << "round " << round << " step " << step;
    }
  }
  EXPECT_GT(growths, 100u) << "the map grew too seldom to test its growth";
}

// Allocations fail while the budget is zero (negative: never).
int g_allocation_budget = -1;
template <typename T>
struct BudgetAllocator {
  using value_type = T;
  BudgetAllocator() = default;
  template <typename U>
  BudgetAllocator(const BudgetAllocator<U>&) {}  // NOLINT(google-explicit-constructor)
  T* allocate(size_t n) {
    if (g_allocation_budget == 0) throw std::bad_alloc();
    if (g_allocation_budget > 0) --g_allocation_budget;
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, size_t n) { std::allocator<T>().deallocate(p, n); }
  friend bool operator==(const BudgetAllocator&, const BudgetAllocator&) { return true; }
  friend bool operator!=(const BudgetAllocator&, const BudgetAllocator&) { return false; }
};

// A back push whose block or larger map cannot be allocated changes nothing, and the next one
// goes to the place the failed one would have taken.
TEST(Xdeque, FailedBackPushesLeaveThePlaceOfTheNextOne) {
  for (int budget : {0, 1, 2, 5, 9}) {  // blocks of 4 elements, 8 slots in the first map
    std::xdeque<uint32_t, kBlock, BudgetAllocator<uint32_t>> d;
    std::vector<uint32_t> model;
    g_allocation_budget = budget;
    EXPECT_THROW(
        for (uint32_t i = 0; i < 100; ++i) {
          d.push_back(i);
          model.push_back(i);
        },
        std::bad_alloc)
        << budget;
    g_allocation_budget = -1;
    for (uint32_t i = 0; i < 40; ++i) d.push_back(500 + i), model.push_back(500 + i);
    ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
  }
}

// A record whose copy touches only its tag: the map limit of a huge element type is reached
// with few elements and little resident memory.
template <size_t Bytes>
struct HugeRecordOf {
  HugeRecordOf() {}
  HugeRecordOf(const HugeRecordOf& o) : tag(o.tag) {}
  uint32_t tag = 0;
  unsigned char payload[Bytes - sizeof(uint32_t)];
};
template <typename T>
struct IsHugeRecord : std::false_type {};
template <size_t Bytes>
struct IsHugeRecord<HugeRecordOf<Bytes>> : std::true_type {};
constexpr size_t kHugeRecordBytes = size_t{1} << 26;
using HugeRecord = HugeRecordOf<kHugeRecordBytes>;

// Gives each block of records room for the tag alone: the limit is 2^32 - 1 bytes of elements,
// more than a 32-bit process can address. The map itself gets its real size.
template <typename T>
struct TagOnlyAllocator {
  using value_type = T;
  TagOnlyAllocator() = default;
  template <typename U>
  TagOnlyAllocator(const TagOnlyAllocator<U>&) {}
  T* allocate(size_t n) {
    const size_t each = IsHugeRecord<T>::value ? sizeof(uint64_t) : sizeof(T);
    return static_cast<T*>(::operator new(n* each));
  }
  void deallocate(T* p, size_t) { ::operator delete(p); }
  bool operator==(const TagOnlyAllocator&) const { return true; }
  bool operator!=(const TagOnlyAllocator&) const { return false; }
};

TEST(Xdeque, MapLimitRaisesLengthErrorAndKeepsContents) {
  using Huge = std::xdeque<HugeRecord, 1, TagOnlyAllocator<HugeRecord>>;
  auto record = std::make_unique<HugeRecord>();
  Huge d;
  uint32_t pushed = 0;
  try {
    for (;; ++pushed) {
      record->tag = pushed;
      d.push_back(*record);
    }
  } catch (const std::length_error& e) {
    EXPECT_STREQ(e.what(), "xdeque<T> too long");
  }
  // The map holds 4 GiB of elements; the ring grows one block before it closes, so a full map
  // holds one block less.
  EXPECT_EQ(pushed, 0xFFFFFFFFull / kHugeRecordBytes - 1);
  for (uint32_t i = 0; i < pushed; ++i) EXPECT_EQ(d[i].tag, i);
  EXPECT_THROW(d.push_front(*record), std::length_error);
  EXPECT_EQ(d.size(), pushed);
}

#if SIZE_MAX > 0xFFFFFFFFu
// Elements of 1 GiB leave room for three blocks, fewer than the map's smallest growth: the
// first growth must stop at the limit instead of passing it. (64-bit only: a 32-bit process
// has no room for the one record the test copies from.)
TEST(Xdeque, AMapLimitBelowTheSmallestGrowthHolds) {
  using Record = HugeRecordOf<size_t{1} << 30>;
  auto record = std::make_unique<Record>();
  std::xdeque<Record, 1, TagOnlyAllocator<Record>> d;
  uint32_t pushed = 0;
  try {
    for (; pushed < 100; ++pushed) {
      record->tag = pushed;
      d.push_back(*record);
    }
  } catch (const std::length_error&) {
  }
  EXPECT_EQ(pushed, d.max_map_size());  // one record a block, every slot used
  EXPECT_LE(d.map_size(), d.max_map_size());
  for (uint32_t i = 0; i < d.size(); ++i) EXPECT_EQ(d[i].tag, i);
}
#endif

}  // namespace
