// IZUArray: the one interface through which a host uses every array, whatever its storage
// (vector, block deque, the host's own buffer, mapped temporary files, self-spilling).
//
// Arrays come from CArrayFactory and are owned by the caller, who deletes them through the
// virtual destructor. Element values cross the interface as untyped pointers to one element
// of the array's type; indexes and sizes are unsigned 64-bit. Searches assume the elements
// stand in ascending order and never check it.
//
// Failures are quiet: out-of-range reads return null, out-of-range writes are ignored, and
// the adding operations (Append, Assign, AppendBuffer, AppendRange) never throw but return a
// ZuResult code. Operations an array kind does not support throw std::logic_error "The method
// or operation is not implemented." (attached buffers throw a plain std::exception from
// Append and Clear) — catch std::exception to catch both.
//
// Thread-safety: not thread-safe: one thread per array. The statics below are meant to be
// called before file-backed arrays are created.
#ifndef ZU_DATA_MANAGER_ZU_ARRAY_H_
#define ZU_DATA_MANAGER_ZU_ARRAY_H_

#include <cstdint>
#include <string>

#include "zu_data_manager/element_types.h"
#include "zu_data_manager/export.h"
#include "zu_data_manager/iterators.h"
#include "zu_data_manager/values.h"

class ZU_EXPORT IZUArray {
 public:
  IZUArray() {}
  IZUArray(const IZUArray&) {}
  IZUArray& operator=(const IZUArray&) { return *this; }
  virtual ~IZUArray();

  // index < size: copies the element into *out and returns out; otherwise null.
  virtual void* GetAt(uint64_t index, void* out) = 0;
  // Appends a copy of *value. Returns a ZuResult.
  virtual int Append(const void* value) = 0;
  // index < size: overwrites the element; otherwise nothing happens.
  virtual void SetAt(uint64_t index, const void* value) = 0;
  // Copies the last element into *out and returns out.
  virtual void* GetLast(void* out) = 0;
  // Index of the first element equal to *value; the size when there is none.
  virtual uint64_t Find(const void* value) = 0;
  // Index of the first element greater than *value (the size when none).
  virtual uint64_t UpperBound(const void* value) = 0;
  // Index of the first element not less than *value (the size when none).
  virtual uint64_t LowerBound(const void* value) = 0;
  // Index of the element nearest to *inout, which is replaced by that element. File arrays
  // honour the tolerance; in-memory arrays answer with LowerBound.
  virtual uint64_t FindNearest(void* inout, uint64_t tolerance) = 0;
  // A lower bound that may be coarse (a sampled position) on file storage.
  virtual uint64_t LocateLowerBound(const void* value) = 0;
  // Index of the last element not greater than *value; all-ones when every element is
  // greater. Coarse (sample-granular) on file storage.
  virtual uint64_t FindFloor(const void* value) = 0;
  // Replaces the content by [first, last). Returns a ZuResult.
  virtual int Assign(ArrayIterBase* first, ArrayIterBase* last) = 0;
  // Appends `count` consecutive elements (low 32 bits used). Returns a ZuResult.
  virtual int AppendBuffer(const void* data, uint64_t count) = 0;
  // Appends [first, last); leaves first at last's position. Returns a ZuResult.
  virtual int AppendRange(ArrayIterBase* first, ArrayIterBase* last) = 0;
  // Copies min(count, size - start) elements, element `start` first, into dest.
  virtual void CopyOut(void* dest, int start, unsigned int count) = 0;
  virtual void Clear() = 0;
  virtual uint64_t GetSize() = 0;
  // Re-attaches file storage described by desc; arrays without file storage return true.
  virtual bool LoadDescription(const base::DictionaryValue* desc) = 0;
  // Stores a new description of the backing files in *out (caller owns it); arrays without
  // file storage return true and leave *out untouched.
  virtual bool SaveDescription(base::DictionaryValue** out) = 0;

  // The process-wide directory that holds the temporary files of file-backed arrays. Empty by
  // default, in which case file storage cannot be created. Used unchanged (no separator added).
  static void SetDataDirectory(const std::wstring& dir);
  static std::wstring GetDataDirectory();
  // Deletes leftover data files (*.KMB, *.kmt, top level only) of the data directory; files
  // that a live array of any process holds open are left alone.
  static void CleanTmpFiles();
};

#endif  // ZU_DATA_MANAGER_ZU_ARRAY_H_
