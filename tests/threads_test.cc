// Arrays of every kind used from different threads at once, one thread per array: each array
// is private to its thread, but they share the data directory, the platform layer, the
// process-wide statics of the file storage (dummy elements, the open-file limit) and the
// allocator. Every thread checks its own array against what it put in; the suite is meant to
// stay clean under ThreadSanitizer (ZU_SANITIZE=thread).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

constexpr uint64_t kSpillThreshold = 8388608;

struct Tally {
  std::atomic<int> problems{0};
  std::atomic<int64_t> checked{0};  // elements read back and compared
};

// n ascending values with repeats; `per_value` elements share a value, so that narrow types
// do not wrap.
template <typename T>
std::vector<T> Ascending(size_t n, uint64_t salt, size_t per_value = 3) {
  std::vector<T> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<T>((i + salt) / per_value);
  return v;
}

// Adds `values` (bulk, single and strided), then reads, searches, sets and clears; returns
// the number of elements compared.
template <typename T>
void Exercise(IZUArray& array, const std::vector<T>& values, Tally& tally, const char* name) {
  auto problem = [&](const std::string& what) {
    ++tally.problems;
    ADD_FAILURE() << name << ": " << what;
  };
  const size_t third = values.size() / 3;
  if (array.AppendBuffer(values.data(), third) != kZuOk) problem("AppendBuffer");
  for (size_t i = third; i < 2 * third; ++i) {
    if (array.Append(&values[i]) != kZuOk) problem("Append");
  }
  std::vector<T> spread(2 * (values.size() - 2 * third));
  for (size_t i = 2 * third; i < values.size(); ++i) spread[2 * (i - 2 * third)] = values[i];
  SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(spread.data()),
                                      static_cast<unsigned int>(values.size() - 2 * third),
                                      2 * sizeof(T));
  std::shared_ptr<ArrayIterBase> last = first.Clone();
  last->Seek(static_cast<unsigned int>(values.size() - 2 * third));
  if (array.AppendRange(&first, last.get()) != kZuOk) problem("AppendRange");
  if (array.GetSize() != values.size()) {
    problem("size " + std::to_string(array.GetSize()));
    return;
  }
  std::vector<T> back(values.size());
  array.CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
  if (back != values) problem("content");
  tally.checked += static_cast<int64_t>(back.size());
  for (size_t p = 0; p < 200; ++p) {
    const size_t i = (p * 7919) % values.size();
    const uint64_t lower =
        std::lower_bound(values.begin(), values.end(), values[i]) - values.begin();
    if (array.LowerBound(&values[i]) != lower) problem("LowerBound");
    if (array.Find(&values[i]) != lower) problem("Find");
  }
  const T top = values.back();
  array.SetAt(values.size() - 1, &top);
  T out{};
  if (array.GetLast(&out) != &out || out != top) problem("GetLast");
  array.Clear();
  if (array.GetSize() != 0) problem("Clear");
}

std::unique_ptr<IZUArray> Make(IZUArray* (CArrayFactory::*alloc)(int), int type) {
  CArrayFactory factory;
  return std::unique_ptr<IZUArray>((factory.*alloc)(type));
}

TEST(Threads, OneThreadPerArrayOfEveryKind) {
  TempDataDir dir;
  Tally tally;
  std::vector<std::function<void()>> jobs;
  // In-memory kinds.
  jobs.push_back([&] {
    auto a = Make(&CArrayFactory::AllocVectorArray, 4);
    Exercise(*a, Ascending<uint32_t>(300000, 1), tally, "vector");
  });
  jobs.push_back([&] {
    auto a = Make(&CArrayFactory::AllocDequeArray, 8);
    Exercise(*a, Ascending<int64_t>(300000, 2), tally, "deque");
  });
  jobs.push_back([&] {
    auto a = Make(&CArrayFactory::AllocAutoVectorArray, 2);
    Exercise(*a, Ascending<uint16_t>(100000, 3), tally, "auto vector");
  });
  // An attached view over this thread's own buffer.
  jobs.push_back([&] {
    std::vector<uint32_t> buffer = Ascending<uint32_t>(100000, 4);
    CArrayFactory factory;
    std::unique_ptr<IZUArray> a(factory.AllocAttachBufferArray(
        4, reinterpret_cast<unsigned char*>(buffer.data()), buffer.size() * 4));
    uint32_t out = 0;
    for (size_t i = 0; i < buffer.size(); i += 97) {
      if (a->GetAt(i, &out) == nullptr || out != buffer[i]) {
        ++tally.problems;
        ADD_FAILURE() << "attached view at " << i;
      }
      ++tally.checked;
    }
  });
  // File arrays crossing chunks, two of them at once, with a description round trip.
  for (int k = 0; k < 2; ++k) {
    jobs.push_back([&, k] {
      auto a = Make(&CArrayFactory::AllocFileArray, 2);
      const std::vector<uint16_t> values = Ascending<uint16_t>(1200000, 5 + k, 32);
      Exercise(*a, values, tally, "file");
      if (a->AppendBuffer(values.data(), values.size()) != kZuOk) ++tally.problems;
      base::DictionaryValue* saved = nullptr;
      if (!a->SaveDescription(&saved) || saved == nullptr) {
        ++tally.problems;
        ADD_FAILURE() << "SaveDescription";
        return;
      }
      std::unique_ptr<base::DictionaryValue> owned(saved);
      auto copy = Make(&CArrayFactory::AllocFileArray, 2);
      copy->LoadDescription(owned.get());
      std::vector<uint16_t> back(values.size());
      copy->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
      if (copy->GetSize() != values.size() || back != values) {
        ++tally.problems;
        ADD_FAILURE() << "loaded copy";
      }
      tally.checked += static_cast<int64_t>(back.size());
      a.reset();  // the copy goes last; both name the same files
    });
  }
  // A self-spilling array that moves into files while the others run.
  jobs.push_back([&] {
    auto a = Make(&CArrayFactory::AllocAutoDequeArray, 1);
    std::vector<uint8_t> values(kSpillThreshold + 4096);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i >> 16);
    Exercise(*a, values, tally, "auto deque");
  });

  std::vector<std::thread> threads;
  for (auto& job : jobs) threads.emplace_back(job);
  for (auto& t : threads) t.join();
  EXPECT_EQ(tally.problems.load(), 0);
  std::printf("threads: %zu arrays on %zu threads at once, %lld elements compared, %d problems\n",
              jobs.size(), threads.size(), static_cast<long long>(tally.checked.load()),
              tally.problems.load());
}

}  // namespace
}  // namespace zu_test
