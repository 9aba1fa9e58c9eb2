#include "src/memory/buffer_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace {

constexpr char kNotImplemented[] = "The method or operation is not implemented.";

// Expects a plain std::exception with the not-implemented message, not a std::logic_error.
template <typename Fn>
void ExpectPlainRefusal(Fn&& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error&) {
    ADD_FAILURE() << "a logic_error where the plain exception belongs";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), kNotImplemented);
  }
}

template <typename Fn>
void ExpectLogicRefusal(Fn&& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), kNotImplemented);
  }
}

template <typename T>
std::vector<unsigned char> Bytes(const std::vector<T>& values) {
  std::vector<unsigned char> bytes(values.size() * sizeof(T));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// Every element of `values` followed by `gap` bytes of 0xEE.
template <typename T>
std::vector<unsigned char> Interleave(const std::vector<T>& values, int gap) {
  std::vector<unsigned char> bytes;
  for (const T& v : values) {
    const auto* p = reinterpret_cast<const unsigned char*>(&v);
    bytes.insert(bytes.end(), p, p + sizeof(T));
    bytes.insert(bytes.end(), gap, 0xEE);
  }
  return bytes;
}

TEST(CZUBufferArray, PlainViewReadsSearchesAndRefusesChanges) {
  CArrayFactory factory;
  std::vector<unsigned char> buffer = Bytes<uint16_t>({10, 20, 20, 30});
  const std::vector<unsigned char> original = buffer;
  std::unique_ptr<IZUArray> array(factory.AllocAttachBufferArray(2, buffer.data(), 7));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 3u);  // the trailing partial element is ignored
  uint16_t out = 0;
  EXPECT_EQ(array->GetAt(2, &out), &out);
  EXPECT_EQ(out, 20);
  EXPECT_EQ(array->GetAt(3, &out), nullptr);
  EXPECT_EQ(array->GetLast(&out), &out);
  EXPECT_EQ(out, 20);
  uint16_t v = 20;
  EXPECT_EQ(array->UpperBound(&v), 1u);  // exact match: the first equal element
  v = 15;
  EXPECT_EQ(array->UpperBound(&v), 3u);  // none equal: the count

  ExpectPlainRefusal([&] { array->Append(&v); });
  ExpectPlainRefusal([&] { array->Clear(); });
  ExpectLogicRefusal([&] { array->SetAt(0, &v); });
  ExpectLogicRefusal([&] { array->Find(&v); });
  ExpectLogicRefusal([&] { array->LowerBound(&v); });
  ExpectLogicRefusal([&] { array->FindFloor(&v); });
  ExpectLogicRefusal([&] { array->FindNearest(&v, 0); });
  ExpectLogicRefusal([&] { array->AppendBuffer(&v, 1); });
  ExpectLogicRefusal([&] { array->CopyOut(&out, 0, 1); });
  SimpleDataIter<unsigned char> first(buffer.data(), 2, 2);
  SimpleDataIter<unsigned char> last(buffer.data(), 2, 2);
  last.Seek(2);
  ExpectLogicRefusal([&] { array->Assign(&first, &last); });
  ExpectLogicRefusal([&] { array->AppendRange(&first, &last); });
  EXPECT_EQ(array->GetSize(), 3u);
  array.reset();
  EXPECT_EQ(buffer, original);  // nothing written, nothing freed

  unsigned char tiny[3] = {1, 2, 3};
  array.reset(factory.AllocAttachBufferArray(4, tiny, 3));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 0u);
  EXPECT_EQ(array->GetLast(&out), nullptr);
}

