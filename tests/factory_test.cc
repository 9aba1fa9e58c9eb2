// Factory dispatch: which type codes each kind accepts, and the element size of what comes
// back; and the attach arguments that cannot describe a buffer.
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <vector>

#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr int kKinds = 7;
const char* const kKindNames[kKinds] = {"vector",     "deque",  "file",        "auto vector",
                                        "auto deque", "attach", "attach cross"};

// The array of kind `k` for `code`: owning kinds are empty, attached ones view `buffer`.
IZUArray* Alloc(int k, int code, std::vector<unsigned char>& buffer, int64_t length) {
  CArrayFactory f;
  switch (k) {
    case 0:
      return f.AllocVectorArray(code);
    case 1:
      return f.AllocDequeArray(code);
    case 2:
      return f.AllocFileArray(code);
    case 3:
      return f.AllocAutoVectorArray(code);
    case 4:
      return f.AllocAutoDequeArray(code);
    case 5:
      return f.AllocAttachBufferArray(code, buffer.data(), length);
    default:
      return f.AllocAttachCrossBufferArray(code, buffer.data(), length, 3);
  }
}

TEST(CArrayFactory, DispatchTable) {
  zu_test::TempDataDir dir;
  // Element size per kind in the order of kKindNames; 0: the factory answers null.
  const struct {
    int code;
    int size[kKinds];
  } table[] = {
      {0, {1, 1, 1, 1, 1, 1, 1}},
      {1, {1, 1, 1, 1, 1, 1, 1}},
      {2, {2, 2, 2, 2, 2, 2, 2}},
      {3, {0, 0, 0, 0, 0, 4, 4}},
      {4, {4, 4, 4, 4, 4, 4, 4}},
      {5, {0, 0, 0, 0, 0, 8, 8}},
      {7, {0, 0, 0, 0, 0, 8, 8}},
      {8, {8, 8, 8, 8, 8, 8, 8}},
      {9, {0, 0, 0, 0, 0, 9, 9}},
      {16, {0, 16, 0, 16, 16, 16, 16}},
      {32, {0, 32, 0, 32, 32, 32, 32}},
      {48, {0, 0, 0, 0, 0, 48, 48}},
      {512, {0, 512, 0, 512, 512, 512, 512}},
      {1024, {0, 1024, 0, 0, 0, 1024, 1024}},
      {-1, {0, 0, 0, 0, 0, 0, 0}},
      {-16, {0, 0, 0, 0, 0, 0, 0}},
      {INT_MIN, {0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& row : table) {
    for (int k = 0; k < kKinds; ++k) {
      SCOPED_TRACE(testing::Message() << kKindNames[k] << " code " << row.code);
      const int size = row.size[k];
      // Two elements (and half a third, ignored by the plain view), then room for the gaps.
      std::vector<unsigned char> in(4 * 1024 + 64);
      for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<unsigned char>(i % 199 + 1);
      std::unique_ptr<IZUArray> array(Alloc(k, row.code, in, 2 * size + (k == 5) * size / 2));
      ASSERT_EQ(array != nullptr, size != 0);
      if (size == 0) continue;
      if (k < 5) {
        ASSERT_EQ(array->Append(in.data()), kZuOk);
      }
      EXPECT_EQ(array->GetSize(), k < 5 ? 1u : 2u);
      std::vector<unsigned char> out(in.size(), 0xEE);
      ASSERT_NE(array->GetAt(0, out.data()), nullptr);
      EXPECT_TRUE(std::equal(in.begin(), in.begin() + size, out.begin()));
      EXPECT_EQ(out[size], 0xEE) << "written beyond one element";
    }
  }
}

TEST(CArrayFactory, AttachArgumentsThatDescribeNoBufferGiveNull) {
  CArrayFactory f;
  unsigned char buffer[64] = {};
  EXPECT_EQ(f.AllocAttachBufferArray(4, buffer, -4), nullptr);
  EXPECT_EQ(f.AllocAttachBufferArray(8, buffer, INT64_MIN), nullptr);
  EXPECT_EQ(f.AllocAttachBufferArray(4, nullptr, 16), nullptr);
  EXPECT_EQ(f.AllocAttachCrossBufferArray(2, buffer, 16, -1), nullptr);
  EXPECT_EQ(f.AllocAttachCrossBufferArray(4, buffer, -16, 4), nullptr);
  EXPECT_EQ(f.AllocAttachCrossBufferArray(2, nullptr, 2, 0), nullptr);
  EXPECT_EQ(f.AllocAttachCrossBufferArray(1, buffer, INT64_MAX, INT_MAX), nullptr)
      << "a span that overflows";
  // An empty view of no buffer is a real, empty buffer.
  std::unique_ptr<IZUArray> empty(f.AllocAttachBufferArray(4, nullptr, 0));
  ASSERT_NE(empty, nullptr);
  uint32_t out = 7;
  EXPECT_EQ(empty->GetSize(), 0u);
  EXPECT_EQ(empty->GetLast(&out), nullptr);
}

}  // namespace
