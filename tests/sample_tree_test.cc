// SampleTree against the bisections the segments have always searched their samples with:
// random sample runs (ascending, then disturbed by overwrites) and random values, over small
// shapes so that every level and every partial node is crossed.
#include "src/file/sample_tree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "src/core/bisect.h"
#include "zu_data_manager/element_types.h"

namespace zu {
namespace {

template <typename T>
T Make(uint64_t key) {
  return static_cast<T>(key);
}
template <>
SimpleBigData<16> Make<SimpleBigData<16>>(uint64_t key) {
  SimpleBigData<16> r{};
  for (int i = 0; i < 8; ++i) r.data[1 + i] = static_cast<unsigned char>(key >> (8 * i));
  return r;
}

// The answers of the plain bisections over the same samples: boundaries first, then the
// chosen chunk's samples (lower), or the chunk alone (upper, as its file data are searched).
template <typename T>
struct Reference {
  explicit Reference(const SampleTree<T>& t) : tree(t) {
    for (uint64_t k = 0; k < t.chunks(); ++k) boundaries.push_back(t.boundary(k));
  }
  bool Lower(const T& v, uint64_t* chunk, uint64_t* entry) const {
    auto at = [this](uint64_t i) -> const T& { return boundaries[i]; };
    const uint64_t b = BisectLower(boundaries.size(), v, at);
    if (b == 0) return false;
    const T* samples = tree.chunk(b - 1);
    *chunk = b - 1;
    *entry = BisectLower(tree.chunk_size(b - 1), v, [samples](uint64_t i) { return samples[i]; });
    return true;
  }
  bool UpperChunk(const T& v, uint64_t* chunk) const {
    auto at = [this](uint64_t i) -> const T& { return boundaries[i]; };
    const uint64_t b = BisectUpper(boundaries.size(), v, at);
    if (b == 0) return false;
    *chunk = b - 1;
    return true;
  }
  const SampleTree<T>& tree;
  std::vector<T> boundaries;
};

template <typename T>
void CheckShapes(uint64_t max_key) {
  std::mt19937_64 random(29);
  for (uint64_t per_chunk : {1, 2, 16, 64}) {
    for (int round = 0; round < 12; ++round) {
      SampleTree<T> tree(per_chunk);
      const uint64_t n = random() % (per_chunk * 40 + 3);
      std::vector<T> plain;
      uint64_t key = random() % 4;
      for (uint64_t i = 0; i < n; ++i) {
        key = std::min(max_key, key + random() % 3);
        tree.Append(Make<T>(key));
        plain.push_back(Make<T>(key));
      }
      // Half the rounds overwrite samples with random values, some of which are put back:
      // the tree must notice the order going and coming back.
      const int overwrites = round % 2 == 0 || n == 0 ? 0 : 1 + static_cast<int>(random() % 3);
      for (int o = 0; o < overwrites; ++o) {
        const uint64_t i = random() % n;
        tree.Set(i, Make<T>(random() % (max_key + 1)));
        if (random() % 2 == 0) plain[i] = Make<T>(random() % (max_key + 1));
        tree.Set(i, plain[i]);
      }
      bool ascending = true;
      for (uint64_t i = 1; i < n; ++i) ascending = ascending && !(plain[i] < plain[i - 1]);
      ASSERT_EQ(tree.ascending(), ascending);
      ASSERT_EQ(tree.size(), n);
      for (uint64_t i = 0; i < n; ++i) ASSERT_TRUE(tree[i] == plain[i]) << i;
      const Reference<T> ref(tree);
      for (int probe = 0; probe < 200; ++probe) {
        const T v = Make<T>(random() % (max_key + 3));
        uint64_t chunk = 7, entry = 7, want_chunk = 9, want_entry = 9;
        const bool found = tree.LocateLower(v, &chunk, &entry);
        ASSERT_EQ(found, ref.Lower(v, &want_chunk, &want_entry));
        if (found) {
          ASSERT_EQ(chunk, want_chunk);
          ASSERT_EQ(entry, want_entry);
        }
        const bool upper = tree.LocateUpper(v, &chunk, &entry);
        ASSERT_EQ(upper, ref.UpperChunk(v, &want_chunk));
        if (!upper) continue;
        ASSERT_EQ(chunk, want_chunk);
        if (!ascending) {
          ASSERT_EQ(entry, SampleTree<T>::kUnknown);
          continue;
        }
        const T* samples = tree.chunk(chunk);
        ASSERT_EQ(entry, BisectUpper(tree.chunk_size(chunk), v,
                                     [samples](uint64_t i) { return samples[i]; }));
      }
    }
  }
}

TEST(SampleTree, AnswersAsThePlainBisectionsDo) {
  CheckShapes<uint8_t>(255);
  CheckShapes<int64_t>(1000);
  CheckShapes<SimpleBigData<16>>(1000);
}

// A whole segment's samples (128 MiB of data, one sample per 4 KiB page) take at most 10% more
// memory than the samples themselves.
template <typename T>
void CheckMemory() {
  SampleTree<T> tree(256);
  const uint64_t samples = uint64_t{1} << 15;
  for (uint64_t i = 0; i < samples; ++i) tree.Append(Make<T>(i));
  EXPECT_LE(tree.HeldBytes(), samples * sizeof(T) * 11 / 10) << sizeof(T);
}

TEST(SampleTree, HoldsAtMostATenthMoreThanItsSamples) {
  CheckMemory<uint8_t>();
  CheckMemory<uint16_t>();
  CheckMemory<int64_t>();
  CheckMemory<SimpleBigData<16>>();
}

// The page search probes the same positions as the plain bisections, so it gives their
// answers on any data, in order or not.
TEST(SampleTree, PageSearchProbesAsThePlainBisectionDoes) {
  std::mt19937_64 random(31);
  for (int round = 0; round < 300; ++round) {
    std::vector<int64_t> data(random() % 1200);
    for (auto& x : data) x = static_cast<int64_t>(random() % 50);
    if (round % 2 == 0) std::sort(data.begin(), data.end());
    const auto v = static_cast<int64_t>(random() % 52);
    auto at = [&data](uint64_t i) { return data[i]; };
    ASSERT_EQ(PageLower(data.data(), data.size(), v), BisectLower(data.size(), v, at));
    ASSERT_EQ(PageUpper(data.data(), data.size(), v), BisectUpper(data.size(), v, at));
  }
}

}  // namespace
}  // namespace zu
