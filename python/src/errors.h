// Python exceptions for what the library reports by result codes, short counts and its own
// exception types.
#ifndef ZU_PYTHON_ERRORS_H_
#define ZU_PYTHON_ERRORS_H_

#include <pybind11/pybind11.h>

#include <string>

namespace zu_python {

// Sets a Python exception of `type` and unwinds to pybind11, which passes it on.
[[noreturn]] void Raise(PyObject* type, const std::string& message);

// OSError(ENOSPC, message, data directory): file storage found no room. The message names
// the data directory, or says that none is set.
[[noreturn]] void RaiseNoSpace(const std::string& what);

// The data directory as UTF-8 text ("" when none is set).
std::string DataDirectoryText();

// Maps the library's exceptions as they leave an operation: its not-implemented errors (a
// std::logic_error and two plain std::exceptions, told apart by message) become
// NotImplementedError, ZuArrayNoSpaceException becomes OSError(ENOSPC).
void RegisterTranslators();

}  // namespace zu_python

#endif  // ZU_PYTHON_ERRORS_H_
