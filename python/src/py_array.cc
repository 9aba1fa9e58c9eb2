#include "python/src/py_array.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "python/src/convert.h"
#include "python/src/errors.h"

namespace zu_python {

namespace {

CallLimits g_limits{uint64_t{1} << 30, 0xFFFFFFFFu};

constexpr uint64_t kMaxInMemoryElements = 0xFFFFFFFFu;  // 32-bit positions of the containers
constexpr uint64_t kMaxBlockStep = 32;                  // wider slice steps read element by element
constexpr uint64_t kScratchElements = 1 << 16;  // elements read per block of a stepped slice

// Index `key` (negative counts from the end) into [0, n), or IndexError as numpy words it.
uint64_t Normalise(const py::handle& key, uint64_t n) {
  py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(key.ptr()));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  Wide i = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (i == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (i < 0) i += n;
  if (overflow != 0 || i < 0 || i >= static_cast<Wide>(n)) {
    Raise(PyExc_IndexError, "index " + zu_python::Repr(index) +
                                " is out of bounds for axis 0 with size " + std::to_string(n));
  }
  return static_cast<uint64_t>(i);
}

}  // namespace

CallLimits& Limits() { return g_limits; }

PyArray::PyArray(Kind kind, const py::handle& dtype)
    : kind_(kind), code_(ElementCodeOf(dtype)), dtype_(DtypeOf(code_)) {
  CArrayFactory factory;
  IZUArray* raw = nullptr;
  switch (kind) {
    case Kind::kVector:
      raw = factory.AllocVectorArray(code_);
      break;
    case Kind::kDeque:
      raw = factory.AllocDequeArray(code_);
      break;
    case Kind::kFile:
      raw = factory.AllocFileArray(code_);
      break;
    case Kind::kAutoVector:
      raw = factory.AllocAutoVectorArray(code_);
      break;
    case Kind::kAutoDeque:
      raw = factory.AllocAutoDequeArray(code_);
      break;
    case Kind::kAttached:
      break;
  }
  if (raw == nullptr) Raise(PyExc_RuntimeError, "the library made no " + KindName() + " array");
  array_.reset(raw);
  scalar_type_ = dtype_.attr("type");
}

PyArray::PyArray(const py::array& data) : kind_(Kind::kAttached), code_(0) {
  if (data.ndim() != 1) {
    Raise(PyExc_ValueError,
          "attach takes a 1-D array, not one of shape " + zu_python::Repr(data.attr("shape")));
  }
  if (!(data.flags() & py::array::c_style)) {
    Raise(PyExc_ValueError,
          "attach reads the array's buffer in place: it must be C-contiguous "
          "(np.ascontiguousarray makes a copy that is)");
  }
  code_ = ElementCodeOf(data.dtype());
  dtype_ = DtypeOf(code_);
  scalar_type_ = dtype_.attr("type");
  attached_ = data;
  attached_data_ = static_cast<const unsigned char*>(data.data());
  CArrayFactory factory;
  array_.reset(factory.AllocAttachBufferArray(code_, const_cast<unsigned char*>(attached_data_),
                                              static_cast<int64_t>(data.nbytes())));
  if (array_ == nullptr) Raise(PyExc_RuntimeError, "the library refused to attach the buffer");
}

std::string PyArray::KindPhrase() const {
  switch (kind_) {
    case Kind::kAttached:
      return "an attached view";
    case Kind::kAutoVector:
    case Kind::kAutoDeque:
      return "an " + KindName() + " array";
    default:
      return "a " + KindName() + " array";
  }
}

std::string PyArray::KindName() const {
  static const char* const kNames[] = {"vector",      "deque",      "file",
                                       "auto_vector", "auto_deque", "attached"};
  return kNames[static_cast<int>(kind_)];
}

std::string PyArray::Repr() const {
  if (closed()) return "<closed zu_data_manager.Array>";
  std::string size = released_ ? "busy" : "size=" + std::to_string(array_->GetSize());
  return "zu_data_manager.Array(kind='" + KindName() + "', dtype=" + DtypeName(code_) + ", " +
         size + ")";
}

IZUArray& PyArray::Live(bool change) {
  if (array_ == nullptr) Raise(PyExc_ValueError, "operation on a closed array");
  if (released_ || (change && busy_ > 0)) {
    Raise(PyExc_RuntimeError,
          "the array is busy with another call: one thread per array, and no change from "
          "inside a call on it");
  }
  return *array_;
}

void PyArray::RefuseWhileExported(const char* what, int hold) const {
  int views = hold == kHoldAppends ? hold_appends_ : hold == kHoldSets ? hold_sets_ : exports_;
  if (views > 0) {
    Raise(PyExc_BufferError, std::string("cannot ") + what + " while " + std::to_string(views) +
                                 " view(s) of its elements exist (np.asarray, memoryview, "
                                 "to_numpy(copy=False), to_dask): release them first, or "
                                 "copy with a.to_numpy()");
  }
}

void PyArray::RefuseOnView(const char* what) const {
  if (kind_ == Kind::kAttached) {
    Raise(PyExc_NotImplementedError,
          std::string("an attached view is read-only: it cannot ") + what);
  }
}

void PyArray::Close() {
  if (closed()) return;
  Live(true);
  RefuseWhileExported("close the array");
  array_.reset();  // a file-backed array deletes its files here
  attached_ = py::none();
  attached_data_ = nullptr;
}

// --- reading ---------------------------------------------------------------------------------

template <typename T>
void PyArray::ReadOne(IZUArray& array, uint64_t index, T* out) const {
  if (attached_data_ != nullptr) {
    *out = LoadElement<T>(attached_data_, index);
  } else {
    array.GetAt(index, out);
  }
}

template <typename T>
void PyArray::Read(IZUArray& array, uint64_t start, uint64_t count, T* out) const {
  if (attached_data_ != nullptr) {
    std::memcpy(out, attached_data_ + start * sizeof(T), count * sizeof(T));
    return;
  }
  const CallLimits limits = g_limits;
  while (count > 0 && start <= limits.reach) {
    uint64_t piece = std::min(count, limits.piece);
    array.CopyOut(out, static_cast<int>(static_cast<uint32_t>(start)),
                  static_cast<unsigned int>(piece));
    out += piece;
    start += piece;
    count -= piece;
  }
  for (; count > 0; --count) array.GetAt(start++, out++);
}

template <typename T>
void PyArray::ReadStrided(IZUArray& array, uint64_t first, uint64_t step, uint64_t count,
                          T* out) const {
  if (step == 1) return Read(array, first, count, out);
  if (step > kMaxBlockStep) {
    for (uint64_t j = 0; j < count; ++j) ReadOne(array, first + j * step, out + j);
    return;
  }
  // Narrow steps: read whole blocks and keep every step-th element.
  std::vector<T> scratch(kScratchElements);
  for (uint64_t j = 0; j < count;) {
    uint64_t take = std::min(count - j, (kScratchElements - 1) / step + 1);
    Read(array, first + j * step, (take - 1) * step + 1, scratch.data());
    for (uint64_t k = 0; k < take; ++k) out[j + k] = scratch[k * step];
    j += take;
  }
}

py::array PyArray::ReadRange(IZUArray& array, uint64_t start, uint64_t count) {
  py::array out(dtype_, std::vector<py::ssize_t>{static_cast<py::ssize_t>(count)});
  WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* dest = static_cast<T*>(out.mutable_data());
    Released released(this);
    Read(array, start, count, dest);
  });
  return out;
}

