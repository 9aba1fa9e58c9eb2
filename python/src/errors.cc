#include "python/src/errors.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include "zu_data_manager/zu_data_manager.h"

namespace zu_python {

void Raise(PyObject* type, const std::string& message) {
  PyErr_SetString(type, message.c_str());
  throw pybind11::error_already_set();
}

std::string DataDirectoryText() {
  return pybind11::cast(IZUArray::GetDataDirectory()).cast<std::string>();
}

void RaiseNoSpace(const std::string& what) {
  std::string dir = DataDirectoryText();
  std::string where = dir.empty()
                          ? "no data directory is set (call zu_data_manager.set_data_directory)"
                          : "the data directory " + dir +
                                " has no room (full disk, a file-size "
                                "limit, or it cannot be created)";
  pybind11::object filename =
      dir.empty() ? pybind11::object(pybind11::none()) : pybind11::object(pybind11::str(dir));
  pybind11::tuple args = pybind11::make_tuple(ENOSPC, what + ": " + where, filename);
  PyErr_SetObject(PyExc_OSError, args.ptr());
  throw pybind11::error_already_set();
}

void RegisterTranslators() {
  pybind11::register_exception_translator([](std::exception_ptr thrown) {
    try {
      std::rethrow_exception(thrown);
    } catch (const ZuArrayNoSpaceException&) {
      try {
        RaiseNoSpace("file storage found no room");
      } catch (pybind11::error_already_set& e) {
        e.restore();
      }
    } catch (const std::exception& e) {
      // The library's three not-implemented errors carry one of two messages.
      if (std::strcmp(e.what(), "The method or operation is not implemented.") != 0 &&
          std::strcmp(e.what(), "not implement") != 0) {
        throw;
      }
      PyErr_SetString(
          PyExc_NotImplementedError,
          (std::string("this array kind does not support the operation (") + e.what() + ")")
              .c_str());
    }
  });
}

}  // namespace zu_python
