// Python values in and out of the four element types, without silent changes of value.
//
// Appends, assignments and the library's own searches take integers that fit the element type:
// a float raises TypeError, an integer out of range raises OverflowError, and an ndarray of
// another dtype is converted only when numpy's same_kind casting allows it and every value
// fits. searchsorted takes any real keys instead and answers exactly (see ExactThreshold).
#ifndef ZU_PYTHON_CONVERT_H_
#define ZU_PYTHON_CONVERT_H_

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "python/src/errors.h"

namespace zu_python {

namespace py = pybind11;

template <typename T>
struct Tag {
  using type = T;
};

// Calls f(Tag<T>{}) for the element type whose size is `code` (1, 2, 4 or 8 bytes).
template <typename F>
decltype(auto) WithElement(int code, F&& f) {
  switch (code) {
    case 1:
      return f(Tag<uint8_t>{});
    case 2:
      return f(Tag<uint16_t>{});
    case 4:
      return f(Tag<uint32_t>{});
    default:
      return f(Tag<int64_t>{});
  }
}

py::module_ Numpy();
// The element code (size in bytes) of a dtype-like object; TypeError for any other type.
int ElementCodeOf(const py::handle& dtype_like);
py::dtype DtypeOf(int code);
std::string DtypeName(int code);
std::string Repr(const py::handle& value);

// An element type's range as text, "0..255".
template <typename T>
std::string RangeText() {
  return std::to_string(std::numeric_limits<T>::min()) + ".." +
         std::to_string(std::numeric_limits<T>::max());
}

inline std::vector<py::ssize_t> ShapeOf(const py::array& array) {
  return std::vector<py::ssize_t>(array.shape(), array.shape() + array.ndim());
}

// A non-negative integer argument (start, count, tolerance); ValueError when negative, and
// 2^64 - 1 for any larger one.
uint64_t ToCount(const py::handle& value, const char* name);

// Whether `value` is one number rather than a sequence or an array of them.
bool IsScalar(const py::handle& value);

// One value as an element of type T.
template <typename T>
T ToElement(const py::handle& value) {
  if (py::isinstance<py::array>(value)) {
    auto array = py::reinterpret_borrow<py::array>(value);
    if (array.ndim() == 0) return ToElement<T>(array.attr("item")());
    throw py::type_error("expected one integer, got an array of shape " +
                         Repr(array.attr("shape")));
  }
  if (PyFloat_Check(value.ptr()) || !PyIndex_Check(value.ptr())) {
    throw py::type_error(DtypeName(sizeof(T)) + " array takes integers, not " +
                         std::string(Py_TYPE(value.ptr())->tp_name) + " (" + Repr(value) + ")");
  }
  py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  long long v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (overflow != 0 || v < static_cast<long long>(std::numeric_limits<T>::min()) ||
      v > static_cast<long long>(std::numeric_limits<T>::max())) {
    Raise(PyExc_OverflowError, Repr(index) + " is out of range for " + DtypeName(sizeof(T)) + " (" +
                                   RangeText<T>() + ")");
  }
  return static_cast<T>(v);
}

// Values as a C-contiguous ndarray of the element type of `code`, in the shape they came in.
// Integers of any dtype are taken when every value fits; with `same_kind`, an ndarray of
// another dtype must also pass numpy's same_kind casting (appends: the dtype is a promise).
py::array ToElements(const py::handle& values, int code, bool same_kind);

// The numbers of elements below which a key sorts, as searchsorted needs them: for an
// integer element type the answer for key k is the count of elements below t, where t is
// ceil(k) for side='left' and floor(k) + 1 for side='right'. Keys come as int64, uint64 or
// float64 arrays; NaN sorts last, as in numpy.
struct ExactKeys {
  py::array values;  // int64, uint64 or float64
  bool scalar;       // a single key: the answer is a scalar too
};
ExactKeys ToExactKeys(const py::handle& keys);

using Wide = __int128;  // holds every threshold of an int64, uint64 or float64 key exactly

// The threshold t of one key; `*all` is set when t lies above every value (NaN, huge keys).
template <typename K>
Wide ExactThreshold(K key, bool right, bool* all) {
  *all = false;
  if constexpr (std::is_floating_point<K>::value) {
    if (std::isnan(key) || key >= 18446744073709551616.0) {
      *all = true;
      return 0;
    }
    if (key < -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return right ? static_cast<Wide>(std::floor(key)) + 1 : static_cast<Wide>(std::ceil(key));
  } else {
    return static_cast<Wide>(key) + (right ? 1 : 0);
  }
}

}  // namespace zu_python

#endif  // ZU_PYTHON_CONVERT_H_
