// The value tree and its JSON text.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "src/base/utf8.h"
#include "zu_data_manager/values.h"

namespace {

// A description of the shape file storage writes: {"files": [{"file_path", "size"}, ...]}.
std::unique_ptr<base::DictionaryValue> MakeDescription() {
  auto desc = std::make_unique<base::DictionaryValue>();
  auto* files = new base::ListValue();
  for (int i = 0; i < 3; ++i) {
    auto* file = new base::DictionaryValue();
    file->SetString("file_path", L"/data/d\u00e9j\u00e0 vu/\u6570\u636e-" + std::to_wstring(i));
    file->SetInteger("size", 1000 * i - 1);
    files->Append(file);
  }
  desc->Set("files", files);
  return desc;
}

TEST(DictionaryValue, TypedAccessorsRefuseOtherTypes) {
  base::DictionaryValue dict;
  dict.SetInteger("n", 7);
  dict.SetString("s", std::string("text"));
  int n = 0;
  std::string s;
  std::wstring ws;
  base::ListValue* list = nullptr;
  EXPECT_TRUE(dict.GetInteger("n", &n));
  EXPECT_EQ(n, 7);
  EXPECT_FALSE(dict.GetString("n", &s));
  EXPECT_FALSE(dict.GetInteger("s", &n));
  EXPECT_FALSE(dict.GetList("s", &list));
  EXPECT_FALSE(dict.GetInteger("missing", &n));
  EXPECT_TRUE(dict.GetString("s", &ws));
  EXPECT_EQ(ws, L"text");
  dict.SetInteger("s", 3);  // replacing frees the old value (checked under ASan)
  EXPECT_TRUE(dict.GetInteger("s", &n));
  EXPECT_EQ(n, 3);
}

TEST(DictionaryValue, JsonRoundTripKeepsTreeAndWideText) {
  auto desc = MakeDescription();
  std::string text = base::WriteJson(*desc, /*pretty=*/true);
  std::string error;
  std::unique_ptr<base::DictionaryValue> back = base::ReadJsonDictionary(text, &error);
  ASSERT_NE(back, nullptr) << error;
  EXPECT_TRUE(back->Equals(desc.get()));

  base::ListValue* files = nullptr;
  ASSERT_TRUE(back->GetList("files", &files));
  ASSERT_EQ(files->GetSize(), 3u);
  base::DictionaryValue* second = nullptr;
  ASSERT_TRUE(files->GetDictionary(1, &second));
  std::wstring path;
  int size = 0;
  EXPECT_TRUE(second->GetString("file_path", &path));
  EXPECT_EQ(path, L"/data/d\u00e9j\u00e0 vu/\u6570\u636e-1");
  EXPECT_TRUE(second->GetInteger("size", &size));
  EXPECT_EQ(size, 999);
  base::DictionaryValue* none = nullptr;
  EXPECT_FALSE(files->GetDictionary(3, &none));

  std::unique_ptr<base::DictionaryValue> copy(desc->DeepCopy());
  EXPECT_TRUE(copy->Equals(desc.get()));
  copy->SetInteger("extra", 1);
  EXPECT_FALSE(copy->Equals(desc.get()));
}

TEST(ReadJson, RefusesMalformedAndHostileText) {
  std::string error;
  EXPECT_EQ(base::ReadJson("{\"files\": [", &error), nullptr);
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(base::ReadJsonDictionary("[1, 2]", &error), nullptr);
  std::string deep(100000, '[');
  deep += std::string(100000, ']');
  EXPECT_EQ(base::ReadJson(deep, &error), nullptr);  // no unbounded recursion

  auto numbers = base::ReadJsonDictionary(R"({"small": -5, "big": 5000000000, "f": 1.5})");
  ASSERT_NE(numbers, nullptr);
  int small = 0;
  double big = 0;
  EXPECT_TRUE(numbers->GetInteger("small", &small));
  EXPECT_EQ(small, -5);
  EXPECT_FALSE(numbers->GetInteger("big", &small));  // does not fit an int
  EXPECT_TRUE(numbers->GetDouble("big", &big));
  EXPECT_EQ(big, 5000000000.0);
}

TEST(Utf8, WideRoundTripAndInvalidBytes) {
  const std::wstring wide = L"caf\u00e9 \u6570 \U0001F600";
  EXPECT_EQ(zu::Utf8ToWide(zu::WideToUtf8(wide)), wide);
  EXPECT_EQ(zu::WideToUtf8(L"\u00e9"), "\xC3\xA9");
  EXPECT_EQ(zu::Utf8ToWide("a\xFF" "b"), L"a\uFFFDb");
  EXPECT_EQ(zu::Utf8ToWide("\xE6\x95"), L"\uFFFD\uFFFD");  // truncated sequence
}

}  // namespace
