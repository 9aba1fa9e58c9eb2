// The extension module zu_data_manager._core: the Array type, the factory functions and the
// data-directory functions, with the docstrings that help() shows.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>

#include "python/src/convert.h"
#include "python/src/errors.h"
#include "python/src/py_array.h"

namespace py = pybind11;
using zu_python::Kind;
using zu_python::PyArray;
using zu_python::Slot;

namespace {

const char kArrayDoc[] = R"doc(A typed array of the library, used like a 1-D numpy array.

Made empty by vector_array, deque_array, file_array, auto_vector_array and auto_deque_array,
or as a read-only view of a numpy array by attach. Elements are uint8, uint16, uint32 or int64.

Supports len(a), a[i], a[i:j:k], a[index_array], a[i] = v, np.asarray(a), dtype, shape, ndim,
size, and `with ... as a:` (close() on exit). Searches assume ascending elements and never
check it. searchsorted answers as numpy.searchsorted on every kind; the library's own searches
(lower_bound, upper_bound, find, find_floor, find_nearest) keep each kind's documented answers.

Views without a copy: np.asarray(a) and memoryview(a) share the elements where they lie: a
vector array's storage (writable), an attached view's buffer, and read-only the mapped files of
file storage and the memory of a self-spilling array, wherever the library reads the whole array
in place as one run (file arrays up to 64 files, 8 GiB, on 64-bit Linux). Elsewhere np.asarray
makes one bulk copy and memoryview raises BufferError; a deque array is always copied.
to_numpy(start, count, copy=None) views a range, to_dask() views every run.
A view keeps the array alive (del a leaves it readable) and never shows a value other than
a[i]: while one lives, clear, close and load_description raise BufferError, as a bytearray
does; so do append where an append may move or free that memory (vector arrays; self-spilling
arrays, which move into files, and clear themselves when an append fails) and a[i] = v on file
storage (file arrays, self-spilling arrays in files). Appends to a file array stay allowed: it
can be viewed while it grows, each view keeping the size it was made with. An append that fails
(OSError ENOSPC) may take elements away: views keep showing them.

Not thread-safe: one thread per array. A call from another thread while a long call (bulk read,
append, batch of searches) runs raises RuntimeError. Operations on a closed array raise
ValueError; pickling raises TypeError.)doc";

const char kKeysNote[] =
    "\n\nkeys: an integer, or an ndarray or sequence of integers of any shape and integer "
    "dtype, each within the array's dtype range. Returns an int for one key, else an int64 "
    "ndarray shaped like keys, answered in one call.\nRaises TypeError for keys that are not "
    "integers, OverflowError for keys outside the dtype's range, ValueError once closed.";

std::string KeysDoc(const std::string& text) { return text + kKeysNote; }

const char kBatchNote[] =
    "\nA batch goes through the library's batch path in one call (keys in any order, sorted "
    "inside), other threads running meanwhile.";

