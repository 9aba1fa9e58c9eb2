#include "src/file/file_array.h"

#include <memory>

namespace zu {

template <typename T>
void FileArrayOps<T>::SetAt(Storage& files, uint64_t index, const void* value) {
  if (index >= static_cast<uint64_t>(files.GetSize())) return;
  files.SetElement(index, *static_cast<const T*>(value));
}

template <typename T>
bool FileArrayOps<T>::LoadDescription(Storage& files, const base::DictionaryValue* desc) {
  if (desc == nullptr) return false;
  return files.LoadDescription(*desc);
}

template <typename T>
bool FileArrayOps<T>::SaveDescription(Storage& files, base::DictionaryValue** out) {
  if (out == nullptr) return false;
  *out = files.SaveDescription();
  return true;
}

template <typename T>
uint64_t CZUFileArray<T>::Find(const void* value) {
  const T& v = *static_cast<const T*>(value);
  const uint64_t n = this->Size();
  const uint64_t i = this->container_->LowerBound(v);
  if (i >= n) return i;
  return *this->container_->GetReadPtr(static_cast<int64_t>(i)) == v ? i : n;
}

template <typename T>
void CZUFileArray<T>::Clear() {
  if (this->container_->HasDeadSegment()) {
    this->container_ = std::make_shared<Storage>();
  } else {
    this->container_->Clear();
  }
}

template <typename T>
bool CZUFileArray<T>::Init() {
  this->container_ = std::make_shared<Storage>();
  return this->container_ != nullptr;
}

#define ZU_DEFINE_FILE_ARRAY_OPS(T) template struct FileArrayOps<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_FILE_ARRAY_OPS)
#undef ZU_DEFINE_FILE_ARRAY_OPS
#define ZU_DEFINE_FILE_ARRAY(T)                            \
  template class CZUArrayBase<T, CZUMultiFileArrayImp<T>>; \
  template class CZUFileArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_FILE_ARRAY)
#undef ZU_DEFINE_FILE_ARRAY

}  // namespace zu
