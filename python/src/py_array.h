// zu_data_manager.Array: one library array behind numpy's idioms.
//
// The Python object owns its IZUArray until close() or garbage collection; an attached view also
// holds the numpy array whose buffer it reads. Long calls (bulk reads, appends, batches of
// searches) let other Python threads run meanwhile, but the library serves one thread per array:
// the array refuses other calls (RuntimeError) until the long one returns.
// Views: the array lends its elements where they lie (the runs of direct_read.h) to numpy,
// through the buffer protocol (np.asarray, memoryview) and to_numpy(copy=False). Each view
// keeps the Python Array alive and counts as a loan until numpy lets it go; while loans are
// out, the array refuses with BufferError, as a bytearray does, every change that would end or
// change what they show (see Hold).
#ifndef ZU_PYTHON_PY_ARRAY_H_
#define ZU_PYTHON_PY_ARRAY_H_

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "zu_data_manager/zu_data_manager.h"

namespace zu_python {

namespace py = pybind11;

enum class Kind { kVector, kDeque, kFile, kAutoVector, kAutoDeque, kAttached };
enum class Slot { kLowerBound, kUpperBound, kFind, kFindFloor };

// What a lent view refuses besides clear, close and load_description, which every view
// refuses (they end every run).
enum Hold : int {
  kHoldAppends = 1,  // memory an append may move or free: vector and self-spilling arrays
  kHoldSets = 2,     // file storage, where a[i] = v takes the file's elements out of the runs
};

// Elements that a view may show: `count` elements at `data`, and what the view refuses.
struct Lent {
  const unsigned char* data = nullptr;
  uint64_t count = 0;
  int holds = 0;          // Hold bits
  bool writable = false;  // a vector array lends its storage for writing, as it always has
};

// How many elements one library call moves, and the largest start that CopyOut can address
// (its start is 32 bits wide; reads beyond go element by element). Tests lower them to cover
// the split without 2^32 elements.
struct CallLimits {
  uint64_t piece;  // < 2^31: a range's count is a signed 32-bit difference of positions
  uint64_t reach;  // <= 2^32 - 1
};
CallLimits& Limits();

// Registers the type of the objects that hold views' loans (module _core, as _Lease).
void RegisterViews(py::module_& m);

// An element of a buffer that need not be aligned for T.
template <typename T>
T LoadElement(const unsigned char* block, uint64_t index) {
  T v;
  std::memcpy(&v, block + index * sizeof(T), sizeof(T));
  return v;
}

class PyArray {
 public:
  PyArray(Kind kind, const py::handle& dtype);
  // A read-only view of a 1-D, C-contiguous numpy array of one of the four element types.
  explicit PyArray(const py::array& data);

  void Close();
  bool closed() const { return array_ == nullptr; }

  uint64_t Size() { return Live().GetSize(); }
  py::dtype dtype() const { return dtype_; }
  int itemsize() const { return code_; }
  std::string KindName() const;
  std::string KindPhrase() const;  // "a file array", "an attached view", ...
  std::string Repr() const;

  py::object GetItem(const py::handle& key);
  void SetItem(const py::handle& key, const py::handle& value);
  // copy True: a new ndarray; None: a view where one run holds the range, else a new ndarray;
  // False: a view, else ValueError saying why there is none.
  py::array ToNumpy(const py::handle& start, const py::handle& count, const py::handle& copy);
  py::object AsArray(const py::handle& dtype, const py::handle& copy);
  // (first, count) of the run around element `index`, or None (see ZuGetReadRun).
  py::object ReadRun(const py::handle& index);

  void Append(const py::handle& values);
  void Clear();

  py::object Search(Slot slot, const py::handle& keys);
  py::object FindNearest(const py::handle& keys, const py::handle& tolerance);
  py::object SearchSorted(const py::handle& keys, const std::string& side,
                          const py::handle& sorter);

  py::object SaveDescription();
  void LoadDescription(const py::handle& description);

  // The buffer protocol's two slots, installed on the Python type: the whole array as one view.
  static int GetBuffer(PyObject* self, Py_buffer* view, int flags);
  static void ReleaseBuffer(PyObject* self, Py_buffer* view);
  // A view's loan of the array: from its making to its release, with what it refuses.
  void Lend(int holds);
  void Return(int holds);

 private:
  // Marks the array in use for one call, from its first check to its return. Python code that
  // a conversion runs (an __index__, an __array__) may still read the array, but not change or
  // close it under the call.
  class Busy {
   public:
    explicit Busy(PyArray* array) : array_(array) { ++array_->busy_; }
    ~Busy() { --array_->busy_; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

   private:
    PyArray* array_;
  };
  // Lets other threads run while the library works; they find the array refused meanwhile.
  class Released {
   public:
    explicit Released(PyArray* array) : flag_(array) {}

   private:
    struct Flag {  // set before the GIL goes, cleared after it is back
      explicit Flag(PyArray* array) : array(array) { array->released_ = true; }
      ~Flag() { array->released_ = false; }
      PyArray* array;
    } flag_;
    py::gil_scoped_release release_;
  };

  // The array, or ValueError once closed, RuntimeError while another thread's call runs or,
  // for a call that changes the array, while a call on it is under way.
  IZUArray& Live(bool change = false);
  // BufferError while views live that `hold` (0: any view) stops.
  void RefuseWhileExported(const char* what, int hold = 0) const;
  void RefuseOnView(const char* what) const;
  bool InMemory() const { return kind_ == Kind::kVector || kind_ == Kind::kDeque; }

  template <typename T>
  void ReadOne(IZUArray& array, uint64_t index, T* out) const;
  template <typename T>
  void Read(IZUArray& array, uint64_t start, uint64_t count, T* out) const;
  template <typename T>
  void ReadStrided(IZUArray& array, uint64_t first, uint64_t step, uint64_t count, T* out) const;
  py::array ReadRange(IZUArray& array, uint64_t start, uint64_t count);
  py::object Gather(IZUArray& array, const py::handle& key, uint64_t n);
  py::object Element(IZUArray& array, uint64_t index);
  void CheckAdded(IZUArray& array, int code, uint64_t before, uint64_t given) const;
  // The memory that holds elements [start, start + count), count > 0, in *lent; else why
  // there is none, as a sentence.
  std::string FindRun(IZUArray& array, uint64_t start, uint64_t count, Lent* lent) const;
  // FindRun over the whole array (any size, 0 too); a deque array lends no whole array.
  std::string FindWholeRun(IZUArray& array, Lent* lent) const;
  // An ndarray over what FindRun found, holding a loan of this array.
  py::array LendView(const Lent& lent);

  std::unique_ptr<IZUArray> array_;  // null once closed
  Kind kind_;
  int code_;                // element size in bytes: 1, 2, 4 or 8
  py::dtype dtype_;         // the numpy dtype of code_
  py::object scalar_type_;  // numpy scalar type of the elements (numpy.int64, ...)
  py::object attached_;     // the numpy array an attached view reads, else None
  const unsigned char* attached_data_ = nullptr;  // its buffer, alive as long as attached_
  int exports_ = 0;                               // views lent and not yet released
  int hold_appends_ = 0;                          // of them, those with kHoldAppends
  int hold_sets_ = 0;                             // of them, those with kHoldSets
  int busy_ = 0;                                  // calls under way (see Busy)
  bool released_ = false;                         // one of them has let go of the GIL
};

}  // namespace zu_python

#endif  // ZU_PYTHON_PY_ARRAY_H_
