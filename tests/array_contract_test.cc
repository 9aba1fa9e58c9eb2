// The contract every owning array kind shares, over each kind and element type: the model of
// support/array_model.h driven by seeded random operations, through the shared library as a host
// uses it. Adding a kind or an element type is one line in ContractKinds. (File storage with
// one-chunk read views, as on Windows and in 32-bit builds, runs the same model in
// file_array_test.cc, which can swap the platform layer.)
#include <gtest/gtest.h>

#include "tests/support/array_model.h"
#include "tests/support/temp_dir.h"

namespace zu_test {
namespace {

template <typename T, IZUArray* (CArrayFactory::*Alloc)(int), Storage S>
struct Kind {
  using Element = T;
  static constexpr Storage kStorage = S;
  static IZUArray* Make() { return (CArrayFactory().*Alloc)(static_cast<int>(sizeof(T))); }
};
template <typename T>
using Vector = Kind<T, &CArrayFactory::AllocVectorArray, Storage::kMemory>;
template <typename T>
using Deque = Kind<T, &CArrayFactory::AllocDequeArray, Storage::kMemory>;
template <typename T>
using File = Kind<T, &CArrayFactory::AllocFileArray, Storage::kFile>;
// The self-spilling kinds stay in memory at these sizes; their file phase has its own tests.
template <typename T>
using AutoDeque = Kind<T, &CArrayFactory::AllocAutoDequeArray, Storage::kSelfSpilling>;
template <typename T>
using AutoVector = Kind<T, &CArrayFactory::AllocAutoVectorArray, Storage::kSelfSpilling>;

using ContractKinds =
    ::testing::Types<Vector<uint8_t>, Vector<uint16_t>, Vector<uint32_t>, Vector<int64_t>,  //
                     Deque<uint8_t>, Deque<uint16_t>, Deque<uint32_t>, Deque<int64_t>,      //
                     File<uint8_t>, File<uint16_t>, File<uint32_t>, File<int64_t>,          //
                                                                                            //
                     AutoDeque<uint8_t>, AutoDeque<uint32_t>, AutoDeque<int64_t>,
                     AutoDeque<SimpleBigData<16>>, AutoDeque<SimpleBigData<512>>,
                     AutoVector<uint16_t>, AutoVector<int64_t>, AutoVector<SimpleBigData<64>>>;

template <typename K>
class ArrayContract : public ::testing::Test {
 protected:
  TempDataDir dir_;
};
TYPED_TEST_SUITE(ArrayContract, ContractKinds);

TYPED_TEST(ArrayContract, BehavesLikeTheModel) {
  for (uint64_t seed : {1, 2, 3}) {
    RandomInput input(seed * 7919 + sizeof(typename TypeParam::Element));
    ArrayModel<typename TypeParam::Element, RandomInput> model(input, &TypeParam::Make,
                                                               TypeParam::kStorage);
    EXPECT_EQ(model.Run(), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace zu_test
