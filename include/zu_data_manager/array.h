// zu::Array<T>: a typed, move-only owner of an IZUArray, for hosts that prefer the feel of a
// standard container to untyped pointers and result codes; zu::Appender<T>: the way to append
// elements one at a time without a call through the interface for each.
//
//   auto times = zu::make_auto_deque_array<int64_t>();
//   times.append(42);                           // zu::Status::ok, failed or no_space
//   times.append({43, 44});                     // also any std::vector, std::array, std::span
//   {
//     auto out = times.appender();              // staged here, handed over in blocks
//     for (int64_t t = 45; t < 1000; ++t) out.push_back(t);
//     if (out.flush() != zu::Status::ok) { /* the array kept fewer than it was given */ }
//   }
//   int64_t first = times[0];                   // index < size(), as with std::vector
//   auto r = times.reader();                    // r[i]: in place, no call per element
//   times.for_each_run(0, times.size(), [&](const int64_t* data, size_t n) { /* ... */ });
//   uint64_t i = times.lower_bound(40);
//   std::vector<uint64_t> at = times.lower_bound(keys);   // a batch: any key order
//   auto [at, nearest] = times.find_nearest(47, /*tolerance=*/10);
//   std::string json = times.save_description();
//
// Failures: an append answers no_space whenever the array kept fewer elements than it was
// given, also where the array itself answers success (a file array whose storage died drops
// single appends quietly): the size is the witness. A self-spilling array that fails an add
// clears itself, so its size is then 0.
//
// Reads: operator[], copy_out, the input iterator, reader() and for_each_run() read the
// elements in place where the array allows (see direct_read.h and reader.h) and through the
// interface elsewhere. operator[] keeps the run it last read from until this Array or one of
// its appenders changes the array (or get() or release() hands the raw array out): after a
// change made through a raw pointer kept from get(), call get() again before reading.
//
// Element types are checked at compile time against what each kind supports: the four integer
// types everywhere, SimpleBigData<16..512> records for the self-spilling kinds only.
// Header-only over the public interface (nothing here is exported); C++17 or later.
// Thread-safety: not thread-safe: one thread per array; an appender is a use of its array.
#ifndef ZU_DATA_MANAGER_ARRAY_H_
#define ZU_DATA_MANAGER_ARRAY_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zu_data_manager/array_factory.h"
#include "zu_data_manager/direct_read.h"
#include "zu_data_manager/reader.h"
#include "zu_data_manager/values.h"

namespace zu {

// The outcome of an append, one-to-one with the library's result codes.
enum class Status { ok = kZuOk, failed = kZuFailed, no_space = kZuNoSpace };

template <typename T>
struct is_integer_element
    : std::bool_constant<std::is_same_v<T, uint8_t> || std::is_same_v<T, uint16_t> ||
                         std::is_same_v<T, uint32_t> || std::is_same_v<T, int64_t>> {};

template <typename T>
struct is_record_element : std::false_type {};
template <int N>
struct is_record_element<SimpleBigData<N>> : std::true_type {};

namespace internal {

// A range crosses the interface with 32-bit positions, and the containers take its length as
// a signed 32-bit difference: longer appends go over in pieces of this many elements.
constexpr uint64_t kAppendPiece = uint64_t{1} << 30;

// The status of an add of `given` elements from its result code and the sizes around it.
inline Status Witness(int code, uint64_t before, uint64_t after, uint64_t given) {
  if (code != kZuOk) return static_cast<Status>(code);
  return after >= before && after - before >= given ? Status::ok : Status::no_space;
}

// Appends count (below 2^30) elements from data with one AppendBuffer.
inline Status AppendPiece(IZUArray* array, const void* data, uint64_t count) {
  const uint64_t before = array->GetSize();
  const int code = array->AppendBuffer(data, count);
  return Witness(code, before, array->GetSize(), count);
}

// Whether Range is a contiguous range of T: std::data and std::size apply, and the data is T.
template <typename T, typename Range, typename = void>
struct is_contiguous_range_of : std::false_type {};
template <typename T, typename Range>
struct is_contiguous_range_of<T, Range,
                              std::void_t<decltype(std::data(std::declval<const Range&>())),
                                          decltype(std::size(std::declval<const Range&>()))>>
    : std::is_same<std::remove_cv_t<
                       std::remove_pointer_t<decltype(std::data(std::declval<const Range&>()))>>,
                   T> {};

}  // namespace internal

// Appends elements one at a time, staging them in a block of its own and handing each full
// block to the array with one AppendBuffer; flush() hands over the rest and answers for
// everything since the appender was made. The destructor flushes too, but only flush() tells
// the outcome.
//
// After a failed hand-over the appender hands nothing more over: the array has lost elements
// (a self-spilling array clears itself), and what follows would no longer line up. flush()
// keeps answering that failure. The appender never throws: an array that refuses appends with
// an error (a view) makes it answer failed.
//
// The array must outlive the appender. Other appends to the array in the meantime land before
// the elements still staged here.
template <typename T>
class Appender {
 public:
  // Bytes staged before a hand-over: large enough that the call costs nothing per element,
  // small enough to stay in the processor's cache.
  static constexpr size_t kBlockBytes = 64 * 1024;
  static constexpr size_t kBlockLength = sizeof(T) < kBlockBytes ? kBlockBytes / sizeof(T) : 1;

