// Conversions between wide strings (the library's path and description text type) and UTF-8.
// wchar_t is UTF-32 on POSIX and UTF-16 on Windows; both are handled. Invalid input sequences
// become U+FFFD rather than failing.
#ifndef ZU_BASE_UTF8_H_
#define ZU_BASE_UTF8_H_

#include <string>

namespace zu {

std::string WideToUtf8(const std::wstring& wide);
std::wstring Utf8ToWide(const std::string& utf8);

}  // namespace zu

#endif  // ZU_BASE_UTF8_H_
