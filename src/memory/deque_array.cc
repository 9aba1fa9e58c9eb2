#include "src/memory/deque_array.h"

namespace zu {

#define ZU_DEFINE_DEQUE_ARRAY(T)                                                \
  template class CZUArrayBase<T, std::xdeque<T, kDequeBlockBytes / sizeof(T)>>; \
  template class CZUDequeArray<T, kDequeBlockBytes / sizeof(T)>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_DEQUE_ARRAY)
#undef ZU_DEFINE_DEQUE_ARRAY

}  // namespace zu
