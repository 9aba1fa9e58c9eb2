// The shared contract of every owning array kind, as a model: a sequence of operations chosen
// by an input (single, bulk, strided and replacing adds, SetAt, GetAt, searches, copies, Clear,
// refused input, a description round trip through JSON text, and read-only views over a copy
// of the elements) runs on the array and on a plain std::vector, and the two are compared
// after every step: size, first, last and one chosen element, and at the end every element.
//
// The differential fuzzer (fuzz/) feeds it libFuzzer's input; the typed contract suite
// (array_contract_test.cc, a host of the shared library) feeds it seeded random numbers over
// every kind and element type. It uses nothing but the public interface.
//
// The elements always stand in ascending order (searches assume it). Where file storage
// deliberately answers differently the comparison is narrowed rather than skipped:
// - FindFloor, LocateLowerBound and FindNearest answer from one sample per page on file storage;
//   there they are compared with that definition.
// - UpperBound of a value at or above the last element answers the start of the next segment.
// - SetAt on file storage writes only the chunk that holds the end, so it is issued there only
//   for indexes in that chunk; GetLast of an empty file array still writes its all-ones element.
// - A failed Assign (a reversed range) leaves the array empty; a failed append does so only
//   to a self-spilling array.
// The views over a caller's buffer (plain and interleaved) are checked against the documented
// rules: an exact-match search on the plain view, a backward search on the interleaved one.
//
// Direct reads are held to the same answers: after every step a run around a chosen index
// (ZuGetReadRun) must hold the model's elements, for_each_run must cover a range in order, and
// a batch of searches (ZuSearchBatch) must answer what the single searches answer. A reader
// kept across steps is reset only where direct_read.h says a change ends runs (an append ends
// them only when the run's flags do not say otherwise), so a run that the library lets go
// earlier than it says is read after it went: a crash, or a report of ASan.
#ifndef ZU_TESTS_SUPPORT_ARRAY_MODEL_H_
#define ZU_TESTS_SUPPORT_ARRAY_MODEL_H_

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "zu_data_manager/reader.h"
#include "zu_data_manager/zu_data_manager.h"

#ifndef _WIN32
#include <unistd.h>
#endif

namespace zu_test {

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

enum class Storage { kMemory, kFile, kSelfSpilling };

// File storage keeps one sample per memory page of the system (4 KiB on every Windows the
// library builds for).
inline uint64_t PageBytes() {
#ifdef _WIN32
  return 4096;
#else
  return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
#endif
}

// A failed comparison; ArrayModel::Run reports its message.
struct ModelMismatch {
  std::string what;
};

// Seeded random numbers in the shape of libFuzzer's FuzzedDataProvider (the calls used here).
class RandomInput {
 public:
  explicit RandomInput(uint64_t seed) : random_(seed) {}
  size_t remaining_bytes() const { return 1; }
  bool ConsumeBool() { return random_() & 1; }
  template <typename I>
  I ConsumeIntegralInRange(I lo, I hi) {
    const uint64_t span = static_cast<uint64_t>(hi) - static_cast<uint64_t>(lo);
    const uint64_t r = random_();
    return static_cast<I>(static_cast<uint64_t>(lo) + (span == UINT64_MAX ? r : r % (span + 1)));
  }

 private:
  std::mt19937_64 random_;
};

template <typename T, typename Input>
class ArrayModel {
 public:
  // `make` creates an empty array of the kind (also for the description round trip).
  ArrayModel(Input& in, std::function<IZUArray*()> make, Storage storage)
      : in_(in),
        make_(std::move(make)),
        storage_(storage),
        array_(make_()),
        reader_(array_.get()) {}

  // Runs up to `steps` operations; the first mismatch's message, or empty.
  std::string Run(int steps = 400) {
    try {
      Expect(array_ != nullptr, "no array");
      for (int step = 0; in_.remaining_bytes() > 0 && step < steps; ++step) {
        const int op = in_.template ConsumeIntegralInRange<int>(0, 13);
        Step(op);
        last_op_ = op;
        EndRuns(op);
        Check();
        CheckDirectReads();
      }
      std::vector<T> back(model_.size());
      if (!back.empty()) array_->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
      Expect(back == model_, "content differs");
    } catch (const ModelMismatch& mismatch) {
      return mismatch.what + " (after operation " + std::to_string(last_op_) + ")";
    }
    return "";
  }

 private:
  // Keeps one run fast and small; crosses file chunks for elements of 4 bytes and more.
  static constexpr size_t kMaxElements = std::min<size_t>(1 << 19, (size_t{16} << 20) / sizeof(T));

