// The library as a host sees it: the umbrella header and the shared library only.
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

TEST(PublicApi, FactoryVectorArrayRoundTrip) {
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocVectorArray(4));
  ASSERT_NE(array, nullptr);
  std::vector<uint32_t> values = {1, 5, 9};
  EXPECT_EQ(array->AppendBuffer(values.data(), values.size()), kZuOk);
  uint32_t probe = 5;
  EXPECT_EQ(array->LowerBound(&probe), 1u);
  uint32_t out = 0;
  EXPECT_EQ(array->GetAt(2, &out), &out);
  EXPECT_EQ(out, 9u);
}

TEST(PublicApi, ExceptionsCrossTheLibraryBoundary) {
  CArrayFactory factory;
  std::unique_ptr<IZUArray> array(factory.AllocVectorArray(1));
  ASSERT_NE(array, nullptr);
  // A description round trip through JSON is exported too.
  base::DictionaryValue dict;
  dict.SetInteger("size", 3);
  std::unique_ptr<base::DictionaryValue> back = base::ReadJsonDictionary(base::WriteJson(dict));
  ASSERT_NE(back, nullptr);
  int size = 0;
  EXPECT_TRUE(back->GetInteger("size", &size));
  EXPECT_EQ(size, 3);
  try {
    throw ZuArrayNoSpaceException();
  } catch (const ZuArrayNoSpaceException&) {
    SUCCEED();
  }
}

TEST(PublicApi, DataDirectoryIsProcessWide) {
  EXPECT_EQ(IZUArray::GetDataDirectory(), L"");
  IZUArray::SetDataDirectory(L"/tmp/zu-public-api-check");
  EXPECT_EQ(IZUArray::GetDataDirectory(), L"/tmp/zu-public-api-check");
  IZUArray::SetDataDirectory(L"");
}
