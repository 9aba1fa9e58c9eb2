// std::xdeque against std::deque: random operations at both ends and in the middle over small
// blocks (so that the ring wraps and the map grows in every state), for a plain element type
// and one that counts its constructions; failing copies and allocations; the map limit.
#include "src/memory/xdeque.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

constexpr unsigned int kBlock = 4;

// Counts live objects (a missed or doubled destruction shows), and refuses to be copied when
// the countdown reaches zero (negative: never).
struct Tracked {
  static int live;
  static int countdown;
  explicit Tracked(uint32_t v = 0) : value(std::make_unique<uint32_t>(v)) { ++live; }
  Tracked(const Tracked& o) : value(std::make_unique<uint32_t>(*o.value)) {
    if (countdown >= 0 && countdown-- == 0) throw std::runtime_error("copy refused");
    ++live;
  }
  Tracked& operator=(const Tracked& o) {
    *value = *o.value;
    return *this;
  }
  ~Tracked() { live -= value != nullptr; }
  bool operator==(const Tracked& o) const { return *value == *o.value; }
  std::unique_ptr<uint32_t> value;
};
int Tracked::live = 0;
int Tracked::countdown = -1;

template <typename D, typename Model>
void ExpectSame(const D& d, const Model& model) {
  ASSERT_EQ(d.size(), model.size());
  for (uint32_t i = 0; i < d.size(); ++i) ASSERT_TRUE(d[i] == model[i]) << "index " << i;
  ASSERT_TRUE(std::equal(d.begin(), d.end(), model.begin(), model.end()));
}

template <typename T>
void RandomOperationsMatchAStandardDeque() {
  using Deque = std::xdeque<T, kBlock>;
  std::mt19937 rng(2024);
  uint32_t next = 0, growths = 0;
  for (int round = 0; round < 40; ++round) {
    Deque d;
    std::deque<T> model;
    for (int step = 0; step < 300; ++step) {
      const uint32_t size = static_cast<uint32_t>(model.size()), map = d.map_size();
      const uint32_t a = rng() % (size + 1), b = a + rng() % (size - a + 1);
      std::vector<T> src;
      for (uint32_t i = rng() % 7; i > 0; --i) src.emplace_back(++next);
      switch (rng() % 12) {
        case 0:
        case 1:
        case 2:  // runs of back pushes, tried without allocating first
          for (const T& v : src) {
            if (!d.try_push_back(v)) d.push_back(v);
            model.push_back(v);
          }
          break;
        case 3:
          d.push_front(T(++next));
          model.push_front(T(next));
          break;
        case 4:
          if (size > 0) d.pop_front(), model.pop_front();
          break;
        case 5:
          d.pop_back();  // popping an empty deque does nothing
          if (size > 0) model.pop_back();
          break;
        case 6:  // contiguous source: the bulk path
          d.insert(d.begin() + a, src.data(), src.data() + src.size());
          model.insert(model.begin() + a, src.begin(), src.end());
          break;
        case 7:  // any other iterator: element by element
          d.insert(d.begin() + a, src.begin(), src.end());
          model.insert(model.begin() + a, src.begin(), src.end());
          break;
        case 8:
          d.erase(d.begin() + a, d.begin() + b);
          model.erase(model.begin() + a, model.begin() + b);
          break;
        case 9:
          if (rng() % 4 == 0) d.clear(), model.clear();
          break;
        case 10: {  // a swap exchanges everything, the place of the next back push too
          Deque other;
          other.push_back(T(1000));
          d.swap(other);
          d.push_back(T(1001));
          ASSERT_NO_FATAL_FAILURE(ExpectSame(d, std::vector<T>{T(1000), T(1001)}));
          other.push_back(T(++next));
          d = std::move(other);
          model.push_back(T(next));
          break;
        }
        default: {  // a copy finds its own place; the original keeps its own
          Deque copy = d;
          copy.push_back(T(7777));
          d.push_back(T(++next));
          ASSERT_TRUE(copy.back() == T(7777));
          d = copy;
          model.push_back(T(7777));
          break;
        }
      }
      growths += d.map_size() > map && map > 0;
      ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
      if (model.size() > 2) {  // a copy of three elements anywhere
        const uint32_t from = a % (model.size() - 2);
        std::vector<T> out(3);
        d.copy_out(from, 3, out.data());
        for (uint32_t i = 0; i < 3; ++i) ASSERT_TRUE(out[i] == model[from + i]);
      }
    }
  }
  EXPECT_GT(growths, 20u) << "the map grew too seldom to test its growth";
}

TEST(Xdeque, RandomOperationsMatchAStandardDeque) {
  RandomOperationsMatchAStandardDeque<uint32_t>();
  RandomOperationsMatchAStandardDeque<Tracked>();
  EXPECT_EQ(Tracked::live, 0);
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

// A back push that fails (in the element's copy, for its block, or for a larger map) changes
// nothing, and the next one goes to the place the failed one would have taken.
TEST(Xdeque, FailedBackPushesLeaveThePlaceOfTheNextOne) {
  for (uint32_t fail_at : {0u, 1u, 3u, 4u, 5u, 31u, 32u, 33u}) {
    std::xdeque<Tracked, kBlock> d;
    for (uint32_t i = 0; i < fail_at; ++i) d.push_back(Tracked(i));
    Tracked::countdown = 0;
    EXPECT_THROW(d.push_back(Tracked(999)), std::runtime_error) << fail_at;
    Tracked::countdown = -1;
    for (uint32_t i = fail_at; i < fail_at + 10; ++i) d.push_back(Tracked(i));
    ASSERT_EQ(d.size(), fail_at + 10);
    for (uint32_t i = 0; i < d.size(); ++i) ASSERT_EQ(*d[i].value, i) << fail_at;
  }
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
  EXPECT_EQ(Tracked::live, 0);
}

// A record whose copy touches only its tag: the map limit of a huge element type is reached
// with few elements and little resident memory.
constexpr size_t kHugeRecordBytes = size_t{1} << 26;
struct HugeRecord {
  HugeRecord() {}
  HugeRecord(const HugeRecord& o) : tag(o.tag) {}
  uint32_t tag = 0;
  unsigned char payload[kHugeRecordBytes - sizeof(uint32_t)];
};

TEST(Xdeque, MapLimitRaisesLengthErrorAndKeepsContents) {
  using Huge = std::xdeque<HugeRecord, 1>;
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

}  // namespace