  bool Files() const { return storage_ == Storage::kFile; }
  static void Expect(bool ok, const std::string& what) {
    if (!ok) throw ModelMismatch{what};
  }
  template <typename I>
  I Pick(I lo, I hi) {
    return in_.template ConsumeIntegralInRange<I>(lo, hi);
  }

  // n ascending keys after the current end, `step` apart every third one.
  std::vector<uint64_t> MoreKeys(size_t n, uint64_t step) {
    std::vector<uint64_t> more(n);
    uint64_t k = keys_.empty() ? Pick<uint64_t>(0, 64) : keys_.back();
    for (size_t i = 0; i < n; ++i) more[i] = k = std::min(Keys<T>::Max(), k + (i % 3 ? 0 : step));
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
  void Forget() {
    keys_.clear();
    model_.clear();
  }
  static void ExpectOk(int code, const char* what) {
    Expect(code == kZuOk, std::string(what) + " answered " + std::to_string(code));
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
      case 0: {  // a run of single appends: long enough to pass a page sample of file storage
        const std::vector<uint64_t> keys =
            MoreKeys(std::min(room, Pick<size_t>(1, 5000)), Pick<uint64_t>(0, 3));
        const std::vector<T> v = Values(keys);
        for (const T& value : v) ExpectOk(array_->Append(&value), "Append");
        return Adopt(keys);
      }
      case 1:    // a small plain buffer
      case 2: {  // a big one: crosses chunks of file storage
        const size_t n = std::min(room, Pick<size_t>(0, op == 1 ? 3000 : 200000));
        const std::vector<uint64_t> keys = MoreKeys(n, Pick<uint64_t>(0, 2));
        const std::vector<T> v = Values(keys);
        ExpectOk(array_->AppendBuffer(v.empty() ? nullptr : v.data(), n), "AppendBuffer");
        return Adopt(keys);
      }
      case 3:    // a strided range (taken element by element unless the gap is 0)
      case 4: {  // the same, replacing the content
        const size_t n = std::min(op == 4 ? kMaxElements : room, Pick<size_t>(0, 700));
        const unsigned gap = Pick<unsigned>(0, 3);
        if (op == 4) Forget();
        const std::vector<uint64_t> keys = MoreKeys(n, Pick<uint64_t>(0, 5));
        Range r = MakeRange(Values(keys), gap);
        if (in_.ConsumeBool()) {  // `last` from a longer walk: the source's own elements end it
          r.last = std::make_shared<SimpleDataIter<unsigned char>>(
              reinterpret_cast<unsigned char*>(r.spread.data()), n + 9, 1);
          r.last->Seek(static_cast<unsigned int>(n + 9));
        }
        ExpectOk(op == 4 ? array_->Assign(r.first.get(), r.last.get())
                         : array_->AppendRange(r.first.get(), r.last.get()),
                 op == 4 ? "Assign" : "AppendRange");
        Expect(r.first->GetPosition() == n, "a range did not leave first at last");
        return Adopt(keys);
      }
      case 5: {  // SetAt, in order with the neighbours, or out of range (ignored)
        const uint64_t size = model_.size();
        const uint64_t i = Pick<uint64_t>(0, size + 2);
        const uint64_t per_chunk = (uint64_t{1} << 20) / sizeof(T);
        if (i >= size || (Files() && i / per_chunk != (size - 1) / per_chunk)) {
          const T v = Keys<T>::Make(0);  // beyond the end instead: ignored
          array_->SetAt(in_.ConsumeBool() ? size + i % 3 : ~uint64_t{0} - i, &v);
          return;
        }
        const uint64_t lo = i == 0 ? keys_[0] : keys_[i - 1];
        const uint64_t k = Pick<uint64_t>(lo, std::max(lo, i + 1 < size ? keys_[i + 1] : keys_[i]));
        keys_[i] = k;
        model_[i] = Keys<T>::Make(k);
        array_->SetAt(i, &model_[i]);
        return;
      }
      case 6: {  // GetAt anywhere
        const uint64_t i = in_.ConsumeBool() ? Pick<uint64_t>(0, UINT64_MAX)
                                             : Pick<uint64_t>(0, model_.size() + 1);
        T out = Keys<T>::Make(7);
        const void* got = array_->GetAt(i, &out);
        Expect(i < model_.size() ? got == &out && out == model_[i] : got == nullptr,
               "GetAt(" + std::to_string(i) + ")");
        return;
      }
      case 7:
        return Search();
      case 8: {  // CopyOut: only what exists, from a start that may lie beyond the end
        const size_t n = model_.size();
        const int start = in_.ConsumeBool() ? Pick<int>(0, static_cast<int>(n) + 3) : INT_MAX;
        const size_t left = n - std::min(n, static_cast<size_t>(start));
        const unsigned count = in_.ConsumeBool() ? Pick<unsigned>(0, 5000) : UINT_MAX;
        const size_t copied = std::min<size_t>(count, left);
        const T fill = Keys<T>::Make(3);
        std::vector<T> out(copied + 1, fill);
        array_->CopyOut(out.data(), start, count);
        Expect(std::equal(out.begin(), out.begin() + copied, model_.begin() + (n - left)),
               "CopyOut");
        Expect(out[copied] == fill, "CopyOut wrote past what it copies");
        return;
      }
      case 9:
        array_->Clear();
        return Forget();
      case 10:
        return RoundTrip();
      case 11: {  // refused input: an empty buffer, and a range whose end lies before its start
        ExpectOk(array_->AppendBuffer(nullptr, 0), "AppendBuffer(nullptr, 0)");
        Range r = MakeRange(Values(MoreKeys(4, 1)), 0);
        r.first->Seek(3);
        r.last->Seek(1);
        const bool assign = in_.ConsumeBool();
        const int code = assign ? array_->Assign(r.first.get(), r.last.get())
                                : array_->AppendRange(r.first.get(), r.last.get());
        Expect(code == kZuFailed, "a reversed range answered " + std::to_string(code));
        // Assign has emptied the array before it fails; a failed add clears a self-spilling one.
        if (assign || storage_ == Storage::kSelfSpilling) Forget();
        return;
      }
      case 12:
        if constexpr (std::is_integral<T>::value) Views();
        return;
      case 13:
        return Batch();
    }
  }

