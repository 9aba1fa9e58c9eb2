// The array kinds that share the IZUArray contract, for the typed contract suite
// (array_contract_test.cc). Adding a kind is one line in kContractKinds below.
//
// A kind names its element type, how to make an array, and the few places where the
// contract deliberately differs between kinds.
#ifndef ZU_TESTS_SUPPORT_ARRAY_KINDS_H_
#define ZU_TESTS_SUPPORT_ARRAY_KINDS_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {

// Where a kind deviates from the in-memory answers of the shared contract.
struct InMemoryRules {
  static constexpr bool kNeedsDataDirectory = false;
  // FindFloor / LocateLowerBound answer from samples (coarse) instead of exactly.
  static constexpr bool kCoarseSearches = false;
  // UpperBound of a value at or above the last element answers the size.
  template <typename T>
  static uint64_t UpperBoundPastTheEnd(uint64_t size) {
    return size;
  }
};

struct FileRules {
  static constexpr bool kNeedsDataDirectory = true;
  static constexpr bool kCoarseSearches = true;
  // ...while in files it answers the start of the next segment (segments hold 128 MiB).
  template <typename T>
  static uint64_t UpperBoundPastTheEnd(uint64_t size) {
    const uint64_t segment = 0x8000000 / sizeof(T);
    return (size / segment + 1) * segment;
  }
};

template <typename T, IZUArray* (CArrayFactory::*Alloc)(int), typename Rules>
struct Kind : Rules {
  using Element = T;
  static std::unique_ptr<IZUArray> Make() {
    CArrayFactory factory;
    return std::unique_ptr<IZUArray>((factory.*Alloc)(static_cast<int>(sizeof(T))));
  }
};

template <typename T>
using VectorKind = Kind<T, &CArrayFactory::AllocVectorArray, InMemoryRules>;
template <typename T>
using DequeKind = Kind<T, &CArrayFactory::AllocDequeArray, InMemoryRules>;
template <typename T>
using FileKind = Kind<T, &CArrayFactory::AllocFileArray, FileRules>;
// The self-spilling kinds stay in memory at the contract's sizes; their file phase has its own
// tests.
template <typename T>
using AutoDequeKind = Kind<T, &CArrayFactory::AllocAutoDequeArray, InMemoryRules>;
template <typename T>
using AutoVectorKind = Kind<T, &CArrayFactory::AllocAutoVectorArray, InMemoryRules>;

// One line per kind and element type.
using ContractKinds = ::testing::Types<
    VectorKind<uint8_t>, VectorKind<uint16_t>, VectorKind<uint32_t>, VectorKind<int64_t>,
    DequeKind<uint8_t>, DequeKind<uint16_t>, DequeKind<uint32_t>, DequeKind<int64_t>,
    FileKind<uint8_t>, FileKind<uint16_t>, FileKind<uint32_t>, FileKind<int64_t>,
    AutoDequeKind<uint8_t>, AutoDequeKind<uint16_t>, AutoDequeKind<uint32_t>,
    AutoDequeKind<int64_t>, AutoDequeKind<SimpleBigData<16>>, AutoDequeKind<SimpleBigData<512>>,
    AutoVectorKind<uint16_t>, AutoVectorKind<int64_t>, AutoVectorKind<SimpleBigData<64>>>;

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_ARRAY_KINDS_H_