  // `reads`, when given, forgets its run at every hand-over (an append may end it).
  explicit Appender(IZUArray* array, Reader<T>* reads = nullptr)
      : array_(array),
        reads_(reads),
        block_(new T[kBlockLength]),
        next_(block_.get()),
        end_(block_.get() + kBlockLength) {}
  // The moved-from appender may only be destroyed.
  Appender(Appender&& other) noexcept
      : array_(other.array_),
        reads_(other.reads_),
        block_(std::move(other.block_)),
        next_(other.next_),
        end_(other.end_),
        status_(other.status_) {
    other.next_ = other.end_ = nullptr;
  }
  Appender& operator=(Appender&&) = delete;
  Appender(const Appender&) = delete;
  Appender& operator=(const Appender&) = delete;
  ~Appender() { flush(); }

  void push_back(const T& value) {
    if (next_ == end_) HandOver();
    *next_++ = value;
  }
  // Hands the staged elements over; ok when the array kept every element pushed so far. An
  // array that refuses appends by raising an error (a view) answers failed here.
  Status flush() {
    if (next_ != block_.get()) HandOver();
    return status_;
  }

 private:
  // Nothing leaves a hand-over by exception, and only values cross into the call, never the
  // appender's address: an appender that lives in the caller's function then stays in
  // registers through the filling loop. (Were a hand-over, or flush(), able to throw, the
  // compiler would store the position to memory at every element, for the destructor to find
  // on the way out; in cache that store made a push_back about half again as long.)
  void HandOver() {
    const auto count = static_cast<uint64_t>(next_ - block_.get());
    next_ = block_.get();
    if (reads_ != nullptr) reads_->reset();
    status_ = Give(array_, status_, block_.get(), count);
  }
  static Status Give(IZUArray* array, Status status, const T* block, uint64_t count) noexcept {
    if (status != Status::ok) return status;
    try {
      return internal::AppendPiece(array, block, count);
    } catch (...) {
      return Status::failed;
    }
  }

  IZUArray* array_;             // not owned
  Reader<T>* reads_;            // not owned; forgets its run at each hand-over, or null
  std::unique_ptr<T[]> block_;  // kBlockLength elements; [block_, next_) are staged
  T* next_;                     // where the next element goes; block_ <= next_ <= end_
  T* end_;                      // block_ + kBlockLength
  Status status_ = Status::ok;  // the first failure; nothing is handed over after one
};

template <typename T>
class Array {
 public:
  using value_type = T;