  // The reader forgets its run where a change ends runs: Clear, Assign, SetAt on file storage
  // (a self-spilling array may be in files), any failed add, and appends unless the run at hand
  // is kept by appends.
  void EndRuns(int op) {
    const bool append = op <= 3;
    const bool set_in_files = op == 5 && storage_ != Storage::kMemory;
    if (op == 4 || op == 9 || op == 11 || set_in_files || (append && !kept_by_appends_)) {
      reader_.reset();
    }
  }

  // The runs, the reader and a range walked run by run hold the model's elements.
  void CheckDirectReads() {
    const uint64_t n = model_.size();
    const uint64_t i = n == 0 ? 0 : Pick<uint64_t>(0, n - 1);
    ZuReadRun run;
    if (ZuGetReadRun(array_.get(), Pick<uint64_t>(n, n + 2), &run))
      Expect(false, "a run beyond the end");
    if (n == 0) return;
    if (ZuGetReadRun(array_.get(), i, &run)) {
      Expect(run.first <= i && i - run.first < run.count && run.first + run.count <= n,
             "the run does not hold its index");
      Expect(std::memcmp(run.data, model_.data() + run.first, run.count * sizeof(T)) == 0,
             "a run shows other elements");
      kept_by_appends_ = (run.flags & kZuRunKeptByAppends) != 0;
    }
    for (int k = 0; k < 8; ++k) {
      const uint64_t at = k == 0 ? i : Pick<uint64_t>(0, n - 1);
      Expect(reader_[at] == model_[at], "reader at " + std::to_string(at));
    }
    const uint64_t start = Pick<uint64_t>(0, n);
    const uint64_t count = in_.ConsumeBool() ? Pick<uint64_t>(0, n - start) : UINT64_MAX;
    uint64_t next = start;
    const uint64_t covered =
        zu::ForEachRun<T>(array_.get(), start, count, [&](const T* data, size_t k) {
          Expect(std::equal(data, data + k, model_.begin() + static_cast<int64_t>(next)),
                 "for_each_run");
          next += k;
        });
    Expect(covered == std::min(count, n - start) && next == start + covered,
           "for_each_run's cover");
  }

  // Keys around chosen elements and beyond both ends, in any order and with repeats.
  std::vector<T> BatchKeys() {
    std::vector<T> keys(Pick<size_t>(0, 300));
    for (T& key : keys) {
      const uint64_t base = keys_.empty() || in_.ConsumeBool()
                                ? Pick<uint64_t>(0, Keys<T>::Max())
                                : keys_[Pick<size_t>(0, keys_.size() - 1)];
      const uint64_t shift = Pick<uint64_t>(0, 2);
      key = Keys<T>::Make(in_.ConsumeBool() ? std::min(Keys<T>::Max(), base + shift)
                                            : base - std::min(base, shift));
    }
    return keys;
  }

