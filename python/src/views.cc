// Views of an Array's elements where they lie: ndarrays and buffers over the runs that the
// library reads in place (zu_data_manager/direct_read.h), and the loans that keep each one
// valid.
//
// A view lives as long as numpy keeps it, so the array must neither free what it shows nor let
// it show a value that a[i] would not answer. Every view holds the Python Array (so `del a`
// leaves it readable) and counts as a loan until it is released; the changes that would end
// its run are refused meanwhile (Hold). Appends to file storage leave its mapped files in
// place, so a growing file array can be viewed while it grows.
#include <algorithm>
#include <string>
#include <vector>

#include "python/src/convert.h"
#include "python/src/errors.h"
#include "python/src/py_array.h"
#include "zu_data_manager/direct_read.h"

namespace zu_python {

namespace {

// The base object of an ndarray view: one loan of the array, returned when numpy drops it.
class Lease {
 public:
  Lease(PyArray* array, int holds)
      : owner_(py::cast(array, py::return_value_policy::reference)), array_(array), holds_(holds) {
    array_->Lend(holds_);
  }
  ~Lease() { array_->Return(holds_); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

 private:
  py::object owner_;  // the Python Array, alive while the view is
  PyArray* array_;    // its C++ object (no cast needed as the interpreter shuts down)
  int holds_;         // Hold bits of the loan
};

// What a buffer of the whole array remembers until it is released.
struct BufferLayout {
  Py_ssize_t shape;
  Py_ssize_t stride;
  PyArray* array;  // the exporter, kept alive by the buffer's reference to it
  int holds;
};

}  // namespace

void RegisterViews(py::module_& m) {
  py::class_<Lease>(m, "_Lease",
                    "Keeps an Array, and what a view of it shows, alive while the view lives.");
}

void PyArray::Lend(int holds) {
  ++exports_;
  if (holds & kHoldAppends) ++hold_appends_;
  if (holds & kHoldSets) ++hold_sets_;
}

void PyArray::Return(int holds) {
  --exports_;
  if (holds & kHoldAppends) --hold_appends_;
  if (holds & kHoldSets) --hold_sets_;
}

std::string PyArray::FindRun(IZUArray& array, uint64_t start, uint64_t count, Lent* lent) const {
  const uint64_t end = start + count;
  if (kind_ == Kind::kAttached) {
    *lent = {attached_data_ + start * code_, count, 0, false};
    return "";
  }
  ZuReadRun run;
  if (!ZuGetReadRun(&array, start, &run)) {
    return "element " + std::to_string(start) + " of " + KindPhrase() +
           " is read through the library only (file storage: elements appended one by one and "
           "not yet written, a file whose element a[i] = v changed outside its last 1 MiB, or a "
           "file that failed)";
  }
  if (run.first + run.count < end) {
    return "elements " + std::to_string(start) + ".." + std::to_string(end - 1) + " of " +
           KindPhrase() + " are not one run of memory: the run around element " +
           std::to_string(start) + " ends before element " + std::to_string(run.first + run.count) +
           (kind_ == Kind::kDeque || kind_ == Kind::kAutoDeque
                ? " (in memory a deque keeps its elements in blocks)"
                : " (files lie end to end in memory only up to 64 files, 8 GiB, on 64-bit Linux)");
  }
  const bool kept = (run.flags & kZuRunKeptByAppends) != 0;
  const bool spilling = kind_ == Kind::kAutoVector || kind_ == Kind::kAutoDeque;
  lent->data = static_cast<const unsigned char*>(run.data) + (start - run.first) * code_;
  lent->count = count;
  // A self-spilling array that fails an append clears itself, in files too, and its files go
  // with their mappings: no append while it lends. A file array keeps a failed file's mapping.
  lent->holds =
      (!kept || spilling ? kHoldAppends : 0) | (kept && kind_ != Kind::kDeque ? kHoldSets : 0);
  lent->writable = kind_ == Kind::kVector;
  return "";
}

py::array PyArray::LendView(const Lent& lent) {
  py::object lease = py::cast(new Lease(this, lent.holds), py::return_value_policy::take_ownership);
  py::array view(dtype_, std::vector<py::ssize_t>{static_cast<py::ssize_t>(lent.count)},
                 std::vector<py::ssize_t>{code_}, lent.data, lease);
  if (!lent.writable) view.attr("setflags")(py::arg("write") = false);
  return view;
}

py::array PyArray::ToNumpy(const py::handle& start, const py::handle& count,
                           const py::handle& copy) {
  IZUArray& array = Live();
  Busy busy(this);
  uint64_t first = ToCount(start, "start");
  uint64_t n = array.GetSize();
  uint64_t available = first < n ? n - first : 0;
  uint64_t wanted = count.is_none() ? available : std::min(ToCount(count, "count"), available);
  first = std::min(first, n);
  const bool always = !copy.is_none() && py::cast<bool>(copy);
  if (!always && wanted > 0) {
    Lent lent;
    std::string why = FindRun(array, first, wanted, &lent);
    if (why.empty()) return LendView(lent);
    if (!copy.is_none()) Raise(PyExc_ValueError, "copy=False: no view, since " + why);
  }
  return ReadRange(array, first, wanted);
}

std::string PyArray::FindWholeRun(IZUArray& array, Lent* lent) const {
  if (kind_ == Kind::kDeque) {
    return "a deque array keeps its elements in blocks of 1 MiB, not one run (view a range "
           "with a.to_numpy(start, count, copy=False))";
  }
  // A vector array's storage is held even while empty: an append may move it.
  lent->holds = kind_ == Kind::kVector ? kHoldAppends : 0;
  lent->writable = kind_ == Kind::kVector;
  static const unsigned char empty = 0;  // an empty array has no storage to point at
  lent->data = &empty;
  lent->count = array.GetSize();
  return lent->count == 0 ? "" : FindRun(array, 0, lent->count, lent);
}

py::object PyArray::AsArray(const py::handle& dtype, const py::handle& copy) {
  IZUArray& array = Live();
  Busy busy(this);
  py::object out;
  const bool always = !copy.is_none() && py::cast<bool>(copy);
  Lent lent;
  std::string why = always ? "" : FindWholeRun(array, &lent);
  if (!always && why.empty()) {
    out = lent.count == 0 ? py::array(dtype_, std::vector<py::ssize_t>{0}) : LendView(lent);
  } else if (!always && !copy.is_none()) {
    Raise(PyExc_ValueError, "copy=False: the elements must be copied, since " + why);
  } else {
    out = ReadRange(array, 0, array.GetSize());
  }
  if (dtype.is_none()) return out;
  return out.attr("astype")(dtype, py::arg("copy") = false);
}

py::object PyArray::ReadRun(const py::handle& index) {
  IZUArray& array = Live();
  Busy busy(this);
  uint64_t i = ToCount(index, "index");
  ZuReadRun run;
  if (kind_ == Kind::kAttached) {
    uint64_t n = array.GetSize();
    if (i >= n) return py::none();
    return py::make_tuple(0, n);
  }
  if (!ZuGetReadRun(&array, i, &run)) return py::none();
  return py::make_tuple(run.first, run.count);
}

// --- buffer protocol -------------------------------------------------------------------------

int PyArray::GetBuffer(PyObject* self, Py_buffer* view, int flags) {
  view->obj = nullptr;
  try {
    auto* array = py::handle(self).cast<PyArray*>();
    IZUArray& live = array->Live();
    Lent lent;
    std::string why = array->FindWholeRun(live, &lent);
    if (!why.empty()) Raise(PyExc_BufferError, "no view of the whole array: " + why);
    if ((flags & PyBUF_WRITABLE) && !lent.writable) {
      Raise(PyExc_BufferError, array->KindPhrase() + " lends its elements read-only");
    }
    static const char* const kFormats[] = {"", "B", "H", "", "I", "", "", "", "q"};
    auto* layout =
        new BufferLayout{static_cast<Py_ssize_t>(lent.count), array->code_, array, lent.holds};
    view->buf = const_cast<unsigned char*>(lent.data);
    view->obj = py::handle(self).inc_ref().ptr();
    view->len = layout->shape * array->code_;
    view->itemsize = array->code_;
    view->readonly = lent.writable ? 0 : 1;
    view->ndim = 1;
    view->format = (flags & PyBUF_FORMAT) ? const_cast<char*>(kFormats[array->code_]) : nullptr;
    view->shape = (flags & PyBUF_ND) ? &layout->shape : nullptr;
    view->strides = (flags & PyBUF_STRIDES) == PyBUF_STRIDES ? &layout->stride : nullptr;
    view->suboffsets = nullptr;
    view->internal = layout;
    array->Lend(layout->holds);
    return 0;
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_BufferError, e.what());
  }
  return -1;
}

void PyArray::ReleaseBuffer(PyObject* /*self*/, Py_buffer* view) {
  auto* layout = static_cast<BufferLayout*>(view->internal);
  layout->array->Return(layout->holds);
  delete layout;
}

}  // namespace zu_python
