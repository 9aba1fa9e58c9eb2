// The factory: the one place where the element type is chosen at run time.
#include <cstdint>
#include <limits>
#include <memory>

#include "src/memory/vector_array.h"
#include "zu_data_manager/array_factory.h"

namespace zu {
namespace {

// Owning kinds accept power-of-two codes only; the test lets 0 through, and 0 then behaves
// as 1. Codes are compared as unsigned.
bool IsPowerOfTwo(uint32_t type) { return (type & (type - 1)) == 0; }

// Builds an owning array: construct, then let it build its container. Init's answer is not
// examined; if construction or Init throws, the object is freed and the exception passes.
template <typename Array, typename... Args>
IZUArray* BuildOwning(Args&&... args) {
  std::unique_ptr<Array> array(new Array(std::forward<Args>(args)...));
  array->Init();
  return array.release();
}

// Dispatches the four integer codes of an owning kind to Kind<T>.
template <template <typename> class Kind>
IZUArray* ByIntegerCode(uint32_t type) {
  switch (type) {
    case 0:
    case 1: return BuildOwning<Kind<uint8_t>>();
    case 2: return BuildOwning<Kind<uint16_t>>();
    case 4: return BuildOwning<Kind<uint32_t>>();
    case 8: return BuildOwning<Kind<int64_t>>();
    default: return nullptr;
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
  return nullptr;  // the deque kinds are not built yet
}

IZUArray* CArrayFactory::AllocFileArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return nullptr;  // the file kind is not built yet
}

IZUArray* CArrayFactory::AllocAutoVectorArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return nullptr;  // the self-spilling kinds are not built yet
}

IZUArray* CArrayFactory::AllocAutoDequeArray(int type) {
  auto code = static_cast<uint32_t>(type);
  if (!IsPowerOfTwo(code)) return nullptr;
  return nullptr;  // the self-spilling kinds are not built yet
}

IZUArray* CArrayFactory::AllocAttachCrossBufferArray(int type, unsigned char* buffer,
                                                     int64_t length, int gap) {
  if (!zu::AttachArgumentsValid(type, buffer, length, gap)) return nullptr;
  return nullptr;  // the attached kinds are not built yet
}

IZUArray* CArrayFactory::AllocAttachBufferArray(int type, unsigned char* buffer, int64_t length) {
  if (!zu::AttachArgumentsValid(type, buffer, length, 0)) return nullptr;
  return nullptr;  // the attached kinds are not built yet
}
