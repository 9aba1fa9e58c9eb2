#include "src/file/data_directory.h"

#include <cwctype>

#include "src/platform/platform.h"

namespace zu {

const wchar_t kDataFileExtension[] = L".KMB";
const wchar_t kLegacyTmpExtension[] = L".kmt";

namespace {

std::wstring& DirectoryString() {
  static std::wstring* directory = new std::wstring();  // lives for the whole process
  return *directory;
}

bool IsHex(wchar_t c) { return std::iswxdigit(static_cast<wint_t>(c)) != 0; }

}  // namespace

std::wstring DataDirectory() { return DirectoryString(); }

void SetDataDirectory(const std::wstring& dir) { DirectoryString() = dir; }

std::wstring NewDataFilePath() {
  std::wstring dir = DirectoryString();
  if (dir.empty()) return std::wstring();
  return dir + L"//" + platform::Current().NewGuid() + kDataFileExtension;
}

bool IsDataFileName(const std::wstring& path) {
  size_t slash = path.find_last_of(L"/\\");
  std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
  // {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}.KMB
  static const wchar_t kShape[] = L"{........-....-....-....-............}";
  const size_t guid_length = sizeof(kShape) / sizeof(wchar_t) - 1;
  if (name.size() != guid_length + 4) return false;
  for (size_t i = 0; i < guid_length; ++i) {
    if (kShape[i] == L'.' ? !IsHex(name[i]) : name[i] != kShape[i]) return false;
  }
  std::wstring ext = name.substr(guid_length);
  for (auto& c : ext) c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
  return ext == kDataFileExtension;
}

void CleanDataFiles() {
  platform::Platform& os = platform::Current();
  std::wstring dir = DataDirectory();
  if (dir.empty()) return;
  for (const wchar_t* extension : {kDataFileExtension, kLegacyTmpExtension}) {
    for (const std::wstring& name : os.ListFiles(dir, extension)) {
      // Files that a live array of any process holds open are skipped by the platform.
      os.DeleteFileIfUnused(dir + os.PathSeparator() + name);
    }
  }
}

}  // namespace zu
