// Element types, type codes, result codes and the exceptions every array shares.
//
// The type code a host passes to the factory is the element size in bytes:
//   1 (or 0) -> uint8_t, 2 -> uint16_t, 4 -> uint32_t, 8 -> int64_t (compared as signed),
//   16..512  -> SimpleBigData<N> records (self-spilling arrays only),
//   above 8  -> records of that many bytes held through unsigned char* (deque and attached
//               kinds only).
// Thread-safety: these are plain values; not thread-safe beyond that.
#ifndef ZU_DATA_MANAGER_ELEMENT_TYPES_H_
#define ZU_DATA_MANAGER_ELEMENT_TYPES_H_

#include <cstdint>
#include <cstring>

#include "zu_data_manager/export.h"

// Result codes of the adding operations (Append, Assign, AppendBuffer, AppendRange).
enum ZuResult : int {
  kZuOk = 0,       // success
  kZuFailed = 1,   // any exception other than ZuArrayNoSpaceException was caught
  kZuNoSpace = 2,  // file storage could not obtain more room
};

// Thrown by file-backed storage that cannot get more room, caught by the adding operations
// and reported as kZuNoSpace. Deliberately an empty class outside the std::exception
// hierarchy: a handler for std::exception does not see it.
class ZU_EXPORT ZuArrayNoSpaceException {};

// A plain record of exactly N bytes, copied by value.
//
// Ordering (every search over such arrays): the record is an unsigned little-endian number
// compared from its high end, byte N-1 down to byte 1. Byte 0 is never examined, so two
// records that differ only in byte 0 are neither less nor greater than each other. Equality
// (exact-match searches) compares all N bytes, so those two records are still not equal.
template <int N>
struct SimpleBigData {
  static_assert(N >= 16 && (N & (N - 1)) == 0, "SimpleBigData is 16..512 bytes, a power of two");
  unsigned char data[N];

  friend bool operator<(const SimpleBigData& a, const SimpleBigData& b) {
    for (int i = N - 1; i >= 1; --i) {
      if (a.data[i] != b.data[i]) return a.data[i] < b.data[i];
    }
    return false;
  }
  friend bool operator>(const SimpleBigData& a, const SimpleBigData& b) { return b < a; }
  friend bool operator<=(const SimpleBigData& a, const SimpleBigData& b) { return !(b < a); }
  friend bool operator>=(const SimpleBigData& a, const SimpleBigData& b) { return !(a < b); }
  friend bool operator==(const SimpleBigData& a, const SimpleBigData& b) {
    return std::memcmp(a.data, b.data, N) == 0;
  }
  friend bool operator!=(const SimpleBigData& a, const SimpleBigData& b) { return !(a == b); }
};

static_assert(sizeof(SimpleBigData<16>) == 16, "records carry no padding");
static_assert(sizeof(SimpleBigData<512>) == 512, "records carry no padding");

#endif  // ZU_DATA_MANAGER_ELEMENT_TYPES_H_
