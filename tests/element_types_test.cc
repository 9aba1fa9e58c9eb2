// Record ordering, exact equality, and the error types shared by every array.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "src/core/errors.h"
#include "zu_data_manager/element_types.h"

namespace {

template <typename Record>
Record Filled(unsigned char fill) {
  Record r;
  std::memset(r.data, fill, sizeof(r.data));
  return r;
}

TEST(SimpleBigData, OrderIgnoresByteZeroButEqualityDoesNot) {
  auto a = Filled<SimpleBigData<16>>(0x10);
  auto b = a;
  b.data[0] = 0x11;  // differs only in byte 0
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a == b);

  auto c = a;
  c.data[15] = 0x11;  // the highest byte decides first
  c.data[1] = 0x00;
  EXPECT_TRUE(a < c);
  EXPECT_FALSE(c < a);

  auto d = a;
  d.data[1] = 0x11;  // the lowest compared byte still orders
  EXPECT_TRUE(a < d);
  EXPECT_TRUE(a == Filled<SimpleBigData<16>>(0x10));
}

TEST(SimpleBigData, OrderIsANumberReadFromTheHighEnd) {
  // Records built from keys in the low bytes sort like the keys themselves, for every size.
  auto check = [](auto tag) {
    using R = decltype(tag);
    R lo = Filled<R>(0), hi = Filled<R>(0);
    lo.data[1] = 0xFF;  // 255 in the lowest ordered byte
    hi.data[2] = 0x01;  // 256
    EXPECT_TRUE(lo < hi) << sizeof(R);
    hi.data[sizeof(R) - 1] = 0x80;
    EXPECT_TRUE(lo < hi) << sizeof(R);
    EXPECT_FALSE(hi < lo) << sizeof(R);
  };
  check(SimpleBigData<16>{});
  check(SimpleBigData<64>{});
  check(SimpleBigData<512>{});
}

TEST(ZuArrayNoSpaceException, IsAnEmptyClassOutsideStdException) {
  EXPECT_TRUE(std::is_empty<ZuArrayNoSpaceException>::value);
  EXPECT_FALSE((std::is_base_of<std::exception, ZuArrayNoSpaceException>::value));
  bool caught_as_std = false;
  try {
    try {
      throw ZuArrayNoSpaceException();
    } catch (const std::exception&) {
      caught_as_std = true;
    }
  } catch (const ZuArrayNoSpaceException&) {
  }
  EXPECT_FALSE(caught_as_std);
}

TEST(NotImplementedErrors, ThreeTypesOneIdea) {
  auto message_of = [](void (*thrower)(), bool* was_logic_error) {
    try {
      thrower();
    } catch (const std::logic_error& e) {
      *was_logic_error = true;
      return std::string(e.what());
    } catch (const std::exception& e) {
      *was_logic_error = false;
      return std::string(e.what());
    }
    return std::string("<nothing thrown>");
  };
  bool logic = false;
  EXPECT_EQ(message_of(zu::ThrowNotImplemented, &logic),
            "The method or operation is not implemented.");
  EXPECT_TRUE(logic);
  EXPECT_EQ(message_of(zu::ThrowPlainNotImplemented, &logic),
            "The method or operation is not implemented.");
  EXPECT_FALSE(logic);
  EXPECT_EQ(message_of(zu::ThrowNotImplement, &logic), "not implement");
  EXPECT_FALSE(logic);
}

TEST(GuardAdd, MapsExceptionsToResultCodes) {
  EXPECT_EQ(zu::GuardAdd([] {}), kZuOk);
  EXPECT_EQ(zu::GuardAdd([] { throw ZuArrayNoSpaceException(); }), kZuNoSpace);
  EXPECT_EQ(zu::GuardAdd([] { throw std::bad_alloc(); }), kZuFailed);
  EXPECT_EQ(zu::GuardAdd([] { throw 42; }), kZuFailed);
}

}  // namespace
