#include "src/file/multi_file_storage.h"

namespace zu {

#define ZU_DEFINE_MULTI_FILE_STORAGE(T) template class CZUMultiFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_MULTI_FILE_STORAGE)
#undef ZU_DEFINE_MULTI_FILE_STORAGE

}  // namespace zu
