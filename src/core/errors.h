// The library's error helpers: the not-implemented errors (three deliberately different
// exception types share one idea) and the guard that turns exceptions of an adding operation
// into a result code.
#ifndef ZU_CORE_ERRORS_H_
#define ZU_CORE_ERRORS_H_

#include <exception>

#include "zu_data_manager/element_types.h"

namespace zu {

extern const char kNotImplementedMessage[];  // "The method or operation is not implemented."
extern const char kNotImplementMessage[];    // "not implement"

// A std::exception that carries a message but is deliberately not a std::logic_error, so a
// caller can tell "this kind never supports the operation" (logic_error) apart from the
// attached buffers' refusals and the storage interface's guards.
class PlainError : public std::exception {
 public:
  explicit PlainError(const char* message) : message_(message) {}
  const char* what() const noexcept override { return message_; }

 private:
  const char* message_;  // static storage; never freed
};

// std::logic_error "The method or operation is not implemented.".
[[noreturn]] void ThrowNotImplemented();
// PlainError with the same message (attached buffers' Append and Clear).
[[noreturn]] void ThrowPlainNotImplemented();
// PlainError "not implement" (default bodies of the storage interface).
[[noreturn]] void ThrowNotImplement();
// std::length_error "vector<T> too long": an in-memory array or storage at its 2^32 - 1
// elements. Out of line, so that the appends that test for it stay small.
[[noreturn]] void ThrowVectorTooLong();

// Runs an adding operation and maps what it throws to a result code: kZuNoSpace for
// ZuArrayNoSpaceException, kZuFailed for anything else, kZuOk when nothing was thrown.
template <typename Fn>
int GuardAdd(Fn&& fn) {
  try {
    fn();
    return kZuOk;
  } catch (const ZuArrayNoSpaceException&) {
    return kZuNoSpace;
  } catch (...) {
    return kZuFailed;
  }
}

}  // namespace zu

#endif  // ZU_CORE_ERRORS_H_