  Array() = default;
  // Takes ownership of `raw` (which must hold elements of type T).
  explicit Array(IZUArray* raw) : array_(raw), reads_(new Reader<T>(raw)) {}
  Array(Array&&) noexcept = default;
  Array& operator=(Array&&) noexcept = default;
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;

  explicit operator bool() const { return array_ != nullptr; }
  // The raw array; operator[] forgets its run, since the caller may change the array next.
  IZUArray* get() const {
    Forget();
    return array_.get();
  }
  // Gives up ownership: the caller deletes the array, or never does (a file-backed array that
  // is never destroyed leaves its files behind for a description to name).
  IZUArray* release() {
    reads_.reset();
    return array_.release();
  }

  Status append(const T& value) {
    Forget();
    const uint64_t before = array_->GetSize();
    const int code = array_->Append(&value);
    return internal::Witness(code, before, array_->GetSize(), 1);
  }
  // Appends count elements from a contiguous buffer, in as few calls as the interface allows.
  // On a failure the elements of the failing piece and after it are not appended (and a
  // self-spilling array has cleared itself).
  Status append(const T* data, uint64_t count) {
    Forget();
    for (uint64_t done = 0; done < count;) {
      const uint64_t piece = std::min(count - done, internal::kAppendPiece);
      const Status status = internal::AppendPiece(array_.get(), data + done, piece);
      if (status != Status::ok) return status;
      done += piece;
    }
    return Status::ok;
  }
  // Any contiguous range of T: std::vector, std::array, a C array, std::span (C++20).
  template <typename Range,
            typename = std::enable_if_t<internal::is_contiguous_range_of<T, Range>::value>>
  Status append(const Range& values) {
    return append(std::data(values), static_cast<uint64_t>(std::size(values)));
  }
  Status append(std::initializer_list<T> values) {
    return append(values.begin(), static_cast<uint64_t>(values.size()));
  }
  // One element at a time without a call through the interface for each; see Appender.
  Appender<T> appender() { return Appender<T>(array_.get(), reads_.get()); }

  uint64_t size() const { return array_->GetSize(); }
  bool empty() const { return size() == 0; }
  // The element at index; index < size() is the caller's to keep, as with std::vector. Read in
  // place where the array allows (see Reader).
  T operator[](uint64_t index) const { return (*reads_)[index]; }
  // A reader of its own (see reader.h): valid until the array changes in a way that ends runs.
  Reader<T> reader() const { return Reader<T>(array_.get()); }
  // f(const T* data, size_t n) over consecutive runs covering [start, start + count) clipped to
  // the size, in place where the storage allows (see ForEachRun). Returns the elements covered.
  template <typename F>
  uint64_t for_each_run(uint64_t start, uint64_t count, F&& f) const {
    return ForEachRun<T>(array_.get(), start, count, std::forward<F>(f));
  }
  std::optional<T> at(uint64_t index) const {
    T out;
    if (array_->GetAt(index, &out) == nullptr) return std::nullopt;
    return out;
  }
  std::optional<T> back() const {
    uint64_t n = size();
    return n == 0 ? std::nullopt : at(n - 1);
  }
  void set(uint64_t index, const T& value) {
    Forget();
    array_->SetAt(index, &value);
  }
  void clear() {
    Forget();
    array_->Clear();
  }

