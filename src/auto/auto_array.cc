#include "src/auto/auto_array.h"

namespace zu {

#define ZU_DEFINE_AUTO_ARRAYS(T)                  \
  template class CZUArrayBase<T, IZUArrayImp<T>>; \
  template class CZUAutoDequeArray<T>;            \
  template class CZUAutoVectorArray<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_AUTO_ARRAYS)
#undef ZU_DEFINE_AUTO_ARRAYS

}  // namespace zu
