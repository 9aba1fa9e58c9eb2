// SearchRuns against one standard search per key over the runs laid end to end, for every
// element type: ascending data full of duplicates, cut into runs of uneven length, and keys in
// random order (repeated, below, between, equal to and above the elements) in batches on both
// sides of the sizes where the search changes its method.
#include "src/core/batch_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "src/core/element_list.h"
#include "zu_data_manager/element_types.h"

namespace zu {
namespace {

// An element of value `v`. Records carry `v` in their highest bytes (which their order
// compares first) and `low` in byte 0, which their order ignores but Find's equality does not.
template <typename T>
T Make(uint64_t v, uint8_t /*low*/) {
  return static_cast<T>(v);
}
template <typename T>
T MakeRecord(uint64_t v, uint8_t low) {
  T r{};
  r.data[0] = low;
  for (int i = 0; i < 8; ++i) r.data[sizeof(T) - 8 + i] = static_cast<unsigned char>(v >> (8 * i));
  return r;
}
#define ZU_MAKE_RECORD(T)              \
  template <>                          \
  T Make<T>(uint64_t v, uint8_t low) { \
    return MakeRecord<T>(v, low);      \
  }
ZU_FOR_EACH_RECORD_TYPE(ZU_MAKE_RECORD)
#undef ZU_MAKE_RECORD

// The answer of one standard search over the whole sequence.
template <typename T>
uint64_t Expected(const std::vector<T>& all, ZuSearch search, const T& key) {
  const auto lower = std::lower_bound(all.begin(), all.end(), key);
  if (search == kZuSearchUpperBound) {
    return static_cast<uint64_t>(std::upper_bound(all.begin(), all.end(), key) - all.begin());
  }
  if (search == kZuSearchFind && (lower == all.end() || !(*lower == key))) return all.size();
  return static_cast<uint64_t>(lower - all.begin());
}

template <typename T>
class BatchSearch : public ::testing::Test {
 protected:
  // `n` ascending elements of values in [10, 10 + spread) (so many repeat), with a random
  // byte 0 where the type has one. The values of one byte stay below 220.
  void Fill(uint64_t n, uint64_t spread) {
    if (sizeof(T) == 1) spread = std::min<uint64_t>(spread, 200);
    std::vector<uint64_t> values(n);
    for (auto& v : values) v = 10 + random_() % spread;
    std::sort(values.begin(), values.end());
    all_.clear();
    for (uint64_t v : values) all_.push_back(Make<T>(v, static_cast<uint8_t>(random_() % 3)));
    spread_ = spread;
  }

  // Runs over all_ cut at `cuts` random places (0: one run), every run non-empty.
  std::vector<SortedRun<T>> Cut(size_t cuts) {
    std::vector<uint64_t> at = {0, all_.size()};
    for (size_t i = 0; i < cuts && all_.size() > 1; ++i)
      at.push_back(1 + random_() % (all_.size() - 1));
    std::sort(at.begin(), at.end());
    at.erase(std::unique(at.begin(), at.end()), at.end());
    std::vector<SortedRun<T>> runs;
    for (size_t i = 0; i + 1 < at.size(); ++i)
      runs.push_back({all_.data() + at[i], at[i], at[i + 1] - at[i]});
    return runs;
  }

  // `count` keys in random order: values from just below the smallest element to just above
  // the largest, each either an element's own (byte 0 included) or a fresh one.
  std::vector<T> Keys(uint64_t count) {
    std::vector<T> keys;
    for (uint64_t k = 0; k < count; ++k) {
      if (!all_.empty() && random_() % 2 == 0) {
        keys.push_back(all_[random_() % all_.size()]);
      } else {
        keys.push_back(Make<T>(8 + random_() % (spread_ + 4), static_cast<uint8_t>(random_() % 3)));
      }
    }
    return keys;
  }

  // Every search of `keys` over `runs` answers as the standard search of each key.
  void ExpectStandardAnswers(const std::vector<SortedRun<T>>& runs, const std::vector<T>& keys) {
    for (ZuSearch search : {kZuSearchLowerBound, kZuSearchUpperBound, kZuSearchFind}) {
      std::vector<uint64_t> out(keys.size(), ~uint64_t{0});
      SearchRuns(runs, search, keys.data(), keys.size(), out.data());
      for (size_t k = 0; k < keys.size(); ++k) {
        ASSERT_EQ(out[k], Expected(all_, search, keys[k]))
            << "search " << search << ", key " << k << " of " << keys.size() << ", " << runs.size()
            << " runs of " << all_.size() << " elements";
      }
    }
  }