  // Searches over ascending data.
  uint64_t lower_bound(const T& value) const { return array_->LowerBound(&value); }
  uint64_t upper_bound(const T& value) const { return array_->UpperBound(&value); }
  // Index of the first element equal to value, or size() when there is none.
  uint64_t find(const T& value) const { return array_->Find(&value); }
  // Index of the last element not greater than value; all-ones when every element is
  // greater. On file storage a sampled position at or before it (see the README).
  uint64_t find_floor(const T& value) const { return array_->FindFloor(&value); }
  // The element nearest to value as (index, element). In-memory kinds answer the lower bound
  // whatever the tolerance; file storage answers a sampled element within the tolerance, else
  // the lower bound. (size(), value) when no element is found. (A variable that is not const
  // selects the in-out form below.)
  std::pair<uint64_t, T> find_nearest(const T& value, uint64_t tolerance) const {
    T found = value;
    const uint64_t index = array_->FindNearest(&found, tolerance);
    // File storage leaves the value alone when it answered from the file's data.
    if (found == value) array_->GetAt(index, &found);
    return {index, found};
  }
  // The in-out form: a variable becomes the element that FindNearest chose (file storage
  // leaves it alone when it answered from the file's data); returns its index.
  uint64_t find_nearest(T& value, uint64_t tolerance) const {
    return array_->FindNearest(&value, tolerance);
  }

  // Batches: out[k] is what lower_bound (upper_bound, find) answers for keys[k], k < n, keys
  // in any order; one call to the library sorts them and searches the data in place where it
  // can (see ZuSearchBatch).
  void lower_bound(const T* keys, size_t n, uint64_t* out) const {
    Batch(kZuSearchLowerBound, keys, n, out);
  }
  void upper_bound(const T* keys, size_t n, uint64_t* out) const {
    Batch(kZuSearchUpperBound, keys, n, out);
  }
  void find(const T* keys, size_t n, uint64_t* out) const { Batch(kZuSearchFind, keys, n, out); }
  // The same over any contiguous range of keys (std::vector, std::array, std::span, ...).
  template <typename Range,
            typename = std::enable_if_t<internal::is_contiguous_range_of<T, Range>::value>>
  std::vector<uint64_t> lower_bound(const Range& keys) const {
    return Batch(kZuSearchLowerBound, keys);
  }
  template <typename Range,
            typename = std::enable_if_t<internal::is_contiguous_range_of<T, Range>::value>>
  std::vector<uint64_t> upper_bound(const Range& keys) const {
    return Batch(kZuSearchUpperBound, keys);
  }
  template <typename Range,
            typename = std::enable_if_t<internal::is_contiguous_range_of<T, Range>::value>>
  std::vector<uint64_t> find(const Range& keys) const {
    return Batch(kZuSearchFind, keys);
  }

  // Copies up to count elements starting at `start` into dest; returns how many it copied.
  // Runs that read in place are copied from where they lie; the rest goes through CopyOut while
  // the start fits its 32-bit argument, element by element beyond.
  uint64_t copy_out(uint64_t start, T* dest, uint64_t count) const {
    const uint64_t n = size();
    if (start >= n) return 0;
    const uint64_t total = std::min(count, n - start);
    internal::WalkRuns<T>(
        array_.get(), start, start + total, total,
        [&](const T* data, uint64_t first, uint64_t k) {
          std::memcpy(static_cast<void*>(dest + (first - start)), data, k * sizeof(T));
        },
        [&](uint64_t first, uint64_t k) {
          internal::CopyThrough(array_.get(), first, dest + (first - start), k);
        });
    return total;
  }

  // The description of the backing files as JSON text; "" for arrays without files.
  std::string save_description() const {
    base::DictionaryValue* raw = nullptr;
    if (!array_->SaveDescription(&raw) || raw == nullptr) return std::string();
    std::unique_ptr<base::DictionaryValue> desc(raw);
    return base::WriteJson(*desc, /*pretty=*/true);
  }
  // Re-attaches the files of a description made by save_description(). False on malformed
  // text or when the array refuses it.
  bool load_description(const std::string& json) {
    Forget();
    std::unique_ptr<base::DictionaryValue> desc = base::ReadJsonDictionary(json);
    return desc != nullptr && array_->LoadDescription(desc.get());
  }

  // Input iteration over the elements, read in place where the array allows (a reader of its
  // own); valid until the array changes, as any iterator.
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    const_iterator(const Array* array, uint64_t index)
        : reads_(array->array_.get()), end_(array->size()), index_(index) {
      Load();
    }
    const T& operator*() const { return current_; }
    const T* operator->() const { return &current_; }
    const_iterator& operator++() {
      ++index_;
      Load();
      return *this;
    }
    bool operator==(const const_iterator& other) const { return index_ == other.index_; }
    bool operator!=(const const_iterator& other) const { return index_ != other.index_; }

