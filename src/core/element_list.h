// The element types the library instantiates its templates for, in one place, so that every
// class can name the same set in its explicit instantiations.
#ifndef ZU_CORE_ELEMENT_LIST_H_
#define ZU_CORE_ELEMENT_LIST_H_

#include <cstdint>

#include "zu_data_manager/element_types.h"

// Applies X(T) to each integer element type.
#define ZU_FOR_EACH_INTEGER_TYPE(X) X(uint8_t) X(uint16_t) X(uint32_t) X(int64_t)

// Applies X(T) to each record type of the self-spilling arrays. (clang-format rewrites this
// macro differently on every run, so it is kept out of its reach.)
// clang-format off
#define ZU_FOR_EACH_RECORD_TYPE(X)                                                          \
  X(SimpleBigData<16>) X(SimpleBigData<32>) X(SimpleBigData<64>) X(SimpleBigData<128>)     \
  X(SimpleBigData<256>) X(SimpleBigData<512>)
// clang-format on

// Applies X(T) to all ten element types of the storage interface.
#define ZU_FOR_EACH_ELEMENT_TYPE(X) ZU_FOR_EACH_INTEGER_TYPE(X) ZU_FOR_EACH_RECORD_TYPE(X)

#endif  // ZU_CORE_ELEMENT_LIST_H_
