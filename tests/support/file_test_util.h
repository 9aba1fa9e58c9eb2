// Helpers shared by the file storage tests: feeding a storage from a vector (as one plain
// buffer, or element by element through a strided view), reading it all back, and an
// iterator that throws at a chosen position.
#ifndef ZU_TESTS_SUPPORT_FILE_TEST_UTIL_H_
#define ZU_TESTS_SUPPORT_FILE_TEST_UTIL_H_

#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "src/file/array_imp.h"
#include "zu_data_manager/iterators.h"

namespace zu_test {

// Appends `values` as one contiguous buffer (the storage's bulk path).
template <typename T, typename Storage>
void AppendBulk(Storage& storage, const std::vector<T>& values) {
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<T*>(values.data()));
  SimpleDataIter<unsigned char> first(bytes, static_cast<unsigned int>(values.size()), sizeof(T));
  std::shared_ptr<ArrayIterBase> last = first.Clone();
  last->Seek(static_cast<unsigned int>(values.size()));
  storage.Append(zu::ZuArrayIter<T>(&first), zu::ZuArrayIter<T>(last.get()));
}

// Appends `values` through a view with a gap after each element, so that the storage has
// to take them one at a time.
template <typename T, typename Storage>
void AppendStrided(Storage& storage, const std::vector<T>& values) {
  std::vector<T> spread(values.size() * 2);
  for (size_t i = 0; i < values.size(); ++i) spread[2 * i] = values[i];
  auto* bytes = reinterpret_cast<unsigned char*>(spread.data());
  SimpleDataIter<unsigned char> first(bytes, static_cast<unsigned int>(values.size()),
                                      2 * sizeof(T));
  std::shared_ptr<ArrayIterBase> last = first.Clone();
  last->Seek(static_cast<unsigned int>(values.size()));
  storage.Append(zu::ZuArrayIter<T>(&first), zu::ZuArrayIter<T>(last.get()));
}

template <typename T, typename Storage>
std::vector<T> ReadAll(Storage& storage) {
  std::vector<T> out(static_cast<size_t>(storage.GetSize()));
  int64_t count = static_cast<int64_t>(out.size());
  storage.ReadData(out.data(), 0, count);
  out.resize(static_cast<size_t>(count));
  return out;
}

// Walks a vector; reading the element at `throw_at` throws.
template <typename T>
class ThrowingIter : public ArrayIterBase {
 public:
  ThrowingIter(std::vector<T>* values, unsigned int throw_at)
      : values_(values), throw_at_(throw_at) {}
  void* GetCurrent() override {
    if (position_ == throw_at_) throw std::runtime_error("source failed");
    return GetAt(position_);
  }
  void* GetAt(unsigned int index) override {
    return index < values_->size() ? &(*values_)[index] : nullptr;
  }
  bool IsCurrentMarked() override { return false; }
  bool IsMarked(unsigned int) override { return false; }
  unsigned int GetCount() override { return static_cast<unsigned int>(values_->size()); }
  bool IsEnd() override { return position_ >= GetCount(); }
  void Next() override {
    if (position_ < GetCount()) ++position_;
  }
  void Seek(unsigned int index) override { position_ = std::min(index, GetCount()); }
  unsigned int GetPosition() override { return position_; }
  std::shared_ptr<ArrayIterBase> Clone() override {
    auto copy = std::make_shared<ThrowingIter>(values_, throw_at_);
    copy->position_ = position_;
    return copy;
  }

 private:
  std::vector<T>* values_;     // not owned
  unsigned int throw_at_;      // position whose element cannot be read
  unsigned int position_ = 0;  // 0 <= position_ <= size
};

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_FILE_TEST_UTIL_H_
