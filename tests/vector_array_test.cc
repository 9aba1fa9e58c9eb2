// Rules of the vector array beyond the shared contract: the search table, signed order,
// the floor/nearest asymmetry, and the bulk append path.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/memory/vector_array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace {

std::unique_ptr<IZUArray> MakeVector(int type) {
  CArrayFactory factory;
  return std::unique_ptr<IZUArray>(factory.AllocVectorArray(type));
}

TEST(CZUVectorArray, SearchTableWithDuplicates) {
  auto a = MakeVector(1);
  const uint8_t data[] = {10, 20, 20, 30};
  ASSERT_EQ(a->AppendBuffer(data, 4), kZuOk);
  uint8_t v = 20;
  EXPECT_EQ(a->LowerBound(&v), 1u);
  EXPECT_EQ(a->UpperBound(&v), 3u);
  EXPECT_EQ(a->Find(&v), 1u);
  v = 25;
  EXPECT_EQ(a->Find(&v), 4u);
  EXPECT_EQ(a->FindFloor(&v), 2u);
  v = 5;
  EXPECT_EQ(a->FindFloor(&v), ~uint64_t{0});  // every element is greater
  v = 40;
  EXPECT_EQ(a->FindFloor(&v), 3u);            // beyond the end: the last index ...
  uint8_t nearest = 40;
  EXPECT_EQ(a->FindNearest(&nearest, 100), 4u);  // ... while FindNearest answers the size
  EXPECT_EQ(nearest, 40);
  nearest = 25;
  EXPECT_EQ(a->FindNearest(&nearest, 0), 3u);
  EXPECT_EQ(nearest, 30);
}

TEST(CZUVectorArray, SingleElementFloor) {
  auto a = MakeVector(4);
  uint32_t seven = 7;
  ASSERT_EQ(a->Append(&seven), kZuOk);
  uint32_t v = 7;
  EXPECT_EQ(a->FindFloor(&v), 0u);
  v = 9;
  EXPECT_EQ(a->FindFloor(&v), 0u);
  v = 5;
  EXPECT_EQ(a->FindFloor(&v), ~uint64_t{0});
}

TEST(CZUVectorArray, SignedAndUnsignedOrder) {
  auto wide = MakeVector(8);
  const int64_t signed_values[] = {-5, -1, 0, 3};
  ASSERT_EQ(wide->AppendBuffer(signed_values, 4), kZuOk);
  int64_t minus_one = -1;
  EXPECT_EQ(wide->LowerBound(&minus_one), 1u);  // -1 sorts before 0
  int64_t zero = 0;
  EXPECT_EQ(wide->Find(&zero), 2u);

  auto narrow = MakeVector(4);
  const uint32_t unsigned_values[] = {0, 1, 0xFFFFFFFEu, 0xFFFFFFFFu};
  ASSERT_EQ(narrow->AppendBuffer(unsigned_values, 4), kZuOk);
  uint32_t top = 0xFFFFFFFFu;
  EXPECT_EQ(narrow->LowerBound(&top), 3u);  // 2^32 - 1 sorts after every other value
  EXPECT_EQ(narrow->UpperBound(&top), 4u);
}

TEST(CZUVectorArray, BulkAndElementWiseAppendsAgree) {
  // The contiguous fast path and the element-wise walk (a stride that is not the element
  // size forces the walk) must give the same content and leave `first` at the same place.
  std::vector<uint16_t> source(1000);
  for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<uint16_t>(i * 3);
  auto bulk = MakeVector(2);
  auto walked = MakeVector(2);

  SimpleDataIter<unsigned char> dense(reinterpret_cast<unsigned char*>(source.data()), 1000, 2);
  dense.Seek(10);
  auto dense_end = dense.Clone();
  dense_end->Seek(900);
  ASSERT_EQ(bulk->AppendRange(&dense, dense_end.get()), kZuOk);

  // Every other element of the same buffer, as a 500-element range of stride 4.
  SimpleDataIter<unsigned char> sparse(reinterpret_cast<unsigned char*>(source.data()), 500, 4);
  auto sparse_end = sparse.Clone();
  sparse_end->Seek(500);
  ASSERT_EQ(walked->AppendRange(&sparse, sparse_end.get()), kZuOk);

  EXPECT_EQ(dense.GetPosition(), 900u);
  EXPECT_EQ(sparse.GetPosition(), 500u);
  ASSERT_EQ(bulk->GetSize(), 890u);
  ASSERT_EQ(walked->GetSize(), 500u);
  for (uint64_t i = 0; i < 890; ++i) {
    uint16_t out = 0;
    bulk->GetAt(i, &out);
    ASSERT_EQ(out, source[10 + i]);
  }
  for (uint64_t i = 0; i < 500; ++i) {
    uint16_t out = 0;
    walked->GetAt(i, &out);
    ASSERT_EQ(out, source[2 * i]);
  }
}

TEST(CZUVectorArray, RangeEndingBeyondItsDataStopsAtTheData) {
  // A `last` taken from a longer iterator: the walk must stop where `first` runs out of
  // elements instead of reading past its buffer.
  uint32_t small[3] = {1, 2, 3};
  uint32_t large[10] = {};
  SimpleDataIter<unsigned char> first(reinterpret_cast<unsigned char*>(small), 3, 4);
  SimpleDataIter<unsigned char> last(reinterpret_cast<unsigned char*>(large), 10, 4);
  last.Seek(10);
  auto a = MakeVector(4);
  EXPECT_EQ(a->AppendRange(&first, &last), kZuOk);
  EXPECT_EQ(a->GetSize(), 3u);
  EXPECT_EQ(first.GetPosition(), 3u);
}

TEST(CZUVectorArray, BaseRefusesRangesAndGetLastOfEmptyIsNull) {
  // The container base without a concrete class has no range append.
  zu::CZUArrayBase<uint8_t, std::vector<uint8_t>> bare;
  EXPECT_FALSE(bare.Init());
  uint8_t byte = 1;
  std::string message;
  try {
    bare.AppendBuffer(&byte, 1);
  } catch (const std::logic_error& e) {
    message = e.what();
  }
  EXPECT_EQ(message, "The method or operation is not implemented.");

  auto a = MakeVector(1);
  uint8_t out = 0;
  EXPECT_EQ(a->GetLast(&out), nullptr);
  base::DictionaryValue* untouched = nullptr;
  EXPECT_TRUE(a->SaveDescription(&untouched));
  EXPECT_EQ(untouched, nullptr);
  base::DictionaryValue desc;
  EXPECT_TRUE(a->LoadDescription(&desc));
}

}  // namespace
