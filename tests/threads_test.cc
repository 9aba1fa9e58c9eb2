// Arrays of every kind used from different threads at once, one thread per array: each array
// is private to its thread, but they share the data directory, the platform layer, the
// process-wide state of the file storage (the open-file limit) and the allocator. Every thread
// runs the contract model on its own array; one more moves a self-spilling array into files
// meanwhile. The suite is meant to stay clean under ThreadSanitizer (ZU_SANITIZE=thread).
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/array_model.h"
#include "tests/support/temp_dir.h"

namespace zu_test {
namespace {

template <typename T>
std::function<std::string()> ModelRun(IZUArray* (CArrayFactory::*alloc)(int), Storage storage,
                                      uint64_t seed) {
  return [=] {
    RandomInput input(seed);
    auto make = [alloc] { return (CArrayFactory().*alloc)(static_cast<int>(sizeof(T))); };
    return ArrayModel<T, RandomInput>(input, make, storage).Run(200);
  };
}

TEST(Threads, OneThreadPerArrayOfEveryKind) {
  TempDataDir dir;
  std::vector<std::function<std::string()>> jobs = {
      ModelRun<uint32_t>(&CArrayFactory::AllocVectorArray, Storage::kMemory, 1),
      ModelRun<int64_t>(&CArrayFactory::AllocDequeArray, Storage::kMemory, 2),
      ModelRun<uint16_t>(&CArrayFactory::AllocAutoVectorArray, Storage::kSelfSpilling, 3),
      ModelRun<uint16_t>(&CArrayFactory::AllocFileArray, Storage::kFile, 4),
      ModelRun<int64_t>(&CArrayFactory::AllocFileArray, Storage::kFile, 5),
      [] {
        std::unique_ptr<IZUArray> array(CArrayFactory().AllocAutoDequeArray(1));
        std::vector<uint8_t> values(8388608 + 4096), back(values.size());
        for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i >> 16);
        array->AppendBuffer(values.data(), values.size());
        array->CopyOut(back.data(), 0, static_cast<unsigned int>(back.size()));
        base::DictionaryValue* desc = nullptr;
        array->SaveDescription(&desc);
        std::unique_ptr<base::DictionaryValue> owned(desc);
        return back == values && owned != nullptr ? "" : "the moved array differs";
      }};
  std::vector<std::string> problems(jobs.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < jobs.size(); ++i)
    threads.emplace_back([&, i] { problems[i] = jobs[i](); });
  for (auto& thread : threads) thread.join();
  for (size_t i = 0; i < jobs.size(); ++i) EXPECT_EQ(problems[i], "") << "thread " << i;
  std::printf("threads: %zu arrays on as many threads at once\n", jobs.size());
}

}  // namespace
}  // namespace zu_test
