// A file array and the elements it was given, for tests that keep many arrays alive at a limit
// or beside another process. Element types rotate over 1, 2, 4 and 8 bytes with the array's
// number, and the values depend on it, so that arrays cannot pass for each other.
#ifndef ZU_TESTS_SUPPORT_FILLED_ARRAY_H_
#define ZU_TESTS_SUPPORT_FILLED_ARRAY_H_

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {

struct FilledFileArray {
  FilledFileArray(int number, size_t elements)
      : type(1 << (number % 4)),
        array(CArrayFactory().AllocFileArray(type)),
        bytes(elements * type) {
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<unsigned char>(number * 7 + i / type / 97);
    }
  }
  size_t elements() const { return bytes.size() / type; }
  // Adds the elements; the add's code.
  int Fill() { return array->AppendBuffer(bytes.data(), elements()); }
  // Holds exactly its elements, and its file is still there (an open file that was deleted
  // would still read back).
  bool Intact() {
    std::vector<unsigned char> back(bytes.size());
    array->CopyOut(back.data(), 0, static_cast<unsigned int>(elements()));
    base::DictionaryValue* saved = nullptr;
    base::ListValue* files = nullptr;
    base::DictionaryValue* file = nullptr;
    std::wstring path;
    array->SaveDescription(&saved);
    std::unique_ptr<base::DictionaryValue> owned(saved);
    return owned && owned->GetList("files", &files) && files->GetDictionary(0, &file) &&
           file->GetString("file_path", &path) && std::filesystem::exists(path) &&
           array->GetSize() == elements() && back == bytes;
  }

  int type;
  std::unique_ptr<IZUArray> array;
  std::vector<unsigned char> bytes;  // the elements as given
};

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_FILLED_ARRAY_H_