TEST(CZUBufferArray, FactoryMapsCodesByRange) {
  CArrayFactory factory;
  std::vector<unsigned char> buffer(64);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(i + 1);
  const struct {
    int code;
    size_t element_size;
  } table[] = {{0, 1}, {1, 1}, {2, 2}, {3, 4}, {4, 4}, {5, 8}, {6, 8}, {7, 8}, {8, 8}};
  for (const auto& row : table) {
    std::unique_ptr<IZUArray> array(factory.AllocAttachBufferArray(row.code, buffer.data(), 24));
    ASSERT_NE(array, nullptr) << row.code;
    EXPECT_EQ(array->GetSize(), 24 / row.element_size) << row.code;
    unsigned char out[16];
    std::memset(out, 0xEE, sizeof(out));
    ASSERT_EQ(array->GetAt(1, out), out);
    EXPECT_EQ(std::memcmp(out, buffer.data() + row.element_size, row.element_size), 0);
    EXPECT_EQ(out[row.element_size], 0xEE) << row.code;
  }
  std::unique_ptr<IZUArray> words(factory.AllocAttachBufferArray(3, buffer.data(), 12));
  EXPECT_EQ(words->GetSize(), 3u);
}

TEST(CZUCrossBufferArray, SpanStrideAndCount) {
  CArrayFactory factory;
  std::vector<uint8_t> bytes(100);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i);
  std::vector<unsigned char> buffer = Interleave(bytes, 3);
  buffer.resize(buffer.size() + 8, 0x77);  // room for the unchecked read past the end
  std::unique_ptr<IZUArray> array(factory.AllocAttachCrossBufferArray(1, buffer.data(), 100, 3));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 100u);
  auto* cross = dynamic_cast<zu::CZUCrossBufferArray<uint8_t>*>(array.get());
  ASSERT_NE(cross, nullptr);
  EXPECT_EQ(cross->GetElementPtr(7), buffer.data() + 28);
  uint8_t out = 0;
  EXPECT_EQ(array->GetAt(99, &out), &out);
  EXPECT_EQ(out, 99);
  EXPECT_EQ(array->GetAt(100, &out), &out);  // unchecked: the strided address past the last
  EXPECT_EQ(out, 0x77);
  EXPECT_EQ(cross->CopyElementAt(5, &out), &out);
  EXPECT_EQ(out, 5);

  std::vector<uint16_t> words(100);
  for (size_t i = 0; i < words.size(); ++i) words[i] = static_cast<uint16_t>(1000 + i);
  std::vector<unsigned char> wide = Interleave(words, 2);
  array.reset(factory.AllocAttachCrossBufferArray(2, wide.data(), 200, 2));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 100u);
  uint16_t word = 0;
  EXPECT_EQ(array->GetLast(&word), &word);
  EXPECT_EQ(word, 1099);

  std::vector<unsigned char> shorts = Interleave(std::vector<uint16_t>(10, 5), 6);
  array.reset(factory.AllocAttachCrossBufferArray(2, shorts.data(), 20, 6));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->GetSize(), 10u);
  auto* stride8 = dynamic_cast<zu::CZUCrossBufferArray<uint16_t>*>(array.get());
  ASSERT_NE(stride8, nullptr);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(stride8->GetElementPtrAt(3)), shorts.data() + 24);
  ExpectPlainRefusal([&] { array->Append(&word); });
}

// The cross array's UpperBound slot searches from the back with its probe kept at the
// current position.
TEST(CZUCrossBufferArray, BackwardSearchTables) {
  CArrayFactory factory;
  struct Case {
    std::vector<uint32_t> elements;
    std::vector<std::pair<uint32_t, uint64_t>> answers;  // value -> index
  } cases[] = {
      {{1, 2, 3, 4}, {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 3}, {9, 3}}},
      {{10, 20, 30, 40, 50, 60, 70, 80}, {{45, 2}, {80, 7}, {5, 0}, {100, 7}}},
      {{}, {{7, 0}}},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> buffer = Interleave(c.elements, 4);
    buffer.push_back(0);  // a valid address even for no elements
    std::unique_ptr<IZUArray> array(factory.AllocAttachCrossBufferArray(
        4, buffer.data(), static_cast<int64_t>(c.elements.size() * 4), 4));
    ASSERT_NE(array, nullptr);
    ASSERT_EQ(array->GetSize(), c.elements.size());
    for (const auto& [value, index] : c.answers) {
      EXPECT_EQ(array->UpperBound(&value), index) << "value " << value;
    }
  }
}

}  // namespace
