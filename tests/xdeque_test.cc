#include "src/memory/xdeque.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

constexpr unsigned int kSmallBlock = 4;
using SmallDeque = std::xdeque<uint32_t, kSmallBlock>;

template <typename D, typename Model>
void ExpectSame(const D& d, const Model& model) {
  ASSERT_EQ(d.size(), model.size());
  for (uint32_t i = 0; i < d.size(); ++i) ASSERT_EQ(d[i], model[i]) << "index " << i;
  ASSERT_TRUE(std::equal(d.begin(), d.end(), model.begin(), model.end()));
}

// Counts live objects, so that a missed destruction or a double one shows up.
struct Tracked {
  static int live;
  explicit Tracked(int v) : value(std::make_unique<int>(v)) { ++live; }
  Tracked(const Tracked& o) : value(std::make_unique<int>(*o.value)) { ++live; }
  Tracked& operator=(const Tracked& o) {
    *value = *o.value;
    return *this;
  }
  ~Tracked() { --live; }
  std::unique_ptr<int> value;
};
int Tracked::live = 0;

TEST(Xdeque, BlockBoundariesOfAByteDeque) {
  constexpr uint32_t kBlock = 0x100000;
  std::xdeque<uint8_t, kBlock> d;
  d.push_back(7);
  EXPECT_EQ(d.map_size(), 8u);
  EXPECT_TRUE(d.has_block(0));
  EXPECT_FALSE(d.has_block(1));
  std::vector<uint8_t> bytes(kBlock - 1);
  for (uint32_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31);
  d.insert(d.end(), bytes.data(), bytes.data() + bytes.size());
  ASSERT_EQ(d.size(), kBlock);
  EXPECT_FALSE(d.has_block(1));
  d.push_back(0xAB);
  EXPECT_TRUE(d.has_block(1));
  EXPECT_EQ(d[kBlock], 0xAB);
  EXPECT_EQ(*(d.begin() + kBlock), 0xAB);
  EXPECT_EQ(d[kBlock - 1], bytes.back());
  EXPECT_EQ(d[0], 7);
  std::vector<uint8_t> out(3);
  d.copy_out(kBlock - 2, 3, out.data());
  EXPECT_EQ(out, (std::vector<uint8_t>{bytes[kBlock - 3], bytes[kBlock - 2], 0xAB}));
}

TEST(Xdeque, FrontPushPopAndClearKeepTheRingRules) {
  SmallDeque d;
  d.push_front(5);
  EXPECT_EQ(d.map_size(), 8u);
  EXPECT_EQ(d.first_position(), 8 * kSmallBlock - 1);
  EXPECT_TRUE(d.has_block(7));
  EXPECT_EQ(d.front(), 5u);
  d.push_back(6);
  EXPECT_EQ(d.back(), 6u);
  EXPECT_TRUE(d.has_block(0));
  d.pop_front();
  d.pop_back();
  EXPECT_TRUE(d.empty());
  EXPECT_EQ(d.first_position(), 0u);
  EXPECT_TRUE(d.has_block(0) && d.has_block(7));  // popping keeps blocks
  d.pop_back();                                   // popping an empty deque does nothing
  EXPECT_EQ(d.size(), 0u);
  d.push_back(1);
  d.clear();
  EXPECT_EQ(d.map_size(), 0u);
  EXPECT_FALSE(d.has_block(0));
  d.push_back(2);
  EXPECT_EQ(d.map_size(), 8u);
  EXPECT_EQ(d[0], 2u);
}

// Random pushes and pops at both ends grow the map while the ring has wrapped (in both
// branches of the slot relocation); every element must keep its index.
TEST(Xdeque, GrowthKeepsIndexesWhenTheRingHasWrapped) {
  std::mt19937 rng(42);
  for (int round = 0; round < 20; ++round) {
    SmallDeque d;
    std::deque<uint32_t> model;
    uint32_t last_map = 0;
    int growths = 0;
    for (uint32_t step = 0; step < 3000; ++step) {
      int op = static_cast<int>(rng() % 10);
      if (op < 4) {
        d.push_front(step);
        model.push_front(step);
      } else if (op < 8) {
        d.push_back(step);
        model.push_back(step);
      } else if (op == 8 && !model.empty()) {
        d.pop_front();
        model.pop_front();
      } else if (!model.empty()) {
        d.pop_back();
        model.pop_back();
      }
      if (d.map_size() != last_map) {
        ++growths;
        last_map = d.map_size();
        ExpectSame(d, model);
      }
      if (d.map_size() != 0) {
        ASSERT_LT(d.first_position(), d.map_size() * kSmallBlock);
      }
    }
    ExpectSame(d, model);
    EXPECT_GT(growths, 3);
  }
}

