#include "src/core/errors.h"

#include <stdexcept>

namespace zu {

const char kNotImplementedMessage[] = "The method or operation is not implemented.";
const char kNotImplementMessage[] = "not implement";

void ThrowNotImplemented() { throw std::logic_error(kNotImplementedMessage); }
void ThrowPlainNotImplemented() { throw PlainError(kNotImplementedMessage); }
void ThrowNotImplement() { throw PlainError(kNotImplementMessage); }
void ThrowVectorTooLong() { throw std::length_error("vector<T> too long"); }

}  // namespace zu
