#include "src/file/file_array.h"

namespace zu {

#define ZU_DEFINE_FILE_ARRAY_OPS(T) template struct FileArrayOps<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_FILE_ARRAY_OPS)
#undef ZU_DEFINE_FILE_ARRAY_OPS
#define ZU_DEFINE_FILE_ARRAY(T)                            \
  template class CZUArrayBase<T, CZUMultiFileArrayImp<T>>; \
  template class CZUFileArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_FILE_ARRAY)
#undef ZU_DEFINE_FILE_ARRAY

}  // namespace zu
