#include "src/memory/buffer_array.h"

namespace zu {

#define ZU_DEFINE_BUFFER_ARRAY(T)   \
  template class CZUBufferArray<T>; \
  template class CZUCrossBufferArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_BUFFER_ARRAY)
#undef ZU_DEFINE_BUFFER_ARRAY

}  // namespace zu
