#include "src/base/utf8.h"

#include <cstdint>

namespace zu {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(char32_t cp, std::string* out) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacement;
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendWide(char32_t cp, std::wstring* out) {
  if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
    cp -= 0x10000;
    out->push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
    out->push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out->push_back(static_cast<wchar_t>(cp));
  }
}

}  // namespace

std::string WideToUtf8(const std::wstring& wide) {
  std::string out;
  out.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    char32_t cp = static_cast<char32_t>(static_cast<uint32_t>(wide[i]));
    if (sizeof(wchar_t) == 2) {
      cp &= 0xFFFF;
      if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
        char32_t low = static_cast<char32_t>(wide[i + 1]) & 0xFFFF;
        if (low >= 0xDC00 && low <= 0xDFFF) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
    }
    AppendUtf8(cp, &out);
  }
  return out;
}

std::wstring Utf8ToWide(const std::string& utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  size_t i = 0;
  while (i < utf8.size()) {
    auto lead = static_cast<unsigned char>(utf8[i]);
    int extra = lead < 0x80           ? 0
                : (lead >> 5) == 0x6  ? 1
                : (lead >> 4) == 0xE  ? 2
                : (lead >> 3) == 0x1E ? 3
                                      : -1;
    char32_t cp = extra <= 0 ? lead : (lead & (0x3F >> extra));
    bool valid = extra >= 0 && i + extra < utf8.size();
    for (int k = 1; valid && k <= extra; ++k) {
      auto next = static_cast<unsigned char>(utf8[i + k]);
      valid = (next & 0xC0) == 0x80;
      cp = (cp << 6) | (next & 0x3F);
    }
    if (valid) {
      AppendWide(cp, &out);
      i += extra + 1;
    } else {
      AppendWide(kReplacement, &out);  // skip one byte and resynchronise
      ++i;
    }
  }
  return out;
}

}  // namespace zu
