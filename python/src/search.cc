// The searches of an Array: the library's own slots over a key or a batch of keys, and
// numpy's searchsorted, answered exactly on every kind through LowerBound. Batches of
// LowerBound, UpperBound and Find go through the library's batch path (ZuSearchBatch) in one
// call, which the C++ front end uses too; the other searches have none and run key by key.
#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "python/src/convert.h"
#include "python/src/errors.h"
#include "python/src/py_array.h"
#include "zu_data_manager/direct_read.h"

namespace zu_python {

namespace {

constexpr size_t kOrderedBatchKeys = 1024;        // smaller batches run in the given order
constexpr uint64_t kOrderedArrayBytes = 1 << 20;  // as do arrays within one file chunk

// Number of elements below t in an ascending block of n elements.
template <typename T>
uint64_t CountBelow(const unsigned char* block, uint64_t n, T t) {
  uint64_t first = 0;
  while (n > 0) {
    uint64_t half = n / 2;
    if (LoadElement<T>(block, first + half) < t) {
      first += half + 1;
      n -= half + 1;
    } else {
      n = half;
    }
  }
  return first;
}

// Calls fn(key, i) for every (key, i) of a batch, in ascending key order when the array is
// larger than a file chunk: a file array moves its 1 MiB read view to the chunk of each key,
// and keys in order reuse the view (and the caches) instead of moving it for nearly every key
// of a random batch. The answers do not depend on the order.
template <typename T, typename Fn>
void InKeyOrder(std::vector<std::pair<T, size_t>>* batch, uint64_t array_bytes, Fn&& fn) {
  auto by_key = [](const std::pair<T, size_t>& a, const std::pair<T, size_t>& b) {
    return a.first < b.first;
  };
  if (batch->size() >= kOrderedBatchKeys && array_bytes > kOrderedArrayBytes &&
      !std::is_sorted(batch->begin(), batch->end(), by_key)) {
    std::sort(batch->begin(), batch->end(), by_key);
  }
  for (const auto& [key, i] : *batch) fn(key, i);
}

template <typename T>
std::vector<std::pair<T, size_t>> Batch(const py::array& keys) {
  const T* from = static_cast<const T*>(keys.data());
  std::vector<std::pair<T, size_t>> batch(static_cast<size_t>(keys.size()));
  for (size_t i = 0; i < batch.size(); ++i) batch[i] = {from[i], i};
  return batch;
}

// out[k] = the search's answer for keys[k] through the library's batch path.
void SearchBatch(IZUArray& array, ZuSearch search, const void* keys, uint64_t count,
                 uint64_t* out) {
  if (count > 0 && !ZuSearchBatch(&array, search, keys, count, out)) {
    throw std::runtime_error("the library refused a batch of searches");
  }
}

[[noreturn]] void RefuseSearchOnView() {
  Raise(PyExc_NotImplementedError,
        "an attached view answers upper_bound (an exact-match search) and searchsorted only; "
        "the library does not implement the other searches on views");
}

}  // namespace

py::object PyArray::Search(Slot slot, const py::handle& keys) {
  IZUArray& array = Live();
  Busy busy(this);
  if (kind_ == Kind::kAttached && slot != Slot::kUpperBound) RefuseSearchOnView();
  return WithElement(code_, [&](auto tag) -> py::object {
    using T = typename decltype(tag)::type;
    auto call = [&array, slot](const T& v) -> int64_t {
      switch (slot) {
        case Slot::kLowerBound:
          return static_cast<int64_t>(array.LowerBound(&v));
        case Slot::kUpperBound:
          return static_cast<int64_t>(array.UpperBound(&v));
        case Slot::kFind:
          return static_cast<int64_t>(array.Find(&v));
        case Slot::kFindFloor:
          break;
      }
      return static_cast<int64_t>(array.FindFloor(&v));  // all-ones reads as -1
    };
    if (IsScalar(keys)) return py::int_(call(ToElement<T>(keys)));
    py::array values = ToElements(keys, code_, false);
    py::array_t<int64_t> out(ShapeOf(values));
    int64_t* to = out.mutable_data();
    const auto count = static_cast<uint64_t>(values.size());
    Released released(this);
    if (slot == Slot::kFindFloor) {
      auto batch = Batch<T>(values);
      InKeyOrder(&batch, array.GetSize() * sizeof(T),
                 [&](const T& key, size_t i) { to[i] = call(key); });
    } else {
      static const ZuSearch kBatch[] = {kZuSearchLowerBound, kZuSearchUpperBound, kZuSearchFind};
      SearchBatch(array, kBatch[static_cast<int>(slot)], values.data(), count,
                  reinterpret_cast<uint64_t*>(to));
    }
    return std::move(out);
  });
}

py::object PyArray::FindNearest(const py::handle& keys, const py::handle& tolerance) {
  IZUArray& array = Live();
  Busy busy(this);
  uint64_t within = ToCount(tolerance, "tolerance");
  if (kind_ == Kind::kAttached) RefuseSearchOnView();
  return WithElement(code_, [&](auto tag) -> py::object {
    using T = typename decltype(tag)::type;
    if (IsScalar(keys)) {
      T value = ToElement<T>(keys);
      auto index = static_cast<int64_t>(array.FindNearest(&value, within));
      return py::make_tuple(index, scalar_type_(value));
    }
    py::array values = ToElements(keys, code_, false);
    py::array_t<int64_t> indexes(ShapeOf(values));
    py::array nearest = Numpy().attr("array")(values, dtype_);
    T* inout = static_cast<T*>(nearest.mutable_data());
    int64_t* to = indexes.mutable_data();
    {
      Released released(this);
      auto batch = Batch<T>(values);
      InKeyOrder(&batch, array.GetSize() * sizeof(T), [&](const T&, size_t i) {
        to[i] = static_cast<int64_t>(array.FindNearest(inout + i, within));
      });
    }
    return py::make_tuple(indexes, nearest);
  });
}

py::object PyArray::SearchSorted(const py::handle& keys, const std::string& side,
                                 const py::handle& sorter) {
  IZUArray& array = Live();
  Busy busy(this);
  if (side != "left" && side != "right") {
    Raise(PyExc_ValueError, "side must be 'left' or 'right' (got '" + side + "')");
  }
  if (!sorter.is_none()) {
    // Not a TypeError: numpy would take that for another signature and copy the whole array.
    Raise(PyExc_ValueError,
          "sorter must be None: the array is searched in its own order, which searches assume "
          "ascending (sort the elements before appending them)");
  }
  const bool right = side == "right";
  ExactKeys exact = ToExactKeys(keys);
  const uint64_t n = array.GetSize();
  py::array_t<int64_t> out(ShapeOf(exact.values));
  WithElement(code_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    // Every kind answers through the exact LowerBound (views through a bisection of their
    // buffer): count(element < ceil(k)) for 'left', count(element < floor(k) + 1) for 'right'.
    // Keys beyond the element range answer 0 or n at once.
    auto run = [&](auto key_tag) {
      using K = typename decltype(key_tag)::type;
      const K* from = static_cast<const K*>(exact.values.data());
      int64_t* to = out.mutable_data();
      auto count = static_cast<size_t>(exact.values.size());
      Released released(this);
      std::vector<T> thresholds;
      std::vector<size_t> where;
      for (size_t i = 0; i < count; ++i) {
        bool all = false;
        Wide t = ExactThreshold(from[i], right, &all);
        if (all || t > static_cast<Wide>(std::numeric_limits<T>::max())) {
          to[i] = static_cast<int64_t>(n);
        } else if (t <= static_cast<Wide>(std::numeric_limits<T>::min())) {
          to[i] = 0;
        } else {
          thresholds.push_back(static_cast<T>(t));
          where.push_back(i);
        }
      }
      std::vector<uint64_t> answers(thresholds.size());
      if (kind_ == Kind::kAttached) {  // the library refuses LowerBound on views
        for (size_t k = 0; k < thresholds.size(); ++k) {
          answers[k] = CountBelow(attached_data_, n, thresholds[k]);
        }
      } else {
        SearchBatch(array, kZuSearchLowerBound, thresholds.data(), thresholds.size(),
                    answers.data());
      }
      for (size_t k = 0; k < where.size(); ++k) to[where[k]] = static_cast<int64_t>(answers[k]);
    };
    switch (exact.values.dtype().kind()) {
      case 'i':
        return run(Tag<int64_t>{});
      case 'u':
        return run(Tag<uint64_t>{});
      default:
        return run(Tag<double>{});
    }
  });
  if (exact.scalar) return out[py::tuple()];
  return std::move(out);
}

}  // namespace zu_python
