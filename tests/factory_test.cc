// Factory dispatch: which codes each kind accepts, and what comes back for them.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

// The element size an array works with, found by appending one element of `max` bytes and
// reading how many bytes GetAt writes back.
size_t ElementSizeOf(IZUArray& array) {
  unsigned char in[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char out[16];
  std::fill(std::begin(out), std::end(out), 0xEE);
  if (array.Append(in) != kZuOk) return 0;
  if (array.GetAt(0, out) == nullptr) return 0;
  size_t size = 0;
  while (size < 16 && out[size] != 0xEE) ++size;
  array.Clear();
  return size;
}

TEST(CArrayFactory, VectorArraysForPowerOfTwoIntegerCodesOnly) {
  CArrayFactory factory;
  const struct {
    int code;
    size_t element_size;  // 0: null expected
  } table[] = {{0, 1}, {1, 1}, {2, 2}, {3, 0}, {4, 4}, {5, 0}, {8, 8}, {9, 0},
               {16, 0}, {48, 0}, {64, 0}, {512, 0}, {1024, 0}, {-1, 0}, {-8, 0}};
  for (const auto& row : table) {
    std::unique_ptr<IZUArray> array(factory.AllocVectorArray(row.code));
    if (row.element_size == 0) {
      EXPECT_EQ(array, nullptr) << "code " << row.code;
    } else {
      ASSERT_NE(array, nullptr) << "code " << row.code;
      EXPECT_EQ(ElementSizeOf(*array), row.element_size) << "code " << row.code;
    }
  }
}

TEST(CArrayFactory, NonPowerOfTwoCodesAreRefusedByEveryOwningKind) {
  CArrayFactory factory;
  for (int code : {3, 5, 6, 7, 9, 12, 48, 100, -3}) {
    EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocVectorArray(code)), nullptr) << code;
    EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocDequeArray(code)), nullptr) << code;
    EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocFileArray(code)), nullptr) << code;
    EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAutoDequeArray(code)), nullptr) << code;
    EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAutoVectorArray(code)), nullptr) << code;
  }
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocFileArray(16)), nullptr);
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAutoVectorArray(1024)), nullptr);
}

TEST(CArrayFactory, AttachRefusesArgumentsThatCannotDescribeABuffer) {
  CArrayFactory factory;
  unsigned char buffer[64] = {};
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAttachBufferArray(4, buffer, -4)), nullptr);
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAttachBufferArray(4, nullptr, 16)), nullptr);
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAttachBufferArray(-2, buffer, 16)), nullptr);
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAttachCrossBufferArray(2, buffer, 16, -1)),
            nullptr);
  EXPECT_EQ(std::unique_ptr<IZUArray>(factory.AllocAttachCrossBufferArray(
                1, buffer, int64_t{1} << 62, 1 << 30)),
            nullptr);  // the interleaved span would overflow
}

TEST(CArrayFactory, FactoriesAreStatelessAndIndependentOfTheirArrays) {
  std::unique_ptr<IZUArray> array;
  {
    auto factory = std::make_unique<CArrayFactory>();
    CArrayFactory copy(*factory);
    copy = *factory;
    array.reset(copy.AllocVectorArray(2));
  }
  ASSERT_NE(array, nullptr);
  uint16_t v = 42;
  EXPECT_EQ(array->Append(&v), kZuOk);
  IArrayFactory* as_interface = new CArrayFactory();
  std::unique_ptr<IZUArray> other(as_interface->AllocVectorArray(8));
  delete as_interface;
  EXPECT_NE(other, nullptr);
}

}  // namespace
