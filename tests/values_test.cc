// The value tree (typed access, ownership, deep copies) and its JSON text, and the UTF-8
// conversion that carries wide paths through it.
#include "zu_data_manager/values.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "src/base/utf8.h"

namespace {

TEST(DictionaryValue, TypedAccessAndAJsonRoundTripOfADescription) {
  base::DictionaryValue desc;
  auto* files = new base::ListValue();
  for (int i = 0; i < 3; ++i) {
    auto* file = new base::DictionaryValue();
    file->SetString("file_path", L"/data/d\u00e9j\u00e0 vu/\u6570\u636e-" + std::to_wstring(i));
    file->SetInteger("size", 1000 * i - 1);
    files->Append(file);
  }
  desc.Set("files", files);
  desc.SetString("s", std::string("text"));
  desc.SetInteger("s", 3);  // replacing frees the old value (checked under ASan)
  std::string error;
  std::unique_ptr<base::DictionaryValue> back =
      base::ReadJsonDictionary(base::WriteJson(desc, /*pretty=*/true), &error);
  ASSERT_NE(back, nullptr) << error;
  EXPECT_TRUE(back->Equals(&desc));
  int n = 0;
  std::wstring path;
  base::ListValue* list = nullptr;
  base::DictionaryValue* second = nullptr;
  EXPECT_FALSE(back->GetString("s", &path)) << "an integer is no string";
  EXPECT_FALSE(back->GetList("s", &list));
  EXPECT_FALSE(back->GetInteger("missing", &n));
  ASSERT_TRUE(back->GetList("files", &list));
  ASSERT_EQ(list->GetSize(), 3u);
  EXPECT_FALSE(list->GetDictionary(3, &second));
  ASSERT_TRUE(list->GetDictionary(1, &second));
  EXPECT_TRUE(second->GetString("file_path", &path));
  EXPECT_EQ(path, L"/data/d\u00e9j\u00e0 vu/\u6570\u636e-1");
  EXPECT_TRUE(second->GetInteger("size", &n));
  EXPECT_EQ(n, 999);
  std::unique_ptr<base::DictionaryValue> copy(desc.DeepCopy());
  copy->SetInteger("extra", 1);
  EXPECT_FALSE(copy->Equals(&desc)) << "a deep copy is independent";
}

TEST(ReadJson, RefusesMalformedAndHostileText) {
  std::string error;
  EXPECT_EQ(base::ReadJson("{\"files\": [", &error), nullptr);
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(base::ReadJsonDictionary("[1, 2]", &error), nullptr);
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(base::ReadJson(deep, &error), nullptr);  // no unbounded recursion
  auto numbers = base::ReadJsonDictionary(R"({"small": -5, "big": 5000000000})");
  ASSERT_NE(numbers, nullptr);
  int small = 0;
  double big = 0;
  EXPECT_TRUE(numbers->GetInteger("small", &small));
  EXPECT_EQ(small, -5);
  EXPECT_FALSE(numbers->GetInteger("big", &small)) << "does not fit an int";
  EXPECT_TRUE(numbers->GetDouble("big", &big));
  EXPECT_EQ(big, 5000000000.0);
}

TEST(Utf8, WideRoundTripAndInvalidBytes) {
  const std::wstring wide = L"caf\u00e9 \u6570 \U0001F600";
  EXPECT_EQ(zu::Utf8ToWide(zu::WideToUtf8(wide)), wide);
  EXPECT_EQ(zu::WideToUtf8(L"\u00e9"), "\xC3\xA9");
  EXPECT_EQ(zu::Utf8ToWide("a\xFF"
                           "b"),
            L"a\uFFFDb");
  EXPECT_EQ(zu::Utf8ToWide("\xE6\x95"), L"\uFFFD\uFFFD");  // truncated sequence
}

}  // namespace