  // A batch of each search answers what one single search per key answers.
  void Batch() {
    const std::vector<T> keys = BatchKeys();
    for (ZuSearch search : {kZuSearchLowerBound, kZuSearchUpperBound, kZuSearchFind}) {
      std::vector<uint64_t> out(keys.size() + 1, 77);
      Expect(ZuSearchBatch(array_.get(), search, keys.data(), keys.size(), out.data()),
             "ZuSearchBatch");
      for (size_t k = 0; k < keys.size(); ++k) {
        const uint64_t single = search == kZuSearchLowerBound   ? array_->LowerBound(&keys[k])
                                : search == kZuSearchUpperBound ? array_->UpperBound(&keys[k])
                                                                : array_->Find(&keys[k]);
        Expect(out[k] == single,
               "batch " + std::to_string(search) + " of key " + std::to_string(k));
      }
      Expect(out[keys.size()] == 77, "a batch wrote past its keys");
    }
  }

  void Search() {
    // Now and then next to the first element of a chunk, where file storage's searches change
    // from one chunk's samples to the next.
    const size_t chunk = (size_t{1} << 20) / sizeof(T);
    const size_t at = keys_.size() > chunk && in_.ConsumeBool()
                          ? chunk * Pick<size_t>(1, (keys_.size() - 1) / chunk)
                      : keys_.empty() ? 0
                                      : Pick<size_t>(0, keys_.size() - 1);
    const uint64_t base = keys_.empty() ? 0 : keys_[at];
    const int64_t shift = Pick<int64_t>(-2, 2);
    const uint64_t key = shift < 0 && base < static_cast<uint64_t>(-shift)
                             ? 0
                             : std::min(Keys<T>::Max(), base + shift);
    const T probe = Keys<T>::Make(key);
    const uint64_t n = model_.size();
    const uint64_t lower = std::lower_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const uint64_t upper = std::upper_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const bool present = lower < n && model_[lower] == probe;
    Expect(array_->LowerBound(&probe) == lower, "LowerBound");
    const uint64_t segment = (uint64_t{1} << 27) / sizeof(T);
    const uint64_t next_segment = (n / segment + 1) * segment;
    Expect(array_->UpperBound(&probe) == (Files() && n > 0 && upper == n ? next_segment : upper),
           "UpperBound");
    Expect(array_->Find(&probe) == (present ? lower : n), "Find");
    T nearest = probe;
    const uint64_t tolerance = Pick<uint64_t>(0, 3);
    const uint64_t found = array_->FindNearest(&nearest, tolerance);
    const uint64_t floor = array_->FindFloor(&probe);
    const uint64_t locate = array_->LocateLowerBound(&probe);
    if (n == 0) {
      Expect(found == 0 && floor == 0 && locate == 0 && nearest == probe, "empty searches");
    } else if (!Files()) {
      Expect(locate == lower, "LocateLowerBound");
      Expect(floor == (lower >= n ? n - 1 : present ? lower : lower - 1), "FindFloor");
      Expect(found == lower && nearest == (lower < n ? model_[lower] : probe), "FindNearest");
    } else {
      // File storage answers from one sample per page: the first sampled position whose element
      // is not below the value (past the samples: the next would-be sample), and the sample
      // before it as the floor unless that position holds the value. A wide tolerance takes a
      // neighbouring sample and hands out its value; a tolerance of 0 is exact.
      const uint64_t interval = PageBytes() / sizeof(T);
      uint64_t located = (n + interval - 1) / interval * interval;
      for (uint64_t j = 0; j < n; j += interval) {
        if (!(model_[j] < probe)) {
          located = j;
          break;
        }
      }
      uint64_t coarse_floor = located == 0 ? n : located - interval;
      if (located > n) coarse_floor = (n - 1) / interval * interval;
      if (located < n && model_[located] == probe) coarse_floor = located;
      Expect(locate == located, "coarse LocateLowerBound");
      Expect(floor == coarse_floor, "coarse FindFloor");
      T want = probe;
      Expect(found == SampledNearest(probe, tolerance, &want) && nearest == want,
             "FindNearest within a tolerance");
      nearest = probe;
      Expect(array_->FindNearest(&nearest, 0) == lower && nearest == probe, "exact FindNearest");
      const uint64_t wide = array_->FindNearest(&nearest, uint64_t{1} << 62);
      Expect(!(model_[0] < probe) ? wide == 0 && nearest == probe
                                  : wide % interval == 0 && wide < n && nearest == model_[wide] &&
                                        (wide > lower ? wide - lower : lower - wide) <= interval,
             "FindNearest with a wide tolerance");
    }
  }