   private:
    void Load() {
      if (index_ < end_) current_ = reads_[index_];
    }
    Reader<T> reads_;  // over the array, not owned
    uint64_t end_;     // the size when iteration began
    uint64_t index_;   // position of current_
    T current_{};      // the element at index_ (unchanged past the end)
  };

  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size()); }

 private:
  void Forget() const {
    if (reads_ != nullptr) reads_->reset();
  }
  void Batch(ZuSearch search, const T* keys, size_t n, uint64_t* out) const {
    if (n == 0 || ZuSearchBatch(array_.get(), search, keys, n, out)) return;
    // An array the library did not make: one search per key.
    for (size_t k = 0; k < n; ++k) {
      out[k] = search == kZuSearchLowerBound   ? array_->LowerBound(keys + k)
               : search == kZuSearchUpperBound ? array_->UpperBound(keys + k)
                                               : array_->Find(keys + k);
    }
  }
  template <typename Range>
  std::vector<uint64_t> Batch(ZuSearch search, const Range& keys) const {
    std::vector<uint64_t> out(static_cast<size_t>(std::size(keys)));
    Batch(search, std::data(keys), out.size(), out.data());
    return out;
  }

  std::unique_ptr<IZUArray> array_;  // null only for a default-made or moved-from Array
  // operator[]'s reader, on the heap so that an appender's pointer to it survives a move of
  // the Array; forgets its run at each change made through this Array or its appenders.
  std::unique_ptr<Reader<T>> reads_;
};

namespace internal {
template <typename T>
Array<T> Make(IZUArray* (CArrayFactory::*alloc)(int)) {
  CArrayFactory factory;
  return Array<T>((factory.*alloc)(static_cast<int>(sizeof(T))));
}
}  // namespace internal

template <typename T>
Array<T> make_vector_array() {
  static_assert(is_integer_element<T>::value, "vector arrays hold uint8/16/32_t or int64_t");
  return internal::Make<T>(&CArrayFactory::AllocVectorArray);
}
template <typename T>
Array<T> make_deque_array() {
  static_assert(is_integer_element<T>::value, "deque arrays hold uint8/16/32_t or int64_t");
  return internal::Make<T>(&CArrayFactory::AllocDequeArray);
}
template <typename T>
Array<T> make_file_array() {
  static_assert(is_integer_element<T>::value, "file arrays hold uint8/16/32_t or int64_t");
  return internal::Make<T>(&CArrayFactory::AllocFileArray);
}
template <typename T>
Array<T> make_auto_deque_array() {
  static_assert(is_integer_element<T>::value || is_record_element<T>::value,
                "self-spilling arrays hold integers or SimpleBigData records");
  return internal::Make<T>(&CArrayFactory::AllocAutoDequeArray);
}
template <typename T>
Array<T> make_auto_vector_array() {
  static_assert(is_integer_element<T>::value || is_record_element<T>::value,
                "self-spilling arrays hold integers or SimpleBigData records");
  return internal::Make<T>(&CArrayFactory::AllocAutoVectorArray);
}

// A read-only view of count elements of the caller's buffer; the buffer must outlive it.
template <typename T>
Array<T> attach(const T* data, size_t count) {
  static_assert(is_integer_element<T>::value, "attached arrays hold uint8/16/32_t or int64_t");
  CArrayFactory factory;
  return Array<T>(factory.AllocAttachBufferArray(
      static_cast<int>(sizeof(T)), reinterpret_cast<unsigned char*>(const_cast<T*>(data)),
      static_cast<int64_t>(count * sizeof(T))));
}

}  // namespace zu

#endif  // ZU_DATA_MANAGER_ARRAY_H_
