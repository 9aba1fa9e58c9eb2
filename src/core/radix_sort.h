// A least-significant-digit radix sort of integer keys that carries each key's position along:
// the batched searches sort a batch of keys this way, search in key order, and write each
// answer back to its key's position. A comparison sort of a million (key, position) pairs
// costs several times a search of the whole batch; this sort moves each pair once per byte
// that tells keys apart (bytes every key shares are skipped), so keys drawn from a range of
// 2^28 values take four passes whatever their type.
#ifndef ZU_CORE_RADIX_SORT_H_
#define ZU_CORE_RADIX_SORT_H_

#include <array>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace zu {

// A key of the batch and where the caller passed it.
template <typename T>
struct KeyAndPosition {
  T key;
  uint32_t position;  // index into the caller's keys
};

// The unsigned number whose order is the key's order: signed keys have their sign bit flipped,
// so that negative keys come first.
template <typename T>
std::make_unsigned_t<T> RadixImage(T key) {
  using U = std::make_unsigned_t<T>;
  if constexpr (std::is_signed<T>::value) {
    return static_cast<U>(static_cast<U>(key) ^ (U{1} << (8 * sizeof(T) - 1)));
  } else {
    return key;
  }
}

// Sorts keys[0, count) into *sorted in ascending order, equal keys in the order given, each
// with its position; *scratch is a second buffer of the same length that the passes take
// turns with. Allocates the two buffers of `count` pairs and nothing else.
template <typename T>
void RadixSortWithPositions(const T* keys, uint32_t count, std::vector<KeyAndPosition<T>>* sorted,
                            std::vector<KeyAndPosition<T>>* scratch) {
  static_assert(std::is_integral<T>::value, "radix keys are integers");
  constexpr int kDigits = sizeof(T);
  constexpr int kBuckets = 256;
  sorted->resize(count);
  scratch->resize(count);
  if (count == 0) return;

  // Every digit's histogram in one read of the keys.
  std::vector<std::array<uint32_t, kBuckets>> counts(kDigits);
  for (uint32_t i = 0; i < count; ++i) {
    const auto image = RadixImage(keys[i]);
    for (int d = 0; d < kDigits; ++d) ++counts[d][(image >> (8 * d)) & 0xFF];
  }

  // The passes write into the buffer that ends up in *sorted: count them first.
  const auto first_image = RadixImage(keys[0]);
  std::array<bool, kDigits> telling{};
  int passes = 0;
  for (int d = 0; d < kDigits; ++d) {
    telling[d] = counts[d][(first_image >> (8 * d)) & 0xFF] != count;
    passes += telling[d] ? 1 : 0;
  }
  if (passes == 0) {  // all keys are equal: they stay in the order given
    for (uint32_t i = 0; i < count; ++i) (*sorted)[i] = {keys[i], i};
    return;
  }
  KeyAndPosition<T>* to = (passes % 2 == 1 ? sorted : scratch)->data();
  KeyAndPosition<T>* spare = (passes % 2 == 1 ? scratch : sorted)->data();

  bool first_pass = true;
  for (int d = 0; d < kDigits; ++d) {
    if (!telling[d]) continue;
    std::array<uint32_t, kBuckets> next;  // where the next pair of each bucket goes
    uint32_t sum = 0;
    for (int b = 0; b < kBuckets; ++b) {
      next[b] = sum;
      sum += counts[d][b];
    }
    const int shift = 8 * d;
    if (first_pass) {  // the first pass pairs each key with its position
      for (uint32_t i = 0; i < count; ++i) {
        to[next[(RadixImage(keys[i]) >> shift) & 0xFF]++] = {keys[i], i};
      }
      first_pass = false;
    } else {
      for (uint32_t i = 0; i < count; ++i) {
        const KeyAndPosition<T>& p = spare[i];
        to[next[(RadixImage(p.key) >> shift) & 0xFF]++] = p;
      }
    }
    std::swap(to, spare);
  }
}

}  // namespace zu

#endif  // ZU_CORE_RADIX_SORT_H_
