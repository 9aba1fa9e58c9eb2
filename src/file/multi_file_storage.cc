#include "src/file/multi_file_storage.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "src/core/bisect.h"
#include "src/core/range.h"

namespace zu {

template <typename T>
T* CZUMultiFileArrayImp<T>::AllOnes(T* placeholder) {
  std::memset(static_cast<void*>(placeholder), 0xFF, sizeof(T));
  return placeholder;
}

template <typename T>
T* CZUMultiFileArrayImp<T>::GetWritePtr(int64_t index) {
  const auto i = static_cast<uint64_t>(index);
  if (i >= Size() || i / kSegmentCapacity >= segments_.size()) {
    return AllOnes(&placeholders_.write);
  }
  return segments_[i / kSegmentCapacity]->GetWritePtr(static_cast<int64_t>(i % kSegmentCapacity));
}

template <typename T>
const T* CZUMultiFileArrayImp<T>::GetReadPtr(int64_t index) {
  const auto i = static_cast<uint64_t>(index);
  if (i >= Size() || i / kSegmentCapacity >= segments_.size()) return AllOnes(&placeholders_.read);
  return segments_[i / kSegmentCapacity]->GetReadPtr(static_cast<int64_t>(i % kSegmentCapacity));
}

template <typename T>
T* CZUMultiFileArrayImp<T>::GetBackWritePtr() {
  if (segments_.empty()) return AllOnes(&placeholders_.back);
  return segments_.back()->GetBackWritePtr();
}

template <typename T>
const T* CZUMultiFileArrayImp<T>::GetBackReadPtr() {
  return GetBackWritePtr();
}

template <typename T>
void CZUMultiFileArrayImp<T>::Clear() {
  segments_.clear();
  last_ = nullptr;
  heads_.clear();
}

template <typename T>
int64_t CZUMultiFileArrayImp<T>::GetSize() {
  int64_t total = 0;
  for (const auto& segment : segments_) total += segment->GetSize();
  return total;
}

template <typename T>
bool CZUMultiFileArrayImp<T>::AddSegment(const T& head) {
  segments_.push_back(std::make_shared<Segment>());
  last_ = segments_.back().get();
  heads_.push_back(head);
  return !segments_.back()->dead();
}

template <typename T>
void CZUMultiFileArrayImp<T>::Assign(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  this->Clear();
  this->Append(first, last);
}

template <typename T>
void CZUMultiFileArrayImp<T>::Append(const ZuArrayIter<T>& first, const ZuArrayIter<T>& last) {
  ArrayIterBase* source = first.base();
  ArrayIterBase* end = last.base();
  // An end before the start describes no range: refused like an impossible length.
  if (RangeCount(source, end) < 0) throw std::length_error("range ends before it starts");
  while (source->GetPosition() != end->GetPosition()) {
    if (segments_.empty() ||
        static_cast<uint64_t>(segments_.back()->GetSize()) > kSegmentCapacity - 1) {
      const void* current = source->GetCurrent();
      if (current == nullptr) return;  // the source ended before its announced end
      T head;
      std::memcpy(static_cast<void*>(&head), current, sizeof(T));
      if (!AddSegment(head)) throw ZuArrayNoSpaceException();
    }
    Segment& segment = *segments_.back();
    if (segment.dead()) return;
    const unsigned int before = source->GetPosition();
    segment.Append(first, last);
    if (source->GetPosition() == before) return;  // nothing taken: stop rather than spin
  }
}

template <typename T>
void CZUMultiFileArrayImp<T>::ReadData(T* dest, int64_t offset, int64_t& count) {
  const uint64_t want = count > 0 ? static_cast<uint64_t>(count) : 0;
  const uint64_t total = Size();
  count = 0;
  if (offset < 0 || static_cast<uint64_t>(offset) > total) return;
  auto position = static_cast<uint64_t>(offset);
  uint64_t remaining = want;
  while (remaining > 0 && position < total) {
    const uint64_t s = position / kSegmentCapacity;
    if (s >= segments_.size()) break;
    const uint64_t within = position % kSegmentCapacity;
    int64_t k =
        static_cast<int64_t>(std::min({remaining, kSegmentCapacity - within, total - position}));
    const int64_t asked = k;
    segments_[s]->ReadData(dest, static_cast<int64_t>(within), k);
    dest += k;
    position += static_cast<uint64_t>(k);
    remaining -= static_cast<uint64_t>(k);
    if (k < asked) break;
  }
  count = static_cast<int64_t>(want - remaining);
}

template <typename T>
void CZUMultiFileArrayImp<T>::SetElement(uint64_t index, const T& value) {
  const uint64_t s = index / kSegmentCapacity;
  if (index >= Size() || s >= segments_.size()) return;
  if (index % kSegmentCapacity == 0) heads_[s] = value;
  segments_[s]->SetElement(index % kSegmentCapacity, value);
}

template <typename T>
base::DictionaryValue* CZUMultiFileArrayImp<T>::SaveDescription() {
  auto* description = new base::DictionaryValue();
  auto* files = new base::ListValue();
  for (const auto& segment : segments_) files->Append(segment->Describe());
  description->Set("files", files);
  return description;
}

template <typename T>
bool CZUMultiFileArrayImp<T>::LoadDescription(const base::DictionaryValue& description) {
  Clear();
  base::ListValue* files = nullptr;
  if (!description.GetList("files", &files) || files == nullptr) return false;
  for (size_t i = 0; i < files->GetSize(); ++i) {
    base::DictionaryValue* entry = nullptr;
    if (!files->GetDictionary(i, &entry) || entry == nullptr) break;
    auto segment = std::make_shared<Segment>();
    if (!segment->Attach(*entry)) break;
    heads_.push_back(*segment->GetReadPtr(0));
    segments_.push_back(segment);
    last_ = segment.get();
  }
  return true;
}

template <typename T>
template <typename Search>
uint64_t CZUMultiFileArrayImp<T>::InCandidateSegment(const T& value, bool upper, Search&& search) {
  auto head = [this](uint64_t i) -> const T& { return heads_[i]; };
  const uint64_t h =
      upper ? BisectUpper(heads_.size(), value, head) : BisectLower(heads_.size(), value, head);
  if (h == 0 || h - 1 >= segments_.size()) return 0;
  return (h - 1) * kSegmentCapacity + search(*segments_[h - 1]);
}

template <typename T>
uint64_t CZUMultiFileArrayImp<T>::LowerBound(const T& value) {
  return InCandidateSegment(value, false,
                            [&](Segment& segment) { return segment.SegmentLowerBound(value); });
}

template <typename T>
uint64_t CZUMultiFileArrayImp<T>::UpperBound(const T& value) {
  // A value at or above every element of the candidate segment answers the start of the next
  // segment, also past the last one: the position where an element above it would go once
  // that segment is full. Callers that want the size compare with GetSize themselves.
  return InCandidateSegment(value, true, [&](Segment& segment) {
    const uint64_t r = segment.SegmentUpperBound(value);
    return r >= static_cast<uint64_t>(segment.GetSize()) ? kSegmentCapacity : r;
  });
}

template <typename T>
uint64_t CZUMultiFileArrayImp<T>::LocateLowerBound(const T& value) {
  return InCandidateSegment(
      value, false, [&](Segment& segment) { return segment.SegmentLocateLowerBound(value); });
}

template <typename T>
uint64_t CZUMultiFileArrayImp<T>::FindNearest(T* inout, uint64_t tolerance) {
  const T value = *inout;
  return InCandidateSegment(
      value, false, [&](Segment& segment) { return segment.SegmentFindNearest(inout, tolerance); });
}

template <typename T>
uint64_t CZUMultiFileArrayImp<T>::FindFloor(const T& value) {
  const uint64_t n = Size();
  if (n == 0 || segments_.empty()) return 0;
  const uint64_t i = LocateLowerBound(value);
  if (i > n) return segments_.back()->LastSamplePosition();
  if (*GetReadPtr(static_cast<int64_t>(i)) == value) return i;
  if (i == 0) return n;
  const uint64_t s = i / kSegmentCapacity;
  const uint64_t o = i % kSegmentCapacity;
  if (o == 0) return s >= 1 ? segments_[s - 1]->LastSamplePosition() : 0;
  const uint64_t interval = segments_[0]->sample_interval();
  const uint64_t p = o % interval == 0 ? o - interval : o / interval * interval;
  return s * kSegmentCapacity + p;
}

template <typename T>
bool CZUMultiFileArrayImp<T>::HasDeadSegment() const {
  return std::any_of(segments_.begin(), segments_.end(),
                     [](const std::shared_ptr<Segment>& segment) { return segment->dead(); });
}

#define ZU_DEFINE_MULTI_FILE_STORAGE(T) template class CZUMultiFileArrayImp<T>;
ZU_FOR_EACH_ELEMENT_TYPE(ZU_DEFINE_MULTI_FILE_STORAGE)
#undef ZU_DEFINE_MULTI_FILE_STORAGE

}  // namespace zu