TEST(Xdeque, RangeInsertAndEraseMatchAStandardDeque) {
  std::mt19937 rng(7);
  for (int round = 0; round < 200; ++round) {
    SmallDeque d;
    std::deque<uint32_t> model;
    for (int step = 0; step < 12; ++step) {
      std::vector<uint32_t> src(rng() % 11);
      std::iota(src.begin(), src.end(), static_cast<uint32_t>(step * 100));
      uint32_t where = model.empty() ? 0 : static_cast<uint32_t>(rng() % (model.size() + 1));
      if (rng() % 2 == 0) {
        d.insert(d.begin() + where, src.data(), src.data() + src.size());
      } else {
        // Any other iterator takes the element-wise path.
        d.insert(d.begin() + where, src.begin(), src.end());
      }
      model.insert(model.begin() + where, src.begin(), src.end());
      ExpectSame(d, model);
      if (!model.empty() && rng() % 3 == 0) {
        uint32_t a = static_cast<uint32_t>(rng() % model.size());
        uint32_t b = a + static_cast<uint32_t>(rng() % (model.size() - a + 1));
        d.erase(d.begin() + a, d.begin() + b);
        model.erase(model.begin() + a, model.begin() + b);
        ExpectSame(d, model);
      }
    }
  }
  // Erasing everything keeps the blocks and resets the first position.
  SmallDeque d;
  for (uint32_t i = 0; i < 20; ++i) d.push_front(i);
  d.erase(d.begin(), d.end());
  EXPECT_EQ(d.size(), 0u);
  EXPECT_EQ(d.first_position(), 0u);
  EXPECT_NE(d.map_size(), 0u);
}

TEST(Xdeque, IteratorsServeStandardAlgorithms) {
  SmallDeque d;
  for (uint32_t i = 0; i < 50; ++i) d.push_front(i * 3 % 50);
  static_assert(std::is_same<std::iterator_traits<SmallDeque::iterator>::iterator_category,
                             std::random_access_iterator_tag>::value,
                "random access");
  std::sort(d.begin(), d.end());
  EXPECT_TRUE(std::is_sorted(d.cbegin(), d.cend()));
  auto it = std::lower_bound(d.begin(), d.end(), 17u);
  EXPECT_EQ(it - d.begin(), 17);
  EXPECT_EQ(*(it + uint64_t{3}), 20u);
  EXPECT_EQ(*(it - 2), 15u);
  EXPECT_EQ(*(it + int8_t{-1}), 16u);
  EXPECT_EQ(it[size_t{2}], 19u);
  EXPECT_EQ(d.end() - d.begin(), 50);
  EXPECT_LT(d.begin(), d.end());
  SmallDeque::const_iterator c = it;
  EXPECT_EQ(*c, 17u);
}

// Elements with their own resources: every construction is matched by one destruction.
TEST(Xdeque, NonTrivialElementsAreConstructedAndDestroyed) {
  {
    std::xdeque<Tracked, kSmallBlock> d;
    for (int i = 0; i < 30; ++i) {
      d.push_back(Tracked(i));
      d.push_front(Tracked(-i));
    }
    EXPECT_EQ(Tracked::live, 60);
    d.pop_front();
    d.pop_back();
    d.erase(d.begin() + 3, d.begin() + 10);
    EXPECT_EQ(Tracked::live, 51);
    std::vector<Tracked> more;
    for (int i = 0; i < 9; ++i) more.emplace_back(1000 + i);
    d.insert(d.begin() + 40, more.data(), more.data() + more.size());
    d.insert(d.begin() + 2, more.begin(), more.end());
    EXPECT_EQ(Tracked::live, 51 + 9 + 18);
    EXPECT_EQ(*d[40 + 9].value, 1000);
    EXPECT_EQ(*d[2].value, 1000);
    std::xdeque<Tracked, kSmallBlock> copy = d;
    EXPECT_EQ(*copy[2].value, 1000);
    copy.clear();
  }
  EXPECT_EQ(Tracked::live, 0);
  std::xdeque<std::vector<int>, 1024> samples;
  for (int i = 0; i < 3000; ++i) samples.push_back(std::vector<int>(4, i));
  samples.erase(samples.begin(), samples.begin() + 1000);
  EXPECT_EQ(samples[0][3], 1000);
}

