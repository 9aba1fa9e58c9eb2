#include "python/src/convert.h"

#include <vector>

namespace zu_python {

py::module_ Numpy() { return py::module_::import("numpy"); }

int ElementCodeOf(const py::handle& dtype_like) {
  py::dtype dtype = py::dtype::from_args(py::reinterpret_borrow<py::object>(dtype_like));
  for (int code : {1, 2, 4, 8}) {
    if (dtype.equal(DtypeOf(code))) return code;
  }
  throw py::type_error(
      "element type must be uint8, uint16, uint32 or int64 (native byte order), not " +
      Repr(dtype));
}

py::dtype DtypeOf(int code) {
  return WithElement(code, [](auto tag) { return py::dtype::of<typename decltype(tag)::type>(); });
}

std::string DtypeName(int code) { return DtypeOf(code).attr("name").cast<std::string>(); }

std::string Repr(const py::handle& value) { return py::repr(value).cast<std::string>(); }

bool IsScalar(const py::handle& value) {
  if (py::isinstance<py::array>(value)) return py::reinterpret_borrow<py::array>(value).ndim() == 0;
  return !PySequence_Check(value.ptr());
}

uint64_t ToCount(const py::handle& value, const char* name) {
  py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  long long v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (overflow > 0) return std::numeric_limits<uint64_t>::max();
  if (overflow < 0 || v < 0) Raise(PyExc_ValueError, std::string(name) + " must not be negative");
  return static_cast<uint64_t>(v);
}

namespace {

// The first value of `array` outside the range of T, as an OverflowError.
template <typename T>
[[noreturn]] void RaiseOutOfRange(const py::array& array) {
  py::object flat = array.attr("ravel")();
  py::object outside = (flat.attr("__lt__")(std::numeric_limits<T>::min()))
                           .attr("__or__")(flat.attr("__gt__")(std::numeric_limits<T>::max()));
  py::object where = Numpy().attr("flatnonzero")(outside);
  py::object first = where[py::int_(0)];
  py::object value = flat[first];
  Raise(PyExc_OverflowError, "value " + Repr(py::int_(value)) + " at flat index " +
                                 Repr(py::int_(first)) + " is out of range for " +
                                 DtypeName(sizeof(T)) + " (" + RangeText<T>() + ")");
}

template <typename T>
py::array ToElementsOf(const py::handle& values, bool same_kind) {
  py::module_ np = Numpy();
  const bool is_array = py::isinstance<py::array>(values);
  same_kind = same_kind && is_array;
  auto array = py::reinterpret_borrow<py::array>(np.attr("asarray")(values));
  char kind = array.dtype().kind();
  bool integers = kind == 'b' || kind == 'i' || kind == 'u';
  if (!is_array && !integers) {
    // numpy turns a list with an int beyond 64 bits into floats: judge each value instead.
    array = np.attr("asarray")(values, "object");
  }
  py::dtype want = py::dtype::of<T>();
  if (array.size() == 0) return py::array(want, ShapeOf(array));
  if (array.dtype().equal(want)) return np.attr("asarray")(array, py::none(), "C");
  if (array.dtype().kind() == 'O') {
    // Python ints of any size arrive as objects: each is taken on its own merits.
    py::array_t<T> out(ShapeOf(array));
    T* dest = out.mutable_data();
    for (py::handle item : array.attr("ravel")()) *dest++ = ToElement<T>(item);
    return std::move(out);
  }
  if (!integers ||
      (same_kind && !np.attr("can_cast")(array.dtype(), want, "same_kind").cast<bool>())) {
    Raise(PyExc_TypeError, DtypeName(sizeof(T)) + " array takes integers: " + Repr(array.dtype()) +
                               " values are converted only when numpy's " +
                               (integers ? "same_kind casting allows it" : "casting keeps them"));
  }
  if (!np.attr("can_cast")(array.dtype(), want, "safe").cast<bool>()) {
    py::int_ low(array.attr("min")()), high(array.attr("max")());
    if (low < py::int_(std::numeric_limits<T>::min()) ||
        high > py::int_(std::numeric_limits<T>::max())) {
      RaiseOutOfRange<T>(array);
    }
  }
  return np.attr("asarray")(array, want, "C");
}

}  // namespace

py::array ToElements(const py::handle& values, int code, bool same_kind) {
  return WithElement(code, [&](auto tag) {
    return ToElementsOf<typename decltype(tag)::type>(values, same_kind);
  });
}

ExactKeys ToExactKeys(const py::handle& keys) {
  py::module_ np = Numpy();
  if (PyLong_Check(keys.ptr())) {
    // A Python int beyond 64 bits only needs to sort beyond every element: infinity does.
    int overflow = 0;
    PyLong_AsLongLongAndOverflow(keys.ptr(), &overflow);
    if (overflow != 0) {
      bool positive = py::reinterpret_borrow<py::int_>(keys) > py::int_(0);
      py::array_t<double> infinity(std::vector<py::ssize_t>{});
      *infinity.mutable_data() = positive ? HUGE_VAL : -HUGE_VAL;
      return {infinity, true};
    }
  }
  auto array = py::reinterpret_borrow<py::array>(np.attr("asarray")(keys));
  bool scalar = array.ndim() == 0;
  const char* as = nullptr;
  switch (array.dtype().kind()) {
    case 'b':
    case 'i':
      as = "int64";
      break;
    case 'u':
      as = "uint64";
      break;
    case 'f':
      if (array.dtype().itemsize() <= 8) as = "float64";
      break;
  }
  if (as == nullptr) {
    Raise(PyExc_TypeError, "searchsorted takes integer or float keys, not " + Repr(array.dtype()));
  }
  return {np.attr("asarray")(array, as, "C"), scalar};
}

}  // namespace zu_python