  // FindNearest on file storage (one segment here): the chunk and the first page sample in it
  // not below the value, as LocateLowerBound finds them; the sample before that one, or that
  // one (past the chunk's samples: the next chunk's first element), when strictly closer than
  // the tolerance, its value handed out; else the exact lower bound within the page before.
  uint64_t SampledNearest(const T& value, uint64_t tolerance, T* out) const {
    const uint64_t n = model_.size(), interval = PageBytes() / sizeof(T);
    const uint64_t chunk = (uint64_t{1} << 20) / sizeof(T), per_chunk = chunk / interval;
    uint64_t below = 0;  // page samples below the value
    for (uint64_t j = 0; j < n && model_[j] < value; j += interval) ++below;
    if (below == 0) return 0;
    const uint64_t k = (below - 1) / per_chunk, i = below - k * per_chunk, base = k * chunk;
    const uint64_t samples = (std::min(n, base + chunk) - base + interval - 1) / interval;
    auto at = [&](uint64_t j) { return base + j * interval; };
    auto take = [&](uint64_t p) {
      *out = model_[p];
      return p;
    };
    uint64_t page = samples - 1;
    if (i < samples) {
      if (Distance(value, model_[at(i - 1)]) < tolerance) return take(at(i - 1));
      if (Distance(model_[at(i)], value) < tolerance) return take(at(i));
      page = i - 1;
    } else if (Distance(value, model_[at(page)]) < tolerance) {
      return take(at(page));
    } else if (base + chunk < n && Distance(model_[base + chunk], value) < tolerance) {
      return take(base + chunk);
    }
    const auto first = model_.begin() + static_cast<int64_t>(at(page));
    const auto last = model_.begin() + static_cast<int64_t>(std::min(n, at(page) + interval));
    return static_cast<uint64_t>(std::lower_bound(first, last, value) - model_.begin());
  }
  // high - low in the element type's own range; records are never within a tolerance.
  static uint64_t Distance(const T& high, const T& low) {
    if constexpr (std::is_integral<T>::value) {
      using U = std::make_unsigned_t<T>;
      return static_cast<U>(static_cast<U>(high) - static_cast<U>(low));
    } else {
      return UINT64_MAX;
    }
  }

  // The documented search of the interleaved view: a backward search whose probe position
  // does not move with the halving step.
  uint64_t BackwardSearch(const T& value) const {
    const uint64_t count = model_.size();
    uint64_t n = count, pos = count - 1;
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
    const size_t gap = Pick<size_t>(0, 7);
    const uint64_t base = keys_.empty() ? 0 : keys_[Pick<size_t>(0, keys_.size() - 1)];
    const T probe = Keys<T>::Make(std::min(Keys<T>::Max(), base + Pick<uint64_t>(0, 1)));
    const uint64_t lower = std::lower_bound(model_.begin(), model_.end(), probe) - model_.begin();
    const bool present = lower < n && model_[lower] == probe;
    const uint64_t at = Pick<uint64_t>(0, n + 1);
    std::vector<T> plain_buffer(model_);
    std::vector<unsigned char> cross_buffer(n * (sizeof(T) + gap) + 1, 0xEE);
    for (uint64_t i = 0; i < n; ++i)
      std::memcpy(&cross_buffer[i * (sizeof(T) + gap)], &model_[i], sizeof(T));
    CArrayFactory factory;
    const int type = static_cast<int>(sizeof(T));
    std::unique_ptr<IZUArray> plain(factory.AllocAttachBufferArray(
        type, n == 0 ? nullptr : reinterpret_cast<unsigned char*>(plain_buffer.data()),
        static_cast<int64_t>(n * sizeof(T))));
    std::unique_ptr<IZUArray> cross(factory.AllocAttachCrossBufferArray(
        type, cross_buffer.data(), static_cast<int64_t>(n * sizeof(T)), static_cast<int>(gap)));
    Expect(plain && cross && plain->GetSize() == n && cross->GetSize() == n, "view sizes");
    T out = Keys<T>::Make(5);
    if (at < n) {
      Expect(plain->GetAt(at, &out) == &out && out == model_[at], "plain view GetAt");
      out = Keys<T>::Make(5);
      Expect(cross->GetAt(at, &out) == &out && out == model_[at], "interleaved view GetAt");
    } else {
      Expect(plain->GetAt(at, &out) == nullptr, "plain view GetAt beyond the end");
    }
    Expect(n == 0 || (plain->GetLast(&out) == &out && out == model_.back()), "plain GetLast");
    Expect(n == 0 || (cross->GetLast(&out) == &out && out == model_.back()), "interleaved GetLast");
    Expect(plain->UpperBound(&probe) == (present ? lower : n), "plain view search");
    Expect(cross->UpperBound(&probe) == BackwardSearch(probe), "interleaved view search");
    // The plain view reads in place as the caller's buffer, the interleaved one only without
    // a gap; their batches answer their own searches, or refuse as the single search does.
    ZuReadRun run;
    const bool plain_run = ZuGetReadRun(plain.get(), at, &run);
    Expect(plain_run == (at < n) &&
               (!plain_run || (run.data == plain_buffer.data() && run.count == n)),
           "plain view run");
    const bool cross_run = ZuGetReadRun(cross.get(), at, &run);
    Expect(cross_run == (at < n && gap == 0), "interleaved view run");
    const std::vector<T> keys = BatchKeys();
    std::vector<uint64_t> answers(keys.size());
    for (IZUArray* view : {plain.get(), cross.get()}) {
      Expect(ZuSearchBatch(view, kZuSearchUpperBound, keys.data(), keys.size(), answers.data()),
             "view batch");
      for (size_t k = 0; k < keys.size(); ++k) {
        Expect(answers[k] == view->UpperBound(&keys[k]), "view batch of key " + std::to_string(k));
      }
      bool refused = keys.empty();
      try {
        ZuSearchBatch(view, kZuSearchLowerBound, keys.data(), keys.size(), answers.data());
      } catch (const std::logic_error&) {
        refused = true;
      }
      Expect(refused, "a view's LowerBound batch did not refuse");
    }
  }