// The deque remembers where the next back push goes; every other change of the first
// position or the size must make it look again. Runs of back pushes after each kind of
// change must land where a standard deque puts them.
TEST(Xdeque, BackPushesAfterEveryOtherChangeMatchAStandardDeque) {
  std::mt19937 rng(2024);
  for (int round = 0; round < 40; ++round) {
    SmallDeque d;
    std::deque<uint32_t> model;
    uint32_t next = 0;
    for (int step = 0; step < 150; ++step) {
      uint32_t run = static_cast<uint32_t>(rng() % 9);
      for (uint32_t i = 0; i < run; ++i, ++next) {
        d.push_back(next);
        model.push_back(next);
      }
      ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
      uint32_t size = static_cast<uint32_t>(model.size());
      switch (rng() % 9) {
        case 0:
          if (size != 0) {
            d.pop_back();
            model.pop_back();
          }
          break;
        case 1:
          while (!model.empty() && rng() % 4 != 0) {  // sometimes down to empty
            d.pop_front();
            model.pop_front();
          }
          break;
        case 2:
          d.push_front(++next);
          model.push_front(next);
          break;
        case 3: {
          uint32_t a = size == 0 ? 0 : static_cast<uint32_t>(rng() % size);
          uint32_t b = a + static_cast<uint32_t>(rng() % (size - a + 1));
          d.erase(d.begin() + a, d.begin() + b);
          model.erase(model.begin() + a, model.begin() + b);
          break;
        }
        case 4: {
          std::vector<uint32_t> src(rng() % 7, ++next);
          uint32_t where = static_cast<uint32_t>(rng() % (size + 1));
          d.insert(d.begin() + where, src.data(), src.data() + src.size());
          model.insert(model.begin() + where, src.begin(), src.end());
          break;
        }
        case 5: {
          std::vector<uint32_t> src(rng() % 7, ++next);
          uint32_t where = static_cast<uint32_t>(rng() % (size + 1));
          d.insert(d.begin() + where, src.begin(), src.end());
          model.insert(model.begin() + where, src.begin(), src.end());
          break;
        }
        case 6:
          if (rng() % 4 == 0) {
            d.clear();
            model.clear();
          }
          break;
        case 7: {
          // Swapping exchanges the remembered places too; the other deque pushes as well.
          SmallDeque other;
          for (uint32_t i = 0; i < 6; ++i) other.push_back(1000 + i);
          d.swap(other);
          other.push_back(++next);
          model.push_back(next);
          ASSERT_NO_FATAL_FAILURE(ExpectSame(other, model));
          d.push_back(1006);
          ASSERT_NO_FATAL_FAILURE(
              ExpectSame(d, std::vector<uint32_t>{1000, 1001, 1002, 1003, 1004, 1005, 1006}));
          d = std::move(other);
          break;
        }
        default: {
          // A copy finds its own place; the original keeps its own.
          SmallDeque copy = d;
          copy.push_back(7777);
          d.push_back(++next);
          model.push_back(next);
          ASSERT_EQ(copy.size(), d.size());
          ASSERT_EQ(copy.back(), 7777u);
          d = copy;
          model.back() = 7777;
          break;
        }
      }
      ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
    }
  }
}

// try_push_back pushes only into the remembered place of a block and never allocates; where
// it refuses, push_back goes on, and both leave the elements a standard deque would hold.
TEST(Xdeque, TryPushBackFillsOnlyTheRememberedBlock) {
  SmallDeque d;
  std::deque<uint32_t> model;
  EXPECT_FALSE(d.try_push_back(1));  // nothing remembered: no map, no block
  EXPECT_EQ(d.size(), 0u);
  EXPECT_EQ(d.map_size(), 0u);
  d.push_back(0);
  model.push_back(0);
  for (uint32_t i = 1; i < kSmallBlock; ++i) {
    EXPECT_TRUE(d.try_push_back(i));
    model.push_back(i);
  }
  EXPECT_FALSE(d.try_push_back(99)) << "the block is full";
  EXPECT_FALSE(d.has_block(1));
  d.push_back(kSmallBlock);
  model.push_back(kSmallBlock);
  EXPECT_TRUE(d.has_block(1));
  EXPECT_TRUE(d.try_push_back(kSmallBlock + 1));
  model.push_back(kSmallBlock + 1);
  d.pop_back();
  model.pop_back();
  EXPECT_FALSE(d.try_push_back(98)) << "a pop forgets the place";
  d.push_back(7);
  model.push_back(7);
  EXPECT_TRUE(d.try_push_back(8));
  model.push_back(8);
  ExpectSame(d, model);
}

