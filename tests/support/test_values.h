// Deterministic element values for tests: ascending sequences of any element type, with
// duplicates for the narrow types, and a way to read an element back as a comparable number.
#ifndef ZU_TESTS_SUPPORT_TEST_VALUES_H_
#define ZU_TESTS_SUPPORT_TEST_VALUES_H_

#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "zu_data_manager/element_types.h"

namespace zu_test {

template <typename T>
struct IsRecord : std::false_type {};
template <int N>
struct IsRecord<SimpleBigData<N>> : std::true_type {};

// A record whose order (bytes N-1..1) follows `key`; byte 0 carries a fixed tag so that
// exact equality holds between records made from the same key.
template <typename T>
T MakeValue(uint64_t key) {
  if constexpr (IsRecord<T>::value) {
    T record;
    std::memset(record.data, 0, sizeof(record.data));
    record.data[0] = 0x5A;
    for (int i = 0; i < 8; ++i) record.data[1 + i] = static_cast<unsigned char>(key >> (8 * i));
    return record;
  } else {
    return static_cast<T>(key);
  }
}

// The largest key MakeValue maps without wrapping.
template <typename T>
uint64_t MaxKey() {
  if constexpr (IsRecord<T>::value || std::is_same_v<T, int64_t>) {
    return uint64_t{1} << 40;
  } else {
    return std::numeric_limits<T>::max();
  }
}

// n ascending keys spread over the type's range (repeats where the range is narrower than n).
template <typename T>
std::vector<uint64_t> AscendingKeys(uint64_t n, uint64_t step = 3) {
  std::vector<uint64_t> keys(n);
  uint64_t top = MaxKey<T>();
  for (uint64_t i = 0; i < n; ++i) {
    uint64_t k = i * step;
    keys[i] = n * step <= top ? k : (top * i) / (n == 0 ? 1 : n);
  }
  return keys;
}

template <typename T>
std::vector<T> ValuesOf(const std::vector<uint64_t>& keys) {
  std::vector<T> values;
  values.reserve(keys.size());
  for (uint64_t k : keys) values.push_back(MakeValue<T>(k));
  return values;
}

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_TEST_VALUES_H_
