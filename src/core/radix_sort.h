// A radix sort of integer keys that carries each key's position along: the batched searches
// sort a batch of keys this way, search in key order, and write each answer back to its key's
// position. A comparison sort of a million (key, position) pairs costs several times a search
// of the whole batch. Here one pass deals the pairs into buckets by the highest bits that tell
// the keys apart; each bucket, small enough for the first-level cache, is then sorted by its
// remaining bits (byte by byte, skipping the bytes its keys share) where it lies. Only one
// pass moves the pairs through memory, and the sort needs no second buffer of the batch's
// size.
#ifndef ZU_CORE_RADIX_SORT_H_
#define ZU_CORE_RADIX_SORT_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace zu {

// A key of the batch and where the caller passed it.
template <typename T>
struct KeyAndPosition {
  T key;
  uint32_t position;  // index into the caller's keys
};

namespace radix {

// The unsigned number whose order is the key's order: signed keys have their sign bit flipped,
// so that negative keys come first.
template <typename T>
std::make_unsigned_t<T> Image(T key) {
  using U = std::make_unsigned_t<T>;
  if constexpr (std::is_signed<T>::value) {
    return static_cast<U>(static_cast<U>(key) ^ (U{1} << (8 * sizeof(T) - 1)));
  } else {
    return key;
  }
}

// The first pass deals into at most 2^kMaxTopBits buckets: with a million keys a bucket holds
// some hundreds, a few KiB.
constexpr int kMaxTopBits = 11;
// Parts up to this size are sorted by insertion: cheaper than dealing them once more.
constexpr size_t kInsertionSort = 32;
// Up to this many bits a part is sorted byte by byte from the lowest (each byte one pass over
// the part, which stays in the first-level cache); above, it is dealt by its highest byte
// first and each smaller part sorted on its own, which spares the passes over bytes that only
// tell apart keys of different parts.
constexpr int kLowestFirstBits = 24;

template <typename T>
void InsertionSort(KeyAndPosition<T>* pairs, size_t count) {
  for (size_t i = 1; i < count; ++i) {
    const KeyAndPosition<T> p = pairs[i];
    size_t j = i;
    for (; j > 0 && Image(pairs[j - 1].key) > Image(p.key); --j) pairs[j] = pairs[j - 1];
    pairs[j] = p;
  }
}

// Deals pairs[0, count) by the byte of their images at `shift` into spare, stably; `start`
// receives where each of the 256 parts begins, and start[256] == count.
template <typename T>
void Deal(const KeyAndPosition<T>* pairs, size_t count, int shift, KeyAndPosition<T>* spare,
          std::array<uint32_t, 257>* start) {
  start->fill(0);
  for (size_t i = 0; i < count; ++i) ++(*start)[((Image(pairs[i].key) >> shift) & 0xFF) + 1];
  for (int b = 0; b < 256; ++b) (*start)[b + 1] += (*start)[b];
  std::array<uint32_t, 256> next;
  std::copy(start->begin(), start->end() - 1, next.begin());
  for (size_t i = 0; i < count; ++i) {
    spare[next[(Image(pairs[i].key) >> shift) & 0xFF]++] = pairs[i];
  }
}

// Sorts pairs[0, count) by the bits of their images below `bits`, all higher bits being equal,
// with spare[0, count) as a second buffer.
template <typename T>
void SortLowBits(KeyAndPosition<T>* pairs, size_t count, int bits, KeyAndPosition<T>* spare) {
  if (count < 2 || bits <= 0) return;
  if (count <= kInsertionSort) {
    InsertionSort(pairs, count);
    return;
  }
  std::array<uint32_t, 257> start;
  if (bits > kLowestFirstBits) {
    const int shift = bits - 8;
    Deal(pairs, count, shift, spare, &start);
    std::copy(spare, spare + count, pairs);
    for (int b = 0; b < 256; ++b)
      SortLowBits(pairs + start[b], start[b + 1] - start[b], shift, spare);
    return;
  }
  KeyAndPosition<T>* from = pairs;
  KeyAndPosition<T>* to = spare;
  for (int shift = 0; shift < bits; shift += 8) {
    Deal(from, count, shift, to, &start);
    std::swap(from, to);
  }
  if (from != pairs) std::copy(from, from + count, pairs);
}

}  // namespace radix

// Sorts keys[0, count) into sorted[0, count) in ascending order, equal keys in the order
// given, each with its position. Allocates one buffer of the largest bucket's size.
template <typename T>
void RadixSortWithPositions(const T* keys, uint32_t count, KeyAndPosition<T>* sorted) {
  static_assert(std::is_integral<T>::value, "radix keys are integers");
  using U = std::make_unsigned_t<T>;
  if (count == 0) return;
  // The bits that tell keys apart lie at and below the highest one in which some key differs
  // from the first.
  const U first = radix::Image(keys[0]);
  U differ = 0;
  for (uint32_t i = 0; i < count; ++i) differ |= static_cast<U>(radix::Image(keys[i]) ^ first);
  int bits = 0;  // bits below the highest that differs, plus that one
  while (bits < static_cast<int>(8 * sizeof(T)) && (differ >> bits) != 0) ++bits;
  if (bits == 0) {  // every key the same: they stay in the order given
    for (uint32_t i = 0; i < count; ++i) sorted[i] = {keys[i], i};
    return;
  }

  // Deal into buckets by the highest telling bits, as many as suit the batch's size.
  int top_bits = 1;
  while (top_bits < radix::kMaxTopBits && (uint64_t{count} >> (top_bits + 6)) != 0) ++top_bits;
  top_bits = std::min(top_bits, bits);
  const int shift = bits - top_bits;
  const U mask = static_cast<U>((U{1} << (top_bits - 1) << 1) - 1);
  std::vector<uint32_t> start(size_t{1} << top_bits, 0);  // then: where each bucket begins
  for (uint32_t i = 0; i < count; ++i) ++start[(radix::Image(keys[i]) >> shift) & mask];
  uint32_t sum = 0;
  uint32_t largest = 0;
  for (uint32_t& s : start) {
    largest = std::max(largest, s);
    const uint32_t c = s;
    s = sum;
    sum += c;
  }
  std::vector<uint32_t> next(start);
  for (uint32_t i = 0; i < count; ++i) {
    sorted[next[(radix::Image(keys[i]) >> shift) & mask]++] = {keys[i], i};
  }

  // Then each bucket by the bits below, where it lies.
  std::vector<KeyAndPosition<T>> spare(largest > radix::kInsertionSort ? largest : 0);
  for (size_t b = 0; b < start.size(); ++b) {
    radix::SortLowBits(sorted + start[b], next[b] - start[b], shift, spare.data());
  }
}

}  // namespace zu

#endif  // ZU_CORE_RADIX_SORT_H_
