#include "src/memory/record_array.h"

namespace zu {

template class CZUArrayBase<RecordPtr, PodVector<RecordPtr>>;
template class CZUArrayBase<RecordPtr, std::xdeque<RecordPtr, kRecordBlockLength>>;
template class CZUDequeArray<RecordPtr, kRecordBlockLength>;

}  // namespace zu