PyArray Make(Kind kind, const py::object& dtype) { return PyArray(kind, dtype); }

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Typed arrays that grow beyond memory into mapped temporary files (extension core).";
  m.attr("__version__") = ZU_VERSION;
  zu_python::RegisterTranslators();
  zu_python::RegisterViews(m);

  py::class_<PyArray> array(m, "Array", py::buffer_protocol(), kArrayDoc);
  // pybind11 points the type's buffer slots at its own pair, which cannot count the views
  // handed out; ours count them, so the storage cannot move while one is alive.
  auto* heap_type = reinterpret_cast<PyHeapTypeObject*>(array.ptr());
  heap_type->as_buffer.bf_getbuffer = &PyArray::GetBuffer;
  heap_type->as_buffer.bf_releasebuffer = &PyArray::ReleaseBuffer;

  array.def("__len__", &PyArray::Size, "Number of elements.\n\nRaises ValueError once closed.")
      .def("__getitem__", &PyArray::GetItem, py::arg("key"),
           R"doc(a[i], a[i:j:k] or a[indexes].

An integer (negative counts from the end) returns one element as a numpy scalar. A slice
returns a new ndarray, read in bulk. An integer or boolean ndarray (or a list) returns a new
ndarray of the elements at those positions, shaped like the index.

Raises IndexError for a position out of range or an index of another type, ValueError once
closed.)doc")
      .def("__setitem__", &PyArray::SetItem, py::arg("index"), py::arg("value"),
           R"doc(a[i] = v: overwrites one element (negative i counts from the end).

On file storage (file arrays, and self-spilling arrays once in files) the library writes the
file only inside the last 1 MiB chunk of a segment; elsewhere only its in-memory samples take
the new value, so a[i] reads the old element back while searches see the new one.

Raises IndexError out of range, TypeError for a value that is not an integer or an index that
is not one integer, OverflowError for a value outside the dtype's range, NotImplementedError on
an attached view, BufferError on file storage while a view of it exists, ValueError once
closed.)doc")
      .def("__array__", &PyArray::AsArray, py::arg("dtype") = py::none(),
           py::arg("copy") = py::none(),
           R"doc(The whole array as an ndarray: a view as the buffer protocol lends it, else a copy.

copy None: a view where the whole array is one run (see help(Array)), else every element in
one bulk copy; True: always the copy; False: the view, or ValueError saying why there is none.
Cast to dtype when given. Raises ValueError once closed.)doc")
      .def("to_numpy", &PyArray::ToNumpy, py::arg("start") = 0, py::arg("count") = py::none(),
           py::kw_only(), py::arg("copy") = true,
           R"doc(`count` elements from position `start` as an ndarray: a copy, or a view.

start and count are any non-negative integers; count None (or past the end) means up to the
end. copy True (the default): a new ndarray, read in bulk. copy None: a view without a copy
where the library reads the range in place as one run, else the copy. copy False: that view,
or ValueError saying why there is none (elements appended one by one and not yet written to
their file, a file that a[i] = v changed, a range across deque blocks or beyond 64 files).
Views are read-only except a vector array's, keep the array alive and hold it as np.asarray
does (see help(Array)). Returns an ndarray of the array's dtype, empty when start is at or past
the end. Raises ValueError for a negative start or count, or once closed.)doc")
      .def("_read_run", &PyArray::ReadRun, py::arg("index"),
           "(first, count) of the run of elements around `index` that reads in place, or None.")
      .def("append", &PyArray::Append, py::arg("values"),
           R"doc(Appends one integer, or a 1-D ndarray or sequence of integers of any length.

Every value is stored unchanged or the call raises: a sequence is taken when every value is
an integer that fits the dtype, an ndarray of another dtype only when numpy's same_kind
casting allows it as well. Returns None.

Raises TypeError for floats and other non-integers, OverflowError for a value outside the
dtype's range, ValueError for input of two or more dimensions; OSError with errno ENOSPC when
file storage finds no room (full disk, file-size limit, no data directory; the message names
the data directory); MemoryError when memory runs out; RuntimeError past the 2^32 - 1 elements
of a vector or deque array. After such a failure a self-spilling array has cleared itself and
a file array keeps the segments written before; the message gives the sizes. Also raises
NotImplementedError on an attached view, BufferError while a view of a vector array or a
self-spilling array exists, ValueError once closed.)doc")
      .def("clear", &PyArray::Clear,
           R"doc(Removes every element; file storage deletes its files. Returns None.

Raises NotImplementedError on an attached view, BufferError while a buffer view exists,
ValueError once closed.)doc")
      .def(
          "lower_bound",
          [](PyArray& a, const py::object& k) { return a.Search(Slot::kLowerBound, k); },
          py::arg("keys"),
          KeysDoc("Index of the first element not less than each key: numpy's side='left', exact "
                  "on every owning kind.\nAn attached view raises NotImplementedError (use "
                  "searchsorted)." +
                  std::string(kBatchNote))
              .c_str())
      .def(
          "upper_bound",
          [](PyArray& a, const py::object& k) { return a.Search(Slot::kUpperBound, k); },
          py::arg("keys"),
          KeysDoc("The library's UpperBound of each key, which differs by kind:\n"
                  "- vector, deque, self-spilling arrays in memory: the index of the first element "
                  "greater than the key (numpy's side='right');\n"
                  "- file storage (file arrays, self-spilling arrays in files): the same, except "
                  "that a key at or above the last element of its segment answers the start of "
                  "the next segment (a multiple of 134217728 // itemsize), also past the end;\n"
                  "- attached views: an exact-match search, the index of the first element equal "
                  "to the key, else len(a).\n"
                  "searchsorted(keys, 'right') gives numpy's answer on every kind." +
                  std::string(kBatchNote))
              .c_str())
      .def(
          "find", [](PyArray& a, const py::object& k) { return a.Search(Slot::kFind, k); },
          py::arg("keys"),
          KeysDoc("Index of the first element equal to each key, else len(a); exact on every "
                  "owning kind.\nAn attached view raises NotImplementedError (its upper_bound is "
                  "this search)." +
                  std::string(kBatchNote))
              .c_str())
      .def(
          "find_floor",
          [](PyArray& a, const py::object& k) { return a.Search(Slot::kFindFloor, k); },
          py::arg("keys"),
          KeysDoc("The library's FindFloor of each key: where the key would stand, or the "
                  "element before.\n"
                  "- in memory: the first element equal to the key, else the last element below "
                  "it; -1 when every element is greater, 0 on an empty array;\n"
                  "- file storage: coarse, a sampled position (a multiple of 4096 // itemsize) for "
                  "the caller to refine, and len(a) when every element is greater.\n"
                  "An attached view raises NotImplementedError.")
              .c_str())
      .def("find_nearest", &PyArray::FindNearest, py::arg("keys"), py::arg("tolerance") = 0,
           R"doc(The library's FindNearest of each key: (index, value).

- in memory: the tolerance is ignored; index is lower_bound(key) and value the element there,
  or (len(a), key) when every element is smaller;
- file storage: a sampled element that differs from the key by less than `tolerance` may
  answer (index and value of that sample); otherwise index is the exact lower bound of the key
  and value is the key itself.
Returns (int, numpy scalar) for one key, or (int64 ndarray, ndarray of the dtype) shaped like
an array of keys. Raises as lower_bound does, and ValueError for a negative tolerance.)doc")
      .def(
          "searchsorted", &PyArray::SearchSorted, py::arg("v"), py::arg("side") = "left",
          py::arg("sorter") = py::none(),
          R"doc(numpy.searchsorted over the array, on every kind (file storage and attached views too).

The signature of ndarray.searchsorted, so np.searchsorted(a, v, side) calls it and copies
nothing. For each key of v the index where it would be inserted to keep the order: before equal
elements for side='left', after them for side='right'. v is any real number (ints of any size,
floats; NaN sorts last) or an array of them of any shape, compared exactly without conversion
to the dtype. The batch goes through the library in one call, other threads running meanwhile.
Returns a numpy.intp for one key, else an int64 ndarray shaped like v.
Raises ValueError for another side, for a sorter other than None (the elements are searched in
their own, ascending order) or once closed, TypeError for keys that are not real numbers.)doc")
      .def("save_description", &PyArray::SaveDescription,
           R"doc(Describes the backing files: {"files": [{"file_path": str, "size": int}, ...]}.

Returns that dict, or None for an array without files (vector, deque, attached, a self-spilling
array still in memory). The files exist as long as an array owns them. Raises ValueError once
closed.)doc")
      .def(
          "load_description", &PyArray::LoadDescription, py::arg("description"),
          R"doc(Takes over the files of a description (a dict from save_description, or its JSON text).

The array's previous content is dropped; from then on it owns the files and deletes them when
closed. Returns None. Raises ValueError naming every missing or foreign file (not named
{GUID}.KMB, a link, not a regular file, or shorter than described) before anything changes,
for malformed descriptions, and on kinds without files (vector, deque, attached, a
self-spilling array still in memory); BufferError while a buffer view exists.)doc")
      .def("close", &PyArray::Close,
           R"doc(Releases the array now: its memory, or its files, which are deleted.

Later operations raise ValueError; closing again does nothing. Returns None. Raises BufferError
while a buffer view exists.)doc")
      .def(
          "__enter__", [](py::object self) { return self; }, "Returns the array itself.")
      .def(
          "__exit__",
          [](PyArray& a, const py::object&, const py::object&, const py::object&) { a.Close(); },
          "Closes the array (see close).")
      .def(
          "__reduce_ex__",
          [](const PyArray&, const py::object&) -> py::object {
            zu_python::Raise(PyExc_TypeError,
                             "a zu_data_manager.Array cannot be pickled: its elements live in "
                             "this process's memory or in temporary files that go with it. "
                             "Pickle a.to_numpy(), or keep a.save_description() while the files "
                             "exist");
          },
          py::arg("protocol"), "Raises TypeError: arrays are not pickled.")
      .def("__repr__", &PyArray::Repr, "Kind, dtype and size (or closed).")
      .def_property_readonly("dtype", &PyArray::dtype, "numpy dtype of the elements.")
      .def_property_readonly(
          "shape", [](PyArray& a) { return py::make_tuple(a.Size()); }, "(len(a),)")
      .def_property_readonly(
          "ndim", [](PyArray&) { return 1; }, "1")
      .def_property_readonly("size", &PyArray::Size, "Number of elements, len(a).")
      .def_property_readonly("itemsize", &PyArray::itemsize, "Bytes per element.")
      .def_property_readonly(
          "nbytes", [](PyArray& a) { return a.Size() * a.itemsize(); }, "size * itemsize")
      .def_property_readonly("kind", &PyArray::KindName,
                             "'vector', 'deque', 'file', 'auto_vector', 'auto_deque' or "
                             "'attached'.")
      .def_property_readonly("closed", &PyArray::closed, "Whether close() has run.");

  const char* const kDtypeNote =
      "\n\ndtype: uint8, uint16, uint32 or int64, as anything numpy.dtype accepts.\n"
      "Returns an empty Array. Raises TypeError for another dtype.";
  auto factory = [&](const char* name, Kind kind, const char* text) {
    m.def(
        name, [kind](const py::object& dtype) { return Make(kind, dtype); }, py::arg("dtype"),
        (std::string(text) + kDtypeNote).c_str());
  };
  factory("vector_array", Kind::kVector,
          "A new array in one std::vector in memory, at most 2^32 - 1 elements; it lends its "
          "storage without a copy (buffer protocol).");
  factory("deque_array", Kind::kDeque,
          "A new array in a block deque in memory (1 MiB blocks, at most 2^32 - 1 elements): "
          "appends never move earlier elements.");
  factory("file_array", Kind::kFile,
          "A new array in memory-mapped temporary files in the data directory (see "
          "set_data_directory), limited by disk space only; close() or garbage collection "
          "deletes the files.");
  factory("auto_vector_array", Kind::kAutoVector,
          "A new self-spilling array: a vector in memory up to 8,388,608 elements, then moved "
          "once and for good into temporary files in the data directory.");
  factory("auto_deque_array", Kind::kAutoDeque,
          "A new self-spilling array: a block deque in memory up to 8,388,608 elements, then "
          "moved once and for good into temporary files in the data directory.");
  m.def(
      "attach", [](const py::array& data) { return PyArray(data); }, py::arg("data"),
      R"doc(A read-only view of a numpy array's buffer, without a copy.

data: a 1-D, C-contiguous ndarray of uint8, uint16, uint32 or int64, which the view keeps alive.
Keep its size and, for searches, its ascending order while the view is used.
Returns an Array of kind 'attached'. Raises ValueError for another shape or a non-contiguous
array, TypeError for another dtype.)doc");

  m.def(
      "set_data_directory",
      [](const py::object& path) {
        IZUArray::SetDataDirectory(
            py::module_::import("os").attr("fspath")(path).cast<std::wstring>());
      },
      py::arg("path"),
      R"doc(Sets the process-wide directory for the files of file-backed arrays.

path: str or os.PathLike; the directory and its parents are created on demand, and arrays that
create files afterwards use it. Returns None.)doc");
  m.def(
      "get_data_directory", []() { return zu_python::DataDirectoryText(); },
      "Returns the data directory as a str, '' when none is set.");
  m.def("clean_tmp_files", &IZUArray::CleanTmpFiles,
        R"doc(Deletes leftover data files (*.KMB, *.kmt, top level only) of the data directory.

Files that a live array of any process holds open are kept. Returns None.)doc");
  m.def(
      "_set_call_limits",
      [](uint64_t piece, uint64_t reach) {
        if (piece == 0 || piece > 0x7FFFFFFFu || reach > 0xFFFFFFFFu) {
          zu_python::Raise(PyExc_ValueError, "piece must be 1..2^31-1 and reach below 2^32");
        }
        zu_python::CallLimits old = zu_python::Limits();
        zu_python::Limits() = {piece, reach};
        return py::make_tuple(old.piece, old.reach);
      },
      py::arg("piece"), py::arg("reach"),
      "For tests: elements per library call and the largest CopyOut start; returns the old "
      "pair.");
}
