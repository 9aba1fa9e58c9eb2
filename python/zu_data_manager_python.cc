// Python bindings: the factory kinds as zu_data_manager.Array, with numpy in and out.
//
// Arrays hold one of the integer element types, chosen by a numpy dtype. Bulk appends and
// reads move whole numpy buffers in one call; attach() views a numpy array's own buffer and
// keeps that array alive as long as the view lives.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace py = pybind11;

namespace {

enum class Kind { kVector, kDeque, kFile, kAutoVector, kAutoDeque };

// The element type of an array, as a numpy dtype and the library's type code.
struct Element {
  py::dtype dtype;
  int code;  // element size in bytes
};

Element ElementOf(const py::object& dtype_like) {
  py::dtype dtype = py::dtype::from_args(dtype_like);
  if (dtype.equal(py::dtype::of<uint8_t>())) return {py::dtype::of<uint8_t>(), 1};
  if (dtype.equal(py::dtype::of<uint16_t>())) return {py::dtype::of<uint16_t>(), 2};
  if (dtype.equal(py::dtype::of<uint32_t>())) return {py::dtype::of<uint32_t>(), 4};
  if (dtype.equal(py::dtype::of<int64_t>())) return {py::dtype::of<int64_t>(), 8};
  throw py::type_error("element type must be uint8, uint16, uint32 or int64, not " +
                       dtype.attr("name").cast<std::string>());
}

class PyArray {
 public:
  PyArray(IZUArray* array, Element element, py::object keep_alive = py::none())
      : array_(array), element_(std::move(element)), keep_alive_(std::move(keep_alive)) {
    if (array_ == nullptr) throw std::runtime_error("the library refused this array kind");
  }

  uint64_t size() const { return array_->GetSize(); }

  // One value (a Python int) or a whole numpy array / sequence, appended in one call.
  int append(const py::object& values) {
    if (py::isinstance<py::int_>(values)) {
      auto value = ToElement(values);
      return array_->Append(&value);
    }
    py::array contiguous = py::array::ensure(values, py::array::c_style | py::array::forcecast);
    if (!contiguous) throw py::type_error("append takes an int or an array of ints");
    py::array typed = contiguous.attr("astype")(element_.dtype, py::arg("copy") = false);
    py::buffer_info info = typed.request();
    int result = kZuOk;
    {
      py::gil_scoped_release release;
      result = array_->AppendBuffer(info.ptr, static_cast<uint64_t>(info.size));
    }
    return result;
  }

  py::object get(int64_t index) const {
    int64_t n = static_cast<int64_t>(size());
    if (index < 0) index += n;
    if (index < 0 || index >= n) throw py::index_error("index out of range");
    uint64_t value = 0;
    if (array_->GetAt(static_cast<uint64_t>(index), &value) == nullptr) {
      throw py::index_error("index out of range");
    }
    return FromElement(value);
  }

  py::array to_numpy(uint64_t start, py::object count) const {
    uint64_t n = size();
    uint64_t available = start < n ? n - start : 0;
    uint64_t want = count.is_none() ? available : count.cast<uint64_t>();
    if (want > available) want = available;
    if (want > 0xFFFFFFFFu) throw py::value_error("read at most 2**32 - 1 elements at a time");
    py::array out(element_.dtype, std::vector<py::ssize_t>{static_cast<py::ssize_t>(want)});
    if (want > 0) {
      py::buffer_info info = out.request(true);
      py::gil_scoped_release release;
      array_->CopyOut(info.ptr, static_cast<int>(start), static_cast<unsigned int>(want));
    }
    return out;
  }

  uint64_t lower_bound(const py::object& v) const {
    auto value = ToElement(v);
    return array_->LowerBound(&value);
  }
  uint64_t upper_bound(const py::object& v) const {
    auto value = ToElement(v);
    return array_->UpperBound(&value);
  }
  uint64_t find(const py::object& v) const {
    auto value = ToElement(v);
    return array_->Find(&value);
  }
  // The last index not greater than v; -1 when every element is greater.
  int64_t find_floor(const py::object& v) const {
    auto value = ToElement(v);
    return static_cast<int64_t>(array_->FindFloor(&value));
  }
  py::tuple find_nearest(const py::object& v, uint64_t tolerance) const {
    auto value = ToElement(v);
    uint64_t index = array_->FindNearest(&value, tolerance);
    return py::make_tuple(index, FromElement(value));
  }
  void clear() { array_->Clear(); }

  // The description of the backing files as a dict; None for arrays without files.
  py::object save_description() const {
    base::DictionaryValue* raw = nullptr;
    if (!array_->SaveDescription(&raw) || raw == nullptr) return py::none();
    std::unique_ptr<base::DictionaryValue> desc(raw);
    return py::module_::import("json").attr("loads")(base::WriteJson(*desc));
  }
  bool load_description(const py::object& description) {
    std::string text =
        py::isinstance<py::str>(description)
            ? description.cast<std::string>()
            : py::module_::import("json").attr("dumps")(description).cast<std::string>();
    std::string error;
    std::unique_ptr<base::DictionaryValue> desc = base::ReadJsonDictionary(text, &error);
    if (desc == nullptr) throw py::value_error("malformed description: " + error);
    return array_->LoadDescription(desc.get());
  }

