#include "src/auto/std_adapters.h"

namespace zu {

#define ZU_DEFINE_STD_ADAPTERS(T)                                        \
  template class CStdContainer<T, PodVector<T>>;                         \
  template class CStdContainer<T, std::xdeque<T, kStdDequeBlockLength>>; \
  template class CStdVector<T>;                                          \
  template class CStdDeque<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_STD_ADAPTERS)
#undef ZU_DEFINE_STD_ADAPTERS

}  // namespace zu
