// AppendStage<T, kLength>: elements appended one at a time to a file segment, gathered before
// they go to the file in one write.
//
// The stage holds at most one run: the elements from first() up to the segment's size, all
// inside one stage-aligned block of kLength elements (slot = index mod kLength). A block never
// crosses a chunk of the file, so the write view that covers the run's chunk covers the whole
// run. The segment writes the run out when the block fills and before anything looks at the
// file, so the stage is never visible from outside.
//
// An append whose index lies below the fast end (the run has begun, the element is not sampled
// and does not complete the block) needs nothing but a store: TryPut. The segment opens that
// path after each slow append and it closes whenever the run is written or dropped.
// Thread-safety: the appending thread's own; the segment's write lock guards the rest.
#ifndef ZU_FILE_APPEND_STAGE_H_
#define ZU_FILE_APPEND_STAGE_H_

#include <cstdint>
#include <memory>

namespace zu {

template <typename T, uint64_t kLength>
class AppendStage {
 public:
  // first() of an empty stage: above every index.
  static constexpr uint64_t kNone = ~uint64_t{0};

  // The inline append: stores element `index` and answers true when it lies below the fast
  // end; false, with nothing done, otherwise.
  bool TryPut(uint64_t index, const T& value) {
    if (index >= fast_end_) return false;
    slots_[index % kLength] = value;
    return true;
  }
  // Allocates the slots on first use; Put needs them.
  void Reserve() {
    if (!slots_) slots_ = std::make_unique<T[]>(kLength);
  }
  // Stores element `index`, beginning a run when none is open.
  void Put(uint64_t index, const T& value) {
    slots_[index % kLength] = value;
    if (first_ == kNone) first_ = index;
  }
  // Lets TryPut take the indexes below `end`.
  void OpenFastPath(uint64_t end) { fast_end_ = end; }

  bool empty() const { return first_ == kNone; }
  // Index of the run's first element; kNone when the stage is empty.
  uint64_t first() const { return first_; }
  // Address of staged element `index` (first() <= index < the segment's size).
  const T* At(uint64_t index) const { return slots_.get() + index % kLength; }
  // Ends the run and answers its first index; its elements stay at At(first) until the next
  // Put.
  uint64_t TakeRun() {
    const uint64_t first = first_;
    first_ = kNone;
    fast_end_ = 0;
    return first;
  }
  // Forgets the run and frees the slots.
  void Drop() {
    first_ = kNone;
    fast_end_ = 0;
    slots_.reset();
  }
  // The last index of the block that holds `index`.
  static uint64_t BlockLast(uint64_t index) { return (index / kLength + 1) * kLength - 1; }

 private:
  std::unique_ptr<T[]> slots_;  // kLength elements, allocated by the first Put
  uint64_t first_ = kNone;      // first staged index; kNone when empty
  // TryPut takes the indexes below this: above the size only while a run is open and neither a
  // sampled index nor the block's last index lies in between; 0 otherwise.
  uint64_t fast_end_ = 0;
};

}  // namespace zu

#endif  // ZU_FILE_APPEND_STAGE_H_
