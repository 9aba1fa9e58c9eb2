// The factory: the one place that knows every array kind, and where the element type is
// chosen at run time.
#include <cstdint>
#include <limits>
#include <memory>

#include "src/auto/auto_array.h"
#include "src/file/file_array.h"
#include "src/memory/buffer_array.h"
#include "src/memory/deque_array.h"
#include "src/memory/record_array.h"
#include "src/memory/vector_array.h"
#include "zu_data_manager/array_factory.h"

namespace zu {
namespace {

// Owning kinds accept power-of-two codes only; the test lets 0 through, and 0 then behaves
// as 1. Codes are compared as unsigned.
bool IsPowerOfTwo(uint32_t type) { return (type & (type - 1)) == 0; }

// Builds an owning array: construct, then let it build its container. Init's answer is not
// examined; if construction or Init throws, the object is freed and the exception passes.
// The self-spilling arrays build their storage in their constructors and skip the second Init
// (kCallInit false), which would only replace one empty storage by another.
template <typename Array, bool kCallInit = true, typename... Args>
IZUArray* BuildOwning(Args&&... args) {
  std::unique_ptr<Array> array(new Array(std::forward<Args>(args)...));
  if (kCallInit) array->Init();
  return array.release();
}

// Dispatches the four integer codes of an owning kind to Kind<T>.
template <template <typename> class Kind, bool kCallInit = true>
IZUArray* ByIntegerCode(uint32_t type) {
  switch (type) {
    case 0:
    case 1:
      return BuildOwning<Kind<uint8_t>, kCallInit>();
    case 2:
      return BuildOwning<Kind<uint16_t>, kCallInit>();
    case 4:
      return BuildOwning<Kind<uint32_t>, kCallInit>();
    case 8:
      return BuildOwning<Kind<int64_t>, kCallInit>();
    default:
      return nullptr;
  }
}

// The kinds with a layout parameter, in the library's own layout.
template <typename T>
using FileArray = CZUFileArray<T>;
template <typename T>
using AutoDeque = CZUAutoDequeArray<T>;
template <typename T>
using AutoVector = CZUAutoVectorArray<T>;

// The self-spilling kinds: the integer codes and the record sizes 16 to 512.
template <template <typename> class Kind>
IZUArray* ByAutoCode(uint32_t type) {
  switch (type) {
    case 16:
      return BuildOwning<Kind<SimpleBigData<16>>, false>();
    case 32:
      return BuildOwning<Kind<SimpleBigData<32>>, false>();
    case 64:
      return BuildOwning<Kind<SimpleBigData<64>>, false>();
    case 128:
      return BuildOwning<Kind<SimpleBigData<128>>, false>();
    case 256:
      return BuildOwning<Kind<SimpleBigData<256>>, false>();
    case 512:
      return BuildOwning<Kind<SimpleBigData<512>>, false>();
    default:
      return ByIntegerCode<Kind, false>(type);
  }
}

// Attached kinds: a length or gap that cannot describe a real buffer gives null, and so does
// a span of the interleaved buffer that overflows.
bool AttachArgumentsValid(int type, const unsigned char* buffer, int64_t length, int gap) {
  if (type < 0 || length < 0 || gap < 0) return false;
  if (buffer == nullptr && length != 0) return false;
  int64_t unit = type <= 1 ? 1 : type;
  int64_t elements = length / unit;
  if (gap != 0 && elements > (std::numeric_limits<int64_t>::max() - length) / gap) return false;
  return true;
}

// Attached kinds map the code by range, without a power-of-two test: 3 selects the 4-byte
// type, 5 to 8 the 8-byte type, anything above 8 records of that many bytes.
template <template <typename> class Kind, typename... Args>
IZUArray* ByAttachedCode(uint32_t type, Args... args) {
  if (type <= 1) return new Kind<uint8_t>(args...);
  if (type == 2) return new Kind<uint16_t>(args...);
  if (type <= 4) return new Kind<uint32_t>(args...);
  return new Kind<int64_t>(args...);
}

// The bytes that the interleaved data spans: each element of `length` payload bytes is
// followed by `gap` foreign bytes. AttachArgumentsValid has ruled out overflow.
int64_t CrossSpan(int type, int64_t length, int gap) {
  int64_t unit = type <= 1 ? 1 : type;
  return length + (length / unit) * gap;
}

constexpr uint32_t kLargestIntegerCode = 8;

}  // namespace
}  // namespace zu

using zu::ByIntegerCode;
using zu::IsPowerOfTwo;

IArrayFactory::~IArrayFactory() {}
CArrayFactory::~CArrayFactory() {}

IZUArray* CArrayFactory::AllocVectorArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return ByIntegerCode<zu::CZUVectorArray>(code);
}

IZUArray* CArrayFactory::AllocDequeArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  if (code > zu::kLargestIntegerCode) {
    // The one negative power of two (INT_MIN) cannot be a record size.
    if (type < 0) return nullptr;
    return zu::BuildOwning<zu::CZUDequeRecordArray>(type);
  }
  return ByIntegerCode<zu::CZUDequeArrayOf>(code);
}

IZUArray* CArrayFactory::AllocFileArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return ByIntegerCode<zu::FileArray>(code);
}

IZUArray* CArrayFactory::AllocAutoVectorArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return zu::ByAutoCode<zu::AutoVector>(code);
}

IZUArray* CArrayFactory::AllocAutoDequeArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return zu::ByAutoCode<zu::AutoDeque>(code);
}

IZUArray* CArrayFactory::AllocAttachCrossBufferArray(int type, unsigned char* buffer,
                                                     int64_t length, int gap) {
  if (!zu::AttachArgumentsValid(type, buffer, length, gap)) return nullptr;
  int64_t span = zu::CrossSpan(type, length, gap);
  auto code = static_cast<uint32_t>(type);
  if (code > zu::kLargestIntegerCode) {
    return new zu::CZUCrossBufferArray<zu::RecordPtr>(type, gap, buffer, span);
  }
  return zu::ByAttachedCode<zu::CZUCrossBufferArray>(code, gap, buffer, span);
}

IZUArray* CArrayFactory::AllocAttachBufferArray(int type, unsigned char* buffer, int64_t length) {
  if (!zu::AttachArgumentsValid(type, buffer, length, 0)) return nullptr;
  auto code = static_cast<uint32_t>(type);
  if (code > zu::kLargestIntegerCode) {
    return new zu::CZUBufferArray<zu::RecordPtr>(type, buffer, length);
  }
  return zu::ByAttachedCode<zu::CZUBufferArray>(code, buffer, length);
}
