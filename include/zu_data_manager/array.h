// zu::Array<T>: a typed, move-only owner of an IZUArray, for hosts that prefer the feel of a
// standard container to untyped pointers and result codes.
//
//   auto times = zu::make_auto_deque_array<int64_t>();
//   times.append(42);                        // zu::Status::ok, failed or no_space
//   std::optional<int64_t> first = times.at(0);
//   uint64_t i = times.lower_bound(40);
//   std::string json = times.save_description();
//
// Element types are checked at compile time against what each kind supports: the four integer
// types everywhere, SimpleBigData<16..512> records for the self-spilling kinds only.
// Header-only over the public interface; nothing here is exported.
// Thread-safety: not thread-safe: one thread per array.
#ifndef ZU_DATA_MANAGER_ARRAY_H_
#define ZU_DATA_MANAGER_ARRAY_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "zu_data_manager/array_factory.h"
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

template <typename T>
class Array {
 public:
  using value_type = T;

  Array() = default;
  // Takes ownership of `raw` (which must hold elements of type T).
  explicit Array(IZUArray* raw) : array_(raw) {}
  Array(Array&&) noexcept = default;
  Array& operator=(Array&&) noexcept = default;
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;

  explicit operator bool() const { return array_ != nullptr; }
  IZUArray* get() const { return array_.get(); }

  Status append(const T& value) { return static_cast<Status>(array_->Append(&value)); }
  // Appends count elements from a contiguous buffer in one call (count below 2^32).
  Status append(const T* data, size_t count) {
    return static_cast<Status>(array_->AppendBuffer(data, count));
  }

  uint64_t size() const { return array_->GetSize(); }
  bool empty() const { return size() == 0; }
  std::optional<T> at(uint64_t index) const {
    T out;
    if (array_->GetAt(index, &out) == nullptr) return std::nullopt;
    return out;
  }
  std::optional<T> back() const {
    uint64_t n = size();
    return n == 0 ? std::nullopt : at(n - 1);
  }
  void set(uint64_t index, const T& value) { array_->SetAt(index, &value); }
  void clear() { array_->Clear(); }

  // Searches over ascending data.
  uint64_t lower_bound(const T& value) const { return array_->LowerBound(&value); }
  uint64_t upper_bound(const T& value) const { return array_->UpperBound(&value); }
  // Index of the first element equal to value, or size() when there is none.
  uint64_t find(const T& value) const { return array_->Find(&value); }
  // Index of the last element not greater than value (coarse on file storage); all-ones when
  // every element is greater.
  uint64_t find_floor(const T& value) const { return array_->FindFloor(&value); }
  // Index of the nearest element; `value` becomes that element (see IZUArray::FindNearest).
  uint64_t find_nearest(T& value, uint64_t tolerance) const {
    return array_->FindNearest(&value, tolerance);
  }

  // Copies up to count elements starting at `start` into dest; returns how many it copied.
  uint64_t copy_out(uint64_t start, T* dest, uint32_t count) const {
    uint64_t n = size();
    if (start >= n) return 0;
    uint64_t copied = n - start < count ? n - start : count;
    array_->CopyOut(dest, static_cast<int>(start), static_cast<unsigned int>(copied));
    return copied;
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
    std::unique_ptr<base::DictionaryValue> desc = base::ReadJsonDictionary(json);
    return desc != nullptr && array_->LoadDescription(desc.get());
  }

  // Input iteration over the elements, reading each through the array.
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    const_iterator(const Array* array, uint64_t index) : array_(array), index_(index) { Load(); }
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
      if (auto value = array_->at(index_)) current_ = *value;
    }
    const Array* array_;  // not owned
    uint64_t index_;      // position of current_
    T current_{};         // the element at index_ (unchanged past the end)
  };

  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size()); }

 private:
  std::unique_ptr<IZUArray> array_;  // null only for a default-made or moved-from Array
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
