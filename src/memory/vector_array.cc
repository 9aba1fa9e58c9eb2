#include "src/memory/vector_array.h"

namespace zu {

#define ZU_DEFINE_VECTOR_ARRAY(T)               \
  template class CZUArrayBase<T, PodVector<T>>; \
  template class CZUVectorArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_VECTOR_ARRAY)
#undef ZU_DEFINE_VECTOR_ARRAY

}  // namespace zu