py::object PyArray::Element(IZUArray& array, uint64_t index) {
  return WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T value{};
    ReadOne(array, index, &value);
    return scalar_type_(value);
  });
}

py::object PyArray::GetItem(const py::handle& key) {
  IZUArray& array = Live();
  Busy busy(this);
  uint64_t n = array.GetSize();
  if (PySlice_Check(key.ptr())) {
    Py_ssize_t start = 0, stop = 0, step = 0;
    if (PySlice_Unpack(key.ptr(), &start, &stop, &step) < 0) throw py::error_already_set();
    auto count = static_cast<uint64_t>(
        PySlice_AdjustIndices(static_cast<Py_ssize_t>(n), &start, &stop, step));
    py::array out(dtype_, std::vector<py::ssize_t>{static_cast<py::ssize_t>(count)});
    if (count == 0) return std::move(out);
    WithElement(code_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      T* dest = static_cast<T*>(out.mutable_data());
      uint64_t stride = static_cast<uint64_t>(step < 0 ? -step : step);
      // A backward slice is the forward one from its lowest index, reversed.
      uint64_t lowest = step > 0 ? static_cast<uint64_t>(start)
                                 : static_cast<uint64_t>(start) - (count - 1) * stride;
      Released released(this);
      ReadStrided(array, lowest, stride, count, dest);
      if (step < 0) std::reverse(dest, dest + count);
    });
    return std::move(out);
  }
  bool is_array = py::isinstance<py::array>(key);
  if (!is_array && PyIndex_Check(key.ptr())) return Element(array, Normalise(key, n));
  if (is_array || PyList_Check(key.ptr())) return Gather(array, key, n);
  Raise(PyExc_IndexError,
        "only integers, slices and integer or boolean arrays are valid indices of a 1-D array");
}