  // A description round trip through JSON text into a second array of the same kind (file
  // storage only; the others answer true and leave the output alone).
  void RoundTrip() {
    Expect(array_->SaveDescription(nullptr) != Files(), "SaveDescription(nullptr)");
    Expect(array_->LoadDescription(nullptr) != Files(), "LoadDescription(nullptr)");
    base::DictionaryValue* saved = nullptr;
    Expect(array_->SaveDescription(&saved), "SaveDescription");
    std::unique_ptr<base::DictionaryValue> owned(saved);
    if (!Files()) return Expect(saved == nullptr, "an array without files described some");
    Expect(saved != nullptr, "no description");
    std::unique_ptr<base::DictionaryValue> text = base::ReadJsonDictionary(base::WriteJson(*owned));
    std::unique_ptr<IZUArray> copy(make_());
    Expect(text && copy->LoadDescription(text.get()), "LoadDescription");
    Expect(copy->GetSize() == model_.size(), "loaded size");
    std::vector<T> back(model_.size());
    if (!back.empty()) copy->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
    Expect(back == model_, "loaded content differs");
    // Both arrays now name the same files and each deletes them when it goes. The copy is
    // kept until the run ends, so the files stay while the original goes on using them.
    copies_.push_back(std::move(copy));
  }

  void Check() {
    const uint64_t n = model_.size();
    Expect(array_->GetSize() == n,
           "size " + std::to_string(array_->GetSize()) + ", model " + std::to_string(n));
    T out;
    if (n == 0) return Expect((array_->GetLast(&out) != nullptr) == Files(), "empty GetLast");
    Expect(array_->GetAt(0, &out) == &out && out == model_[0], "first element");
    Expect(array_->GetLast(&out) == &out && out == model_.back(), "GetLast");
    const uint64_t i = (n * 2654435761u) % n;
    Expect(array_->GetAt(i, &out) == &out && out == model_[i], "element " + std::to_string(i));
  }

  Input& in_;
  std::function<IZUArray*()> make_;
  Storage storage_;
  std::unique_ptr<IZUArray> array_;
  zu::Reader<T> reader_;          // kept across steps; see EndRuns
  bool kept_by_appends_ = false;  // the last run seen said appends leave it in place
  std::vector<std::unique_ptr<IZUArray>> copies_;  // loaded from descriptions; see RoundTrip
  std::vector<uint64_t> keys_;                     // ascending; model_[i] is made from keys_[i]
  std::vector<T> model_;
  int last_op_ = -1;  // for the message
};

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_ARRAY_MODEL_H_
