// Differential fuzzing of every owning array kind against a plain std::vector model.
//
// The input picks an array kind and an element type; the rest of it chooses the operations of
// the shared model (tests/support/array_model.h), which compares the array with the model after
// every step. A mismatch prints "check failed: ..." and traps, so libFuzzer keeps the input.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <iterator>

#include "tests/support/array_model.h"

namespace {

using Alloc = IZUArray* (CArrayFactory::*)(int);
struct Kind {
  Alloc alloc;
  zu_test::Storage storage;
};
const Kind kKinds[] = {
    {&CArrayFactory::AllocVectorArray, zu_test::Storage::kMemory},
    {&CArrayFactory::AllocDequeArray, zu_test::Storage::kMemory},
    {&CArrayFactory::AllocFileArray, zu_test::Storage::kFile},
    {&CArrayFactory::AllocAutoVectorArray, zu_test::Storage::kSelfSpilling},
    {&CArrayFactory::AllocAutoDequeArray, zu_test::Storage::kSelfSpilling},
};

std::filesystem::path g_data_dir;

template <typename T>
void Run(FuzzedDataProvider& in, const Kind& kind) {
  auto make = [&kind] { return (CArrayFactory().*kind.alloc)(static_cast<int>(sizeof(T))); };
  const std::string problem =
      zu_test::ArrayModel<T, FuzzedDataProvider>(in, make, kind.storage).Run();
  if (problem.empty()) return;
  std::fprintf(stderr, "check failed: %s\n", problem.c_str());
  __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = (std::filesystem::temp_directory_path() / "zu_fuzz_XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  g_data_dir = pattern;
  IZUArray::SetDataDirectory(g_data_dir.wstring());
  std::atexit([] { std::filesystem::remove_all(g_data_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const Kind& kind = kKinds[in.ConsumeIntegralInRange<size_t>(0, std::size(kKinds) - 1)];
  // Records (16 bytes) only in the self-spilling kinds.
  switch (
      in.ConsumeIntegralInRange<int>(0, kind.storage == zu_test::Storage::kSelfSpilling ? 4 : 3)) {
    case 0:
      Run<uint8_t>(in, kind);
      break;
    case 1:
      Run<uint16_t>(in, kind);
      break;
    case 2:
      Run<uint32_t>(in, kind);
      break;
    case 3:
      Run<int64_t>(in, kind);
      break;
    default:
      Run<SimpleBigData<16>>(in, kind);
      break;
  }
  // Every array of this input is gone: so are its files.
  if (!std::filesystem::is_empty(g_data_dir)) {
    std::fprintf(stderr, "check failed: files left in the data directory\n");
    __builtin_trap();
  }
  return 0;
}