py::object PyArray::Gather(IZUArray& array, const py::handle& key, uint64_t n) {
  py::module_ np = Numpy();
  auto indexes = py::reinterpret_borrow<py::array>(np.attr("asarray")(key));
  char kind = indexes.dtype().kind();
  if (kind == 'b') {
    if (indexes.ndim() != 1 || static_cast<uint64_t>(indexes.shape(0)) != n) {
      Raise(PyExc_IndexError,
            "boolean index did not match indexed array along dimension 0; "
            "dimension is " +
                std::to_string(n) +
                " but corresponding "
                "boolean dimension is " +
                std::to_string(indexes.shape(0)));
    }
    indexes = np.attr("flatnonzero")(indexes);
  } else if (indexes.size() == 0) {
    indexes = np.attr("zeros")(indexes.attr("shape"), "int64");
  } else if (kind != 'i' && kind != 'u') {
    Raise(PyExc_IndexError, "arrays used as indices must be of integer (or boolean) type");
  } else if (kind == 'u' &&
             py::int_(indexes.attr("max")()) > py::int_(std::numeric_limits<int64_t>::max())) {
    Raise(PyExc_IndexError, "index " + zu_python::Repr(py::int_(indexes.attr("max")())) +
                                " is out of bounds for axis 0 with size " + std::to_string(n));
  }
  py::array_t<int64_t, py::array::c_style | py::array::forcecast> wanted(indexes);
  std::vector<uint64_t> positions(static_cast<size_t>(wanted.size()));
  const int64_t* raw = wanted.data();
  for (size_t j = 0; j < positions.size(); ++j) {
    Wide i = raw[j] < 0 ? static_cast<Wide>(raw[j]) + n : raw[j];
    if (i < 0 || i >= static_cast<Wide>(n)) {
      Raise(PyExc_IndexError, "index " + std::to_string(raw[j]) +
                                  " is out of bounds for axis 0 with size " + std::to_string(n));
    }
    positions[j] = static_cast<uint64_t>(i);
  }
  py::array out(dtype_, ShapeOf(wanted));
  WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* dest = static_cast<T*>(out.mutable_data());
    Released released(this);
    for (uint64_t position : positions) ReadOne(array, position, dest++);
  });
  return std::move(out);
}

void PyArray::SetItem(const py::handle& key, const py::handle& value) {
  IZUArray& array = Live(true);
  Busy busy(this);
  RefuseOnView("be assigned to");
  RefuseWhileExported("assign to file storage", kHoldSets);
  if (py::isinstance<py::array>(key) || !PyIndex_Check(key.ptr())) {
    Raise(PyExc_TypeError, "only one element at a time can be assigned: a[i] = v");
  }
  uint64_t index = Normalise(key, array.GetSize());
  WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T element = ToElement<T>(value);
    array.SetAt(index, &element);
  });
}

// --- adding ----------------------------------------------------------------------------------

void PyArray::CheckAdded(IZUArray& array, int code, uint64_t before, uint64_t given) const {
  uint64_t after = array.GetSize();
  if (code == kZuOk && after == before + given) return;
  std::string what = "appending " + std::to_string(given) + " element(s) to " + KindPhrase() +
                     " of " + DtypeName(code_) + " holding " + std::to_string(before) + " (now " +
                     std::to_string(after) + ")";
  if (code == kZuFailed) {
    if (InMemory() && before + given > kMaxInMemoryElements) {
      Raise(PyExc_RuntimeError, what + " failed: an in-memory array holds at most " +
                                    std::to_string(kMaxInMemoryElements) + " elements");
    }
    if (kind_ == Kind::kFile) {
      Raise(PyExc_RuntimeError, what + " failed in file storage for another reason than room");
    }
    Raise(PyExc_MemoryError, what + " failed: out of memory");
  }
  RaiseNoSpace(what);
}

void PyArray::Append(const py::handle& values) {
  IZUArray& array = Live(true);
  Busy busy(this);
  RefuseOnView("append");
  RefuseWhileExported("append", kHoldAppends);
  WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    uint64_t before = array.GetSize();
    if (IsScalar(values)) {
      T element = ToElement<T>(values);
      CheckAdded(array, array.Append(&element), before, 1);
      return;
    }
    py::array elements = ToElements(values, code_, true);
    if (hold_appends_ > 0) {
      // The values may be a view of this very array (a.append(a)): copy them, so that the
      // view goes and the storage may grow.
      elements = elements.attr("copy")();
      RefuseWhileExported("append", kHoldAppends);
    }
    if (elements.ndim() != 1) {
      Raise(PyExc_ValueError, "append takes one value or a 1-D array, not an array of shape " +
                                  zu_python::Repr(elements.attr("shape")));
    }
    const T* data = static_cast<const T*>(elements.data());
    auto total = static_cast<uint64_t>(elements.size());
    uint64_t done = 0;
    int code = kZuOk;
    {
      Released released(this);
      const uint64_t piece_limit = g_limits.piece;
      while (done < total) {
        uint64_t piece = std::min(total - done, piece_limit);
        code = array.AppendBuffer(data + done, piece);
        if (code != kZuOk || array.GetSize() != before + done + piece) break;
        done += piece;
      }
    }
    CheckAdded(array, code, before, total);
  });
}

void PyArray::Clear() {
  IZUArray& array = Live(true);
  Busy busy(this);
  RefuseOnView("be cleared");
  RefuseWhileExported("clear the array");
  array.Clear();
}

}  // namespace zu_python