// Copying fails when the countdown reaches zero (negative: never).
struct ThrowingCopy {
  static int countdown;
  explicit ThrowingCopy(uint32_t v) : value(v) {}
  ThrowingCopy(const ThrowingCopy& o) : value(o.value) {
    if (countdown >= 0 && countdown-- == 0) throw std::runtime_error("copy refused");
  }
  ThrowingCopy& operator=(const ThrowingCopy&) = default;
  uint32_t value;
};
int ThrowingCopy::countdown = -1;

// Allocations fail while the budget is zero (negative: never).
int g_allocation_budget = -1;
template <typename T>
struct BudgetAllocator {
  using value_type = T;
  BudgetAllocator() = default;
  template <typename U>
  BudgetAllocator(const BudgetAllocator<U>&) {}  // NOLINT(runtime/explicit)
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
    std::xdeque<ThrowingCopy, kSmallBlock> d;
    for (uint32_t i = 0; i < fail_at; ++i) d.push_back(ThrowingCopy(i));
    ThrowingCopy::countdown = 0;
    EXPECT_THROW(d.push_back(ThrowingCopy(999)), std::runtime_error) << fail_at;
    ThrowingCopy::countdown = -1;
    ASSERT_EQ(d.size(), fail_at);
    for (uint32_t i = fail_at; i < fail_at + 10; ++i) d.push_back(ThrowingCopy(i));
    ASSERT_EQ(d.size(), fail_at + 10);
    for (uint32_t i = 0; i < d.size(); ++i) ASSERT_EQ(d[i].value, i) << fail_at;
  }

  // Blocks and maps from a failing allocator: 4 elements per block, 8 slots per first map.
  for (int budget : {0, 1, 2, 5, 9}) {
    std::xdeque<uint32_t, kSmallBlock, BudgetAllocator<uint32_t>> d;
    std::vector<uint32_t> model;
    g_allocation_budget = budget;
    bool failed = false;
    for (uint32_t i = 0; i < 100 && !failed; ++i) {
      try {
        d.push_back(i);
        model.push_back(i);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
    g_allocation_budget = -1;
    ASSERT_TRUE(failed) << budget;
    ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
    for (uint32_t i = 0; i < 40; ++i) {
      d.push_back(500 + i);
      model.push_back(500 + i);
    }
    ASSERT_NO_FATAL_FAILURE(ExpectSame(d, model));
  }
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

// Gives each block of records room for the tag alone: the limit is 2^32 - 1 bytes of elements,
// more than a 32-bit process can address. The map itself gets its real size.
template <typename T>
struct TagOnlyAllocator {
  using value_type = T;
  TagOnlyAllocator() = default;
  template <typename U>
  TagOnlyAllocator(const TagOnlyAllocator<U>&) {}
  T* allocate(size_t n) {
    const size_t each = std::is_same<T, HugeRecord>::value ? sizeof(uint64_t) : sizeof(T);
    return static_cast<T*>(::operator new(n * each));
  }
  void deallocate(T* p, size_t) { ::operator delete(p); }
  bool operator==(const TagOnlyAllocator&) const { return true; }
  bool operator!=(const TagOnlyAllocator&) const { return false; }
};

TEST(Xdeque, MapLimitRaisesLengthErrorAndKeepsContents) {
  using Huge = std::xdeque<HugeRecord, 1, TagOnlyAllocator<HugeRecord>>;
  static_assert(Huge::max_map_size() == 0xFFFFFFFFull / kHugeRecordBytes, "limit from size");
  auto record = std::unique_ptr<HugeRecord>(new HugeRecord);
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
  EXPECT_EQ(d.map_size(), Huge::max_map_size());
  ASSERT_EQ(d.size(), pushed);
  // The ring grows one block before it closes, so a full map holds one block less.
  EXPECT_EQ(pushed, Huge::max_map_size() - 1);
  for (uint32_t i = 0; i < pushed; ++i) EXPECT_EQ(d[i].tag, i);
  EXPECT_THROW(d.push_front(*record), std::length_error);
  EXPECT_EQ(d.size(), pushed);

  // The limits of the block sizes the library uses.
  EXPECT_EQ((std::xdeque<uint8_t, 0x100000>::max_map_size()), 4095u);
  EXPECT_EQ((std::xdeque<int64_t, 0x20000>::max_map_size()), 4095u);
  EXPECT_EQ((std::xdeque<uint8_t, 0x4000>::max_map_size()), 262143u);
  EXPECT_EQ((std::xdeque<uint32_t, 0x4000>::max_map_size()), 65535u);
}

}  // namespace
