#include "src/file/file_segment.h"

#include "src/file/file_segment_inl.h"

namespace zu {

#define ZU_DEFINE_FILE_SEGMENT(T) template class CZUFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_FILE_SEGMENT)
#undef ZU_DEFINE_FILE_SEGMENT

}  // namespace zu
