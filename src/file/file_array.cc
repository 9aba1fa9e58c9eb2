#include "src/file/file_array.h"

#include <memory>

namespace zu {

template <typename T>
void CZUFileArray<T>::SetAt(uint64_t index, const void* value) {
  if (index >= this->Size()) return;
  this->container_->SetElement(index, *static_cast<const T*>(value));
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
uint64_t CZUFileArray<T>::UpperBound(const void* value) {
  return this->container_->UpperBound(*static_cast<const T*>(value));
}

template <typename T>
uint64_t CZUFileArray<T>::LowerBound(const void* value) {
  return this->container_->LowerBound(*static_cast<const T*>(value));
}

template <typename T>
uint64_t CZUFileArray<T>::FindNearest(void* inout, uint64_t tolerance) {
  return this->container_->FindNearest(static_cast<T*>(inout), tolerance);
}

template <typename T>
uint64_t CZUFileArray<T>::LocateLowerBound(const void* value) {
  return this->container_->LocateLowerBound(*static_cast<const T*>(value));
}

template <typename T>
uint64_t CZUFileArray<T>::FindFloor(const void* value) {
  return this->container_->FindFloor(*static_cast<const T*>(value));
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
bool CZUFileArray<T>::LoadDescription(const base::DictionaryValue* desc) {
  if (desc == nullptr) return false;
  return this->container_->LoadDescription(*desc);
}

template <typename T>
bool CZUFileArray<T>::SaveDescription(base::DictionaryValue** out) {
  if (out == nullptr) return false;
  *out = this->container_->SaveDescription();
  return true;
}

template <typename T>
bool CZUFileArray<T>::Init() {
  this->container_ = std::make_shared<Storage>();
  return this->container_ != nullptr;
}

#define ZU_DEFINE_FILE_ARRAY(T)                               \
  template class CZUArrayBase<T, CZUMultiFileArrayImp<T>>; \
  template class CZUFileArray<T>;
ZU_FOR_EACH_INTEGER_TYPE(ZU_DEFINE_FILE_ARRAY)
#undef ZU_DEFINE_FILE_ARRAY

}  // namespace zu
