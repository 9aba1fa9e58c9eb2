// Differential fuzzing of every array kind against a plain std::vector model.
//
// The input picks an array kind and an element type, then a sequence of operations (single,
// bulk, strided and replacing adds, SetAt, GetAt, searches, copies, Clear, and a description
// round trip into a second array). The model mirrors each operation and the array is compared
// with it after every step: its size, its first, last and one chosen element, and now and then
// its whole content.
//
// The elements always stand in ascending order (searches assume it). Where file storage
// deliberately answers differently the comparison is narrowed rather than skipped:
// - FindFloor, LocateLowerBound and FindNearest are sample-granular on file storage; there they
//   are compared with the sample-granular answers worked out from the model.
// - SetAt on file storage writes only the chunk that holds the end, so SetAt is issued there
//   only for indexes in that chunk.
// - A self-spilling array clears itself on a failed add (the reversed range below).
// The read-only views over a caller's buffer (plain and interleaved) are checked against the
// same model: now and then both are attached to a copy of the model's elements and read, and
// their searches are compared with the documented rules (an exact-match search on the plain
// view, a backward search on the interleaved one).
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

#define FUZZ_CHECK(cond, ...)                            \
  do {                                                   \
    if (!(cond)) {                                       \
      std::fprintf(stderr, "check failed: %s: ", #cond); \
      std::fprintf(stderr, __VA_ARGS__);                 \
      std::fprintf(stderr, "\n");                        \
      __builtin_trap();                                  \
    }                                                    \
  } while (0)

constexpr uint64_t kChunkBytes = 1 << 20;  // one mapped chunk of file storage
constexpr size_t kMaxElements = 1 << 19;   // keeps one input fast; crosses chunks for 8 bytes

// Element values from ascending keys.
template <typename T>
struct Keys {
  static uint64_t Max() { return std::numeric_limits<T>::max(); }
  static T Make(uint64_t key) { return static_cast<T>(key); }
};
template <>
struct Keys<int64_t> {
  static uint64_t Max() { return uint64_t{1} << 41; }
  // Half of the keys map below zero: the signed order must hold.
  static int64_t Make(uint64_t key) { return static_cast<int64_t>(key) - (int64_t{1} << 40); }
};
template <int N>
struct Keys<SimpleBigData<N>> {
  static uint64_t Max() { return uint64_t{1} << 41; }
  static SimpleBigData<N> Make(uint64_t key) {
    SimpleBigData<N> r;
    std::memset(r.data, 0, N);
    r.data[0] = 0x5A;  // byte 0 takes no part in the order; a fixed tag keeps equality exact
    for (int i = 0; i < 8; ++i) r.data[1 + i] = static_cast<unsigned char>(key >> (8 * i));
    return r;
  }
};

enum class Kind { kVector, kDeque, kFile, kAutoVector, kAutoDeque, kCount };

IZUArray* Alloc(Kind kind, int type) {
  CArrayFactory f;
  switch (kind) {
    case Kind::kVector:
      return f.AllocVectorArray(type);
    case Kind::kDeque:
      return f.AllocDequeArray(type);
    case Kind::kFile:
      return f.AllocFileArray(type);
    case Kind::kAutoVector:
      return f.AllocAutoVectorArray(type);
    default:
      return f.AllocAutoDequeArray(type);
  }
}

template <typename T>
class Runner {
 public:
  Runner(FuzzedDataProvider& in, Kind kind) : in_(in), kind_(kind) {
    array_.reset(Alloc(kind, static_cast<int>(sizeof(T))));
    FUZZ_CHECK(array_ != nullptr, "kind %d size %zu", static_cast<int>(kind), sizeof(T));
  }

  void Run() {
    int steps = 0;
    while (in_.remaining_bytes() > 0 && steps++ < 400) {
      Step(in_.ConsumeIntegralInRange<int>(0, 12));
      Check();
    }
    FullCheck();
  }

 private:
  bool FileStorage() const { return kind_ == Kind::kFile; }
  bool SelfSpilling() const { return kind_ == Kind::kAutoVector || kind_ == Kind::kAutoDeque; }

  uint64_t NextKey() {
    const uint64_t last =
        keys_.empty() ? in_.ConsumeIntegralInRange<uint64_t>(0, 64) : keys_.back();
    return std::min(Keys<T>::Max(), last + in_.ConsumeIntegralInRange<uint64_t>(0, 3));
  }

  // n ascending values after the current end, cheap for big n.
  std::vector<uint64_t> MoreKeys(size_t n, uint64_t step) {
    std::vector<uint64_t> more(n);
    uint64_t k = keys_.empty() ? 0 : keys_.back();
    for (size_t i = 0; i < n; ++i) {
      k = std::min(Keys<T>::Max(), k + (i % 3 == 0 ? step : 0));
      more[i] = k;
    }
    return more;
  }

  static std::vector<T> Values(const std::vector<uint64_t>& keys) {
    std::vector<T> v(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) v[i] = Keys<T>::Make(keys[i]);
    return v;
  }

  void Adopt(const std::vector<uint64_t>& keys) {
    keys_.insert(keys_.end(), keys.begin(), keys.end());
    for (uint64_t k : keys) model_.push_back(Keys<T>::Make(k));
  }

  void ExpectOk(int code, const char* what) {
    FUZZ_CHECK(code == kZuOk, "%s answered %d", what, code);
  }

  // A range over `values` with `gap` foreign elements after each one.
  struct Range {
    std::vector<T> spread;
    std::unique_ptr<SimpleDataIter<unsigned char>> first;
    std::shared_ptr<ArrayIterBase> last;
  };
  static Range MakeRange(const std::vector<T>& values, unsigned gap) {
    Range r;
    r.spread.resize(values.size() * (gap + 1) + 1);
    for (size_t i = 0; i < values.size(); ++i) r.spread[i * (gap + 1)] = values[i];
    r.first = std::make_unique<SimpleDataIter<unsigned char>>(
        reinterpret_cast<unsigned char*>(r.spread.data()), static_cast<unsigned int>(values.size()),
        static_cast<unsigned int>(sizeof(T) * (gap + 1)));
    r.last = r.first->Clone();
    r.last->Seek(static_cast<unsigned int>(values.size()));
    return r;
  }

  void Step(int op) {
    const size_t room = kMaxElements - std::min(kMaxElements, model_.size());
    switch (op) {
      case 0: {  // one element
        if (room == 0) return;
        const uint64_t k = NextKey();
        const T v = Keys<T>::Make(k);
        ExpectOk(array_->Append(&v), "Append");
        Adopt({k});
        return;
      }
      case 1: {  // a small plain buffer
        const size_t n = std::min(room, in_.ConsumeIntegralInRange<size_t>(0, 3000));
        const std::vector<uint64_t> keys = MoreKeys(n, in_.ConsumeIntegralInRange<uint64_t>(0, 2));
        const std::vector<T> v = Values(keys);
        ExpectOk(array_->AppendBuffer(v.empty() ? nullptr : v.data(), n), "AppendBuffer");
        Adopt(keys);
        return;
      }
      case 2: {  // a big plain buffer: crosses chunks of file storage
        const size_t n = std::min(room, in_.ConsumeIntegralInRange<size_t>(0, 200000));
        const std::vector<uint64_t> keys = MoreKeys(n, 1);
        const std::vector<T> v = Values(keys);
        ExpectOk(array_->AppendBuffer(v.data(), n), "big AppendBuffer");
        Adopt(keys);
        return;
      }
      case 3:    // a strided range
      case 4: {  // a strided range replacing the content
        const size_t n =
            std::min(op == 4 ? kMaxElements : room, in_.ConsumeIntegralInRange<size_t>(0, 700));
        const unsigned gap = in_.ConsumeIntegralInRange<unsigned>(0, 3);
        if (op == 4) {
          keys_.clear();
          model_.clear();
        }
        const std::vector<uint64_t> keys = MoreKeys(n, in_.ConsumeIntegralInRange<uint64_t>(0, 5));
        Range r = MakeRange(Values(keys), gap);
        if (op == 4) {
          ExpectOk(array_->Assign(r.first.get(), r.last.get()), "Assign");
        } else {
          ExpectOk(array_->AppendRange(r.first.get(), r.last.get()), "AppendRange");
          FUZZ_CHECK(r.first->GetPosition() == r.last->GetPosition(), "first not left at last");
        }
        Adopt(keys);
        return;
      }
      case 5: {  // SetAt, in order with the neighbours, or out of range (ignored)
        const uint64_t size = model_.size();
        const uint64_t i = in_.ConsumeIntegralInRange<uint64_t>(0, size + 2);
        if (i < size) {
          const uint64_t per_chunk = kChunkBytes / sizeof(T);
          if (FileStorage() && i / per_chunk != (size - 1) / per_chunk) return;
          const uint64_t lo = i == 0 ? keys_[0] : keys_[i - 1];
          const uint64_t hi = i + 1 < size ? keys_[i + 1] : keys_[i];
          const uint64_t k = in_.ConsumeIntegralInRange<uint64_t>(lo, std::max(lo, hi));
          const T v = Keys<T>::Make(k);
          array_->SetAt(i, &v);
          keys_[i] = k;
          model_[i] = v;
        } else {
          const T v = Keys<T>::Make(0);
          array_->SetAt(i, &v);
        }
        return;
      }
      case 6: {  // GetAt anywhere
        const uint64_t i = in_.ConsumeBool()
                               ? in_.ConsumeIntegral<uint64_t>()
                               : in_.ConsumeIntegralInRange<uint64_t>(0, model_.size() + 1);
        T out = Keys<T>::Make(7);
        const void* got = array_->GetAt(i, &out);
        if (i < model_.size()) {
          FUZZ_CHECK(got == &out && out == model_[i], "GetAt(%llu)",
                     static_cast<unsigned long long>(i));
        } else {
          FUZZ_CHECK(got == nullptr, "GetAt beyond the end");
        }
        return;
      }
      case 7:
        Search();
        return;
      case 8: {  // CopyOut
        const int start = in_.ConsumeIntegralInRange<int>(0, static_cast<int>(model_.size()) + 3);
        const unsigned count = in_.ConsumeIntegralInRange<unsigned>(0, 5000);
        const size_t n = static_cast<size_t>(start) >= model_.size()
                             ? 0
                             : std::min<size_t>(count, model_.size() - static_cast<size_t>(start));
        const T fill = Keys<T>::Make(3);
        std::vector<T> out(count + 1, fill);
        array_->CopyOut(out.data(), start, count);
        for (size_t i = 0; i < n; ++i) FUZZ_CHECK(out[i] == model_[start + i], "CopyOut at %zu", i);
        FUZZ_CHECK(out[n] == fill, "CopyOut wrote past what it copies");
        return;
      }
      case 9:
        array_->Clear();
        keys_.clear();
        model_.clear();
        return;
      case 10:
        RoundTrip();
        return;
      case 12:
        if constexpr (std::is_integral<T>::value) Views();
        return;
      case 11: {  // refused input: an empty buffer, and a range whose end lies before its start
        ExpectOk(array_->AppendBuffer(nullptr, 0), "AppendBuffer(nullptr, 0)");
        const std::vector<T> v = Values(MoreKeys(4, 1));
        Range r = MakeRange(v, 0);
        r.first->Seek(3);
        r.last->Seek(1);
        const int code = array_->AppendRange(r.first.get(), r.last.get());
        FUZZ_CHECK(code == kZuFailed, "reversed range answered %d", code);
        if (SelfSpilling()) {  // a failed add clears a self-spilling array
          keys_.clear();
          model_.clear();
        }
        return;
      }
    }
  }

  void Search() {
    const uint64_t base =
        keys_.empty() ? 0 : keys_[in_.ConsumeIntegralInRange<size_t>(0, keys_.size() - 1)];
    const int64_t shift = in_.ConsumeIntegralInRange<int64_t>(-2, 2);
    const uint64_t key = shift < 0 && base < static_cast<uint64_t>(-shift)
                             ? 0
                             : std::min(Keys<T>::Max(), base + shift);
    const T probe = Keys<T>::Make(key);
    const uint64_t n = model_.size();
    const uint64_t lower = std::lower_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const uint64_t upper = std::upper_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const bool present = lower < n && model_[lower] == probe;
    FUZZ_CHECK(array_->LowerBound(&probe) == lower, "LowerBound");
    // In files, a value at or above the last element answers the start of the segment after
    // the candidate one (a multiple of the segment capacity, at most one segment on).
    const uint64_t ub = array_->UpperBound(&probe);
    const uint64_t segment = 0x8000000 / sizeof(T);
    FUZZ_CHECK(ub == upper || (FileStorage() && n > 0 && upper == n && ub % segment == 0 &&
                               ub >= n && ub <= n + segment),
               "UpperBound");
    FUZZ_CHECK(array_->Find(&probe) == (present ? lower : n), "Find");
    T nearest = probe;
    const uint64_t tolerance = in_.ConsumeIntegralInRange<uint64_t>(0, 3);
    const uint64_t near = array_->FindNearest(&nearest, tolerance);
    const uint64_t floor = array_->FindFloor(&probe);
    const uint64_t locate = array_->LocateLowerBound(&probe);
    if (n == 0) {
      FUZZ_CHECK(near == 0 && floor == 0 && locate == 0 && nearest == probe, "empty searches");
    } else if (!FileStorage()) {
      FUZZ_CHECK(locate == lower, "LocateLowerBound");
      FUZZ_CHECK(floor == (lower >= n ? n - 1 : present ? lower : lower - 1), "FindFloor");
      FUZZ_CHECK(near == lower && nearest == (lower < n ? model_[lower] : probe), "FindNearest");
    } else {
      FUZZ_CHECK(locate == SampledLowerBound(probe), "sampled LocateLowerBound");
      FUZZ_CHECK(floor == SampledFloor(probe), "sampled FindFloor");
      T want = probe;
      FUZZ_CHECK(near == SampledNearest(&want, tolerance) && nearest == want,
                 "sampled FindNearest");
    }
  }

  // The sample-granular answers of file storage, from the model: one sample per page (the
  // interval), chunks of 1 MiB, segments of 128 MiB, each search in the segment whose head is
  // the last below the value.
  struct Grid {
    uint64_t segment, chunk, interval;
  };
  static Grid FileGrid() {
    uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    if (page == 0 || page > kChunkBytes || kChunkBytes % page != 0) page = kChunkBytes;
    uint64_t interval = std::max<uint64_t>(1, page / sizeof(T));
    while ((interval & (interval - 1)) != 0) interval &= interval - 1;
    return {0x8000000 / sizeof(T), kChunkBytes / sizeof(T), interval};
  }
  // The segment searched and how many of its samples are below value; false when the first
  // element is not below it.
  bool SampledBelow(const T& value, uint64_t* segment, uint64_t* below) const {
    const Grid g = FileGrid();
    if (model_.empty() || !(model_[0] < value)) return false;
    *segment = 0;
    for (uint64_t h = 0; h < model_.size(); h += g.segment) {
      if (model_[h] < value) *segment = h / g.segment;
    }
    const uint64_t end = std::min<uint64_t>(model_.size(), (*segment + 1) * g.segment);
    *below = 0;
    for (uint64_t i = *segment * g.segment; i < end; i += g.interval) *below += model_[i] < value;
    return true;
  }
  uint64_t SampledLowerBound(const T& value) const {
    uint64_t segment = 0, below = 0;
    if (!SampledBelow(value, &segment, &below)) return 0;
    return segment * FileGrid().segment + below * FileGrid().interval;
  }
  // The last sampled position of segment s, counted from the segment's start.
  uint64_t LastSample(uint64_t s) const {
    const Grid g = FileGrid();
    const uint64_t size = std::min<uint64_t>(g.segment, model_.size() - s * g.segment);
    return (size - 1) / g.interval * g.interval;
  }
  uint64_t SampledFloor(const T& value) const {
    const Grid g = FileGrid();
    const uint64_t n = model_.size();
    const uint64_t i = SampledLowerBound(value);
    if (i > n) return LastSample((n - 1) / g.segment);
    T at;
    std::memset(static_cast<void*>(&at), 0xFF, sizeof(T));  // the storage's all-ones element
    if (i < n) at = model_[i];
    if (at == value) return i;
    if (i == 0) return n;
    if (i % g.segment == 0) return LastSample(i / g.segment - 1);
    return i - g.interval;
  }
  static uint64_t Distance(const T& high, const T& low) {
    if constexpr (std::is_integral<T>::value) {
      using U = std::make_unsigned_t<T>;
      return static_cast<U>(static_cast<U>(high) - static_cast<U>(low));
    } else {
      return ~uint64_t{0};  // records: never within a tolerance
    }
  }
  uint64_t SampledNearest(T* inout, uint64_t tolerance) const {
    const Grid g = FileGrid();
    const T value = *inout;
    uint64_t segment = 0, below = 0;
    if (!SampledBelow(value, &segment, &below)) return 0;
    const uint64_t end = std::min<uint64_t>(model_.size(), (segment + 1) * g.segment);
    const uint64_t per_chunk = g.chunk / g.interval;
    const uint64_t k = (below - 1) / per_chunk;
    const uint64_t i = below - k * per_chunk;  // first sample of chunk k not below value
    const uint64_t base = segment * g.segment + k * g.chunk;
    const uint64_t count = (std::min(end, base + g.chunk) - base + g.interval - 1) / g.interval;
    auto take = [&](uint64_t at) {
      *inout = model_[at];
      return at;
    };
    uint64_t page = count - 1;
    if (i < count) {
      if (Distance(value, model_[base + (i - 1) * g.interval]) < tolerance) {
        return take(base + (i - 1) * g.interval);
      }
      if (Distance(model_[base + i * g.interval], value) < tolerance) {
        return take(base + i * g.interval);
      }
      page = i - 1;
    } else if (Distance(value, model_[base + page * g.interval]) < tolerance) {
      return take(base + page * g.interval);
    } else if (base + g.chunk < end && Distance(model_[base + g.chunk], value) < tolerance) {
      return take(base + g.chunk);
    }
    const uint64_t from = base + page * g.interval;
    const uint64_t to = std::min(end, from + g.interval);
    return std::lower_bound(model_.begin() + from, model_.begin() + to, value) - model_.begin();
  }

  // The documented search of the interleaved view: a backward search whose probe position
  // does not move with the halving step.
  uint64_t BackwardSearch(const T& value) const {
    const uint64_t count = model_.size();
    uint64_t n = count;
    uint64_t pos = count - 1;
    while (count > 0 && n > 0) {
      const uint64_t half = n / 2;
      if (value < model_[pos]) {
        pos = pos - half - 1;
        n = n - half - 1;
      } else {
        n = half;
      }
    }
    return pos >= count ? 0 : pos;
  }

  // Plain and interleaved views over copies of the model's elements.
  void Views() {
    const uint64_t n = model_.size();
    const int type = static_cast<int>(sizeof(T));
    const int gap = in_.ConsumeIntegralInRange<int>(0, 7);
    const uint64_t base =
        keys_.empty() ? 0 : keys_[in_.ConsumeIntegralInRange<size_t>(0, keys_.size() - 1)];
    const T probe =
        Keys<T>::Make(std::min(Keys<T>::Max(), base + in_.ConsumeIntegralInRange<uint64_t>(0, 1)));
    const uint64_t lower = std::lower_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const bool present = lower < n && model_[lower] == probe;
    const uint64_t at = in_.ConsumeIntegralInRange<uint64_t>(0, n + 1);
    std::vector<T> plain_buffer(model_);
    std::vector<unsigned char> cross_buffer(n * (sizeof(T) + static_cast<size_t>(gap)) + 1, 0xEE);
    for (uint64_t i = 0; i < n; ++i) {
      std::memcpy(&cross_buffer[i * (sizeof(T) + static_cast<size_t>(gap))], &model_[i], sizeof(T));
    }
    CArrayFactory factory;
    std::unique_ptr<IZUArray> plain(factory.AllocAttachBufferArray(
        type, n == 0 ? nullptr : reinterpret_cast<unsigned char*>(plain_buffer.data()),
        static_cast<int64_t>(n * sizeof(T))));
    std::unique_ptr<IZUArray> cross(factory.AllocAttachCrossBufferArray(
        type, cross_buffer.data(), static_cast<int64_t>(n * sizeof(T)), gap));
    FUZZ_CHECK(plain != nullptr && cross != nullptr, "no view of %llu elements",
               static_cast<unsigned long long>(n));
    FUZZ_CHECK(plain->GetSize() == n && cross->GetSize() == n, "view sizes %llu, %llu of %llu",
               static_cast<unsigned long long>(plain->GetSize()),
               static_cast<unsigned long long>(cross->GetSize()),
               static_cast<unsigned long long>(n));
    T out = Keys<T>::Make(5);
    if (at < n) {
      FUZZ_CHECK(plain->GetAt(at, &out) == &out && out == model_[at], "plain view GetAt");
      out = Keys<T>::Make(5);
      FUZZ_CHECK(cross->GetAt(at, &out) == &out && out == model_[at], "interleaved view GetAt");
    } else {
      FUZZ_CHECK(plain->GetAt(at, &out) == nullptr, "plain view GetAt beyond the end");
    }
    if (n > 0) {
      FUZZ_CHECK(plain->GetLast(&out) == &out && out == model_.back(), "plain view GetLast");
      FUZZ_CHECK(cross->GetLast(&out) == &out && out == model_.back(), "interleaved GetLast");
    }
    FUZZ_CHECK(plain->UpperBound(&probe) == (present ? lower : n), "plain view search");
    FUZZ_CHECK(cross->UpperBound(&probe) == BackwardSearch(probe), "interleaved view search");
  }

  // Description round trip into a second array of the same kind (file storage only; the
  // others answer true and describe nothing).
  void RoundTrip() {
    base::DictionaryValue* saved = nullptr;
    FUZZ_CHECK(array_->SaveDescription(&saved), "SaveDescription");
    std::unique_ptr<base::DictionaryValue> owned(saved);
    if (!FileStorage()) {
      FUZZ_CHECK(saved == nullptr, "an array without files described some");
      return;
    }
    FUZZ_CHECK(saved != nullptr, "no description");
    std::unique_ptr<IZUArray> copy(Alloc(kind_, static_cast<int>(sizeof(T))));
    FUZZ_CHECK(copy->LoadDescription(owned.get()), "LoadDescription");
    FUZZ_CHECK(copy->GetSize() == model_.size(), "loaded %llu of %zu",
               static_cast<unsigned long long>(copy->GetSize()), model_.size());
    std::vector<T> back(model_.size());
    if (!back.empty()) copy->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
    FUZZ_CHECK(back == model_, "loaded content differs");
    // Both arrays now name the same files and each deletes them when it goes. The copy is
    // kept until the input ends, so the files stay while the original goes on using them.
    copies_.push_back(std::move(copy));
  }

  void Check() {
    const uint64_t n = model_.size();
    FUZZ_CHECK(array_->GetSize() == n, "size %llu, model %llu",
               static_cast<unsigned long long>(array_->GetSize()),
               static_cast<unsigned long long>(n));
    if (n == 0) return;
    T out;
    FUZZ_CHECK(array_->GetAt(0, &out) == &out && out == model_[0], "first element");
    FUZZ_CHECK(array_->GetLast(&out) == &out && out == model_.back(), "GetLast");
    const uint64_t i = (n * 2654435761u) % n;
    FUZZ_CHECK(array_->GetAt(i, &out) == &out && out == model_[i], "element %llu",
               static_cast<unsigned long long>(i));
  }

  void FullCheck() {
    std::vector<T> back(model_.size());
    if (!back.empty()) array_->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
    FUZZ_CHECK(back == model_, "content differs");
  }

  FuzzedDataProvider& in_;
  Kind kind_;
  std::unique_ptr<IZUArray> array_;
  std::vector<std::unique_ptr<IZUArray>> copies_;  // loaded from descriptions; see RoundTrip
  std::vector<uint64_t> keys_;                     // ascending; model_[i] is made from keys_[i]
  std::vector<T> model_;
};

std::string g_data_dir;

int CountFiles() {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(g_data_dir)) {
    (void)entry;
    ++n;
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = (std::filesystem::temp_directory_path() / "zu_fuzz_XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  g_data_dir = pattern;
  IZUArray::SetDataDirectory(std::filesystem::path(g_data_dir).wstring());
  std::atexit([] { std::filesystem::remove_all(g_data_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const Kind kind =
      static_cast<Kind>(in.ConsumeIntegralInRange<int>(0, static_cast<int>(Kind::kCount) - 1));
  const int type = in.ConsumeIntegralInRange<int>(
      0, kind == Kind::kAutoVector || kind == Kind::kAutoDeque ? 4 : 3);
  switch (type) {
    case 0:
      Runner<uint8_t>(in, kind).Run();
      break;
    case 1:
      Runner<uint16_t>(in, kind).Run();
      break;
    case 2:
      Runner<uint32_t>(in, kind).Run();
      break;
    case 3:
      Runner<int64_t>(in, kind).Run();
      break;
    default:
      Runner<SimpleBigData<16>>(in, kind).Run();
      break;
  }
  // Every array of this input is gone: so are its files.
  FUZZ_CHECK(CountFiles() == 0, "files left in the data directory");
  return 0;
}