  std::mt19937_64 random_{42};
  std::vector<T> all_;   // the runs laid end to end
  uint64_t spread_ = 1;  // distinct values the elements are drawn from
};

using ElementTypes =
    ::testing::Types<uint8_t, uint16_t, uint32_t, int64_t, SimpleBigData<16>, SimpleBigData<32>,
                     SimpleBigData<64>, SimpleBigData<128>, SimpleBigData<256>, SimpleBigData<512>>;
TYPED_TEST_SUITE(BatchSearch, ElementTypes);

// Batches in the order given, sorted ones, and sorted ones of several blocks, over one run
// and over many runs of uneven length (down to one element).
TYPED_TEST(BatchSearch, AnswersAsOneSearchPerKey) {
  const uint64_t sizes[] = {0,
                            1,
                            17,
                            batch::kMinSortedKeys - 1,
                            batch::kMinSortedKeys,
                            2 * batch::kBlockKeys + 3 * batch::kFanOut + 5};
  for (uint64_t n : {uint64_t{1}, uint64_t{9}, uint64_t{5000}}) {
    this->Fill(n, n < 100 ? 5 : 200);
    for (size_t cuts : {size_t{0}, size_t{3}, size_t{300}}) {
      const auto runs = this->Cut(cuts);
      for (uint64_t count : sizes) {
        SCOPED_TRACE(::testing::Message() << n << " elements, " << count << " keys");
        this->ExpectStandardAnswers(runs, this->Keys(count));
      }
    }
  }
}

// Data of one repeated value, and data far sparser than the keys (most keys share a window).
TYPED_TEST(BatchSearch, RepeatedAndSparseData) {
  this->Fill(3000, 1);
  this->ExpectStandardAnswers(this->Cut(2), this->Keys(batch::kBlockKeys + 1));
  this->Fill(40, 1000);
  this->ExpectStandardAnswers(this->Cut(0), this->Keys(batch::kBlockKeys * 3));
}

// No runs: every search answers 0, the total. Runs without elements among the others are
// passed over.
TYPED_TEST(BatchSearch, EmptyRuns) {
  this->Fill(0, 1);
  for (uint64_t count : {uint64_t{3}, batch::kMinSortedKeys}) {
    this->ExpectStandardAnswers({}, this->Keys(count));
  }
  this->Fill(600, 50);
  auto runs = this->Cut(4);
  runs.insert(runs.begin() + 2, SortedRun<TypeParam>{this->all_.data(), runs[2].first, 0});
  runs.push_back({this->all_.data(), this->all_.size(), 0});
  for (uint64_t count : {uint64_t{5}, batch::kMinSortedKeys + 1}) {
    this->ExpectStandardAnswers(runs, this->Keys(count));
  }
}

// A batch larger than one sort takes: searched in parts, each answer in its key's place.
TEST(BatchSearchParts, BatchLargerThanOneSort) {
  std::vector<int64_t> data(1000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<int64_t>(i / 3) * 2;
  std::mt19937_64 random(7);
  std::vector<int64_t> keys(batch::kMaxSortedKeys + 999);
  for (auto& k : keys) k = static_cast<int64_t>(random() % 800) - 50;
  std::vector<uint64_t> out(keys.size());
  SearchRuns<int64_t>({{data.data(), 0, data.size()}}, kZuSearchLowerBound, keys.data(),
                      keys.size(), out.data());
  for (size_t k = 0; k < keys.size(); ++k) {
    ASSERT_EQ(out[k], std::lower_bound(data.begin(), data.end(), keys[k]) - data.begin()) << k;
  }
}

// The sort the integer batches use: ascending, ties in the order given, every position once.
template <typename T>
void ExpectSorted(const std::vector<T>& keys) {
  std::vector<KeyAndPosition<T>> sorted(keys.size());
  RadixSortWithPositions(keys.data(), static_cast<uint32_t>(keys.size()), sorted.data());
  std::vector<uint32_t> order(keys.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](uint32_t a, uint32_t b) { return keys[a] < keys[b]; });
  for (size_t j = 0; j < order.size(); ++j) {
    ASSERT_EQ(sorted[j].position, order[j]) << j;
    ASSERT_EQ(sorted[j].key, keys[order[j]]) << j;
  }
}

// Signed keys (negative ones first, the extremes included) in few large buckets, keys skewed
// towards zero, so that buckets range from one key to thousands, and keys all the same.
TEST(RadixSort, SortsKeysWithTheirPositions) {
  std::mt19937_64 random(3);
  std::vector<int64_t> signed_keys(5000);
  for (auto& k : signed_keys) {
    k = static_cast<int64_t>(random() % 64) * (int64_t{1} << 40) - (int64_t{1} << 45);
  }
  signed_keys[17] = INT64_MIN;
  signed_keys[18] = INT64_MAX;
  ExpectSorted(signed_keys);
  std::vector<uint32_t> skewed_keys(5000);
  for (auto& k : skewed_keys) k = static_cast<uint32_t>(random() % (1 + random() % (1u << 26)));
  ExpectSorted(skewed_keys);
  ExpectSorted(std::vector<uint16_t>(100, 7));
}

}  // namespace
}  // namespace zu
