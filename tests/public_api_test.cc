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

// What a kind never supports is thrown out of the library, and the host catches it. On 32-bit
// Windows that needs one unwinder shared by the DLL and the host.
TEST(PublicApi, NotImplementedErrorsReachTheHost) {
  CArrayFactory factory;
  unsigned char buffer[8] = {};
  std::unique_ptr<IZUArray> view(factory.AllocAttachBufferArray(4, buffer, sizeof(buffer)));
  std::unique_ptr<IZUArray> records(factory.AllocDequeArray(16));
  ASSERT_NE(view, nullptr);
  ASSERT_NE(records, nullptr);
  uint32_t value = 1;
  unsigned char record[16] = {};
  try {
    view->Append(&value);
    ADD_FAILURE() << "Append on an attached view returned";
  } catch (const std::logic_error&) {
    ADD_FAILURE() << "Append refuses with the plain exception, not a logic_error";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "The method or operation is not implemented.");
  }
  EXPECT_THROW(view->Clear(), std::exception);
  EXPECT_THROW(view->LowerBound(&value), std::logic_error);
  EXPECT_THROW(records->LowerBound(record), std::logic_error);
  EXPECT_THROW(records->Find(record), std::logic_error);
  EXPECT_THROW(records->AppendBuffer(record, 1), std::logic_error);
  // The full-disk exception's type comes from the library too.
  EXPECT_THROW(throw ZuArrayNoSpaceException(), ZuArrayNoSpaceException);
}

TEST(PublicApi, DescriptionRoundTripThroughJson) {
  base::DictionaryValue dict;
  dict.SetInteger("size", 3);
  std::unique_ptr<base::DictionaryValue> back = base::ReadJsonDictionary(base::WriteJson(dict));
  ASSERT_NE(back, nullptr);
  int size = 0;
  EXPECT_TRUE(back->GetInteger("size", &size));
  EXPECT_EQ(size, 3);
}

TEST(PublicApi, DataDirectoryIsProcessWide) {
  EXPECT_EQ(IZUArray::GetDataDirectory(), L"");
  IZUArray::SetDataDirectory(L"/tmp/zu-public-api-check");
  EXPECT_EQ(IZUArray::GetDataDirectory(), L"/tmp/zu-public-api-check");
  IZUArray::SetDataDirectory(L"");
}