  std::string repr() const {
    return "<zu_data_manager.Array of " + element_.dtype.attr("name").cast<std::string>() + ", " +
           std::to_string(size()) + " elements>";
  }

 private:
  // The element as the low bytes of a 64-bit slot (little-endian hosts).
  uint64_t ToElement(const py::object& v) const {
    py::object scalar = element_.dtype.attr("type")(v);
    if (element_.code == 8) return static_cast<uint64_t>(scalar.cast<int64_t>());
    return scalar.cast<uint64_t>();
  }
  py::object FromElement(uint64_t raw) const {
    switch (element_.code) {
      case 1:
        return py::int_(static_cast<uint8_t>(raw));
      case 2:
        return py::int_(static_cast<uint16_t>(raw));
      case 4:
        return py::int_(static_cast<uint32_t>(raw));
      default:
        return py::int_(static_cast<int64_t>(raw));
    }
  }

  std::unique_ptr<IZUArray> array_;  // never null
  Element element_;
  py::object keep_alive_;  // the numpy array an attached view reads, else None
};

PyArray Make(Kind kind, const py::object& dtype) {
  Element element = ElementOf(dtype);
  CArrayFactory factory;
  IZUArray* array = nullptr;
  switch (kind) {
    case Kind::kVector:
      array = factory.AllocVectorArray(element.code);
      break;
    case Kind::kDeque:
      array = factory.AllocDequeArray(element.code);
      break;
    case Kind::kFile:
      array = factory.AllocFileArray(element.code);
      break;
    case Kind::kAutoVector:
      array = factory.AllocAutoVectorArray(element.code);
      break;
    case Kind::kAutoDeque:
      array = factory.AllocAutoDequeArray(element.code);
      break;
  }
  return PyArray(array, element);
}

PyArray Attach(const py::array& data) {
  if (!(data.flags() & py::array::c_style)) {
    throw py::value_error("attach needs a C-contiguous array (its buffer is used in place)");
  }
  Element element = ElementOf(data.dtype());
  CArrayFactory factory;
  auto* buffer = static_cast<unsigned char*>(const_cast<void*>(data.data()));
  IZUArray* array = factory.AllocAttachBufferArray(
      element.code, buffer, static_cast<int64_t>(data.size()) * element.code);
  return PyArray(array, element, data);
}

}  // namespace

PYBIND11_MODULE(zu_data_manager, m) {
  m.doc() = "Typed arrays that grow beyond memory into mapped temporary files.";

  m.attr("OK") = static_cast<int>(kZuOk);
  m.attr("FAILED") = static_cast<int>(kZuFailed);
  m.attr("NO_SPACE") = static_cast<int>(kZuNoSpace);

  py::class_<PyArray>(m, "Array")
      .def("append", &PyArray::append, py::arg("values"),
           "Append an int or a whole array of ints; returns 0, 1 (failed) or 2 (no space).")
      .def("__len__", &PyArray::size)
      .def("__getitem__", &PyArray::get)
      .def("__repr__", &PyArray::repr)
      .def("to_numpy", &PyArray::to_numpy, py::arg("start") = 0, py::arg("count") = py::none())
      .def("lower_bound", &PyArray::lower_bound)
      .def("upper_bound", &PyArray::upper_bound)
      .def("find", &PyArray::find)
      .def("find_floor", &PyArray::find_floor)
      .def("find_nearest", &PyArray::find_nearest, py::arg("value"), py::arg("tolerance") = 0)
      .def("clear", &PyArray::clear)
      .def("save_description", &PyArray::save_description)
      .def("load_description", &PyArray::load_description);

  m.def(
      "vector_array", [](const py::object& d) { return Make(Kind::kVector, d); }, py::arg("dtype"));
  m.def(
      "deque_array", [](const py::object& d) { return Make(Kind::kDeque, d); }, py::arg("dtype"));
  m.def(
      "file_array", [](const py::object& d) { return Make(Kind::kFile, d); }, py::arg("dtype"));
  m.def(
      "auto_vector_array", [](const py::object& d) { return Make(Kind::kAutoVector, d); },
      py::arg("dtype"));
  m.def(
      "auto_deque_array", [](const py::object& d) { return Make(Kind::kAutoDeque, d); },
      py::arg("dtype"));
  m.def("attach", &Attach, py::arg("data"),
        "A read-only view of a numpy array's buffer; the numpy array stays alive with it.");

  m.def("set_data_directory", [](const std::wstring& dir) { IZUArray::SetDataDirectory(dir); });
  m.def("get_data_directory", []() { return IZUArray::GetDataDirectory(); });
  m.def("clean_tmp_files", []() { IZUArray::CleanTmpFiles(); });
}
