// Descriptions of file storage as Python dicts, and loading them back. Every file a description
// names is checked before the array takes it, so that a missing or foreign file is named in a
// ValueError instead of silently ending the load early.
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "python/src/convert.h"
#include "python/src/errors.h"
#include "python/src/py_array.h"

namespace zu_python {

namespace {

namespace fs = std::filesystem;

bool IsHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The names the library gives its data files: {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}.KMB, the
// extension in any case. Loading takes no other file.
bool IsDataFileName(const std::string& path) {
  static const char kShape[] = "{........-....-....-....-............}.kmb";
  std::string name = fs::path(path).filename().string();
  if (name.size() != sizeof(kShape) - 1) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (kShape[i] == '.' && i < name.size() - 4) {
      if (!IsHex(c)) return false;
    } else if (std::tolower(static_cast<unsigned char>(c)) != kShape[i]) {
      return false;
    }
  }
  return true;
}

// Why the library would not take `path` as a data file of at least `bytes` bytes; "" if it would.
std::string FileProblem(const std::string& path, uint64_t bytes) {
  if (!IsDataFileName(path)) return "foreign: not named like a data file, {GUID}.KMB";
  std::error_code error;
  fs::file_status status = fs::symlink_status(path, error);
  if (error || !fs::exists(status)) return "missing";
  if (fs::is_symlink(status)) return "foreign: a symbolic link";
  if (!fs::is_regular_file(status)) return "foreign: not a regular file";
  uintmax_t length = fs::file_size(path, error);
  if (error || length < bytes) return "shorter than the size it is described with";
  return "";
}

struct Entry {
  std::string path;
  uint64_t size;  // elements
};

std::string Join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

}  // namespace

py::object PyArray::SaveDescription() {
  IZUArray& array = Live();
  Busy busy(this);
  base::DictionaryValue* raw = nullptr;
  bool ok = array.SaveDescription(&raw);
  std::unique_ptr<base::DictionaryValue> description(raw);
  if (!ok) Raise(PyExc_RuntimeError, KindPhrase() + " could not describe its files");
  if (description == nullptr) return py::none();
  return py::module_::import("json").attr("loads")(base::WriteJson(*description));
}

void PyArray::LoadDescription(const py::handle& description) {
  IZUArray& array = Live(true);
  Busy busy(this);
  RefuseWhileExported("load a description");
  if (InMemory() || kind_ == Kind::kAttached) {
    Raise(PyExc_ValueError, KindPhrase() +
                                " keeps no files: load descriptions into a "
                                "file_array (or a self-spilling array that lives in files)");
  }
  std::string text =
      py::isinstance<py::str>(description)
          ? description.cast<std::string>()
          : py::module_::import("json").attr("dumps")(description).cast<std::string>();
  std::string error;
  std::unique_ptr<base::DictionaryValue> parsed = base::ReadJsonDictionary(text, &error);
  base::ListValue* files = nullptr;
  if (parsed == nullptr) Raise(PyExc_ValueError, "malformed description: " + error);
  if (!parsed->GetList("files", &files)) {
    Raise(PyExc_ValueError, "a description holds a \"files\" list");
  }

  std::vector<Entry> entries;
  std::vector<std::string> problems;
  for (size_t i = 0; i < files->GetSize(); ++i) {
    base::DictionaryValue* entry = nullptr;
    std::string path;
    int size = -1;
    if (!files->GetDictionary(i, &entry) || !entry->GetString("file_path", &path) ||
        !entry->GetInteger("size", &size) || size < 0) {
      problems.push_back("entry " + std::to_string(i) +
                         " (malformed: needs \"file_path\" and a non-negative \"size\")");
      continue;
    }
    entries.push_back({path, static_cast<uint64_t>(size)});
    std::string problem = FileProblem(path, static_cast<uint64_t>(size) * code_);
    if (!problem.empty()) problems.push_back(zu_python::Repr(py::str(path)) + " (" + problem + ")");
  }
  if (!problems.empty()) {
    Raise(PyExc_ValueError, "the description names missing or foreign files: " + Join(problems));
  }
  if (kind_ != Kind::kFile) {
    // A self-spilling array in memory answers true and takes nothing.
    base::DictionaryValue* probe = nullptr;
    array.SaveDescription(&probe);
    std::unique_ptr<base::DictionaryValue> in_files(probe);
    if (in_files == nullptr) {
      Raise(PyExc_ValueError,
            "a self-spilling array takes a description only once it lives in "
            "files; load it into a file_array");
    }
  }
  if (!array.LoadDescription(parsed.get())) {
    Raise(PyExc_ValueError, "the array refused the description");
  }
  // The array takes the files in order and stops at the first it cannot use.
  uint64_t held = array.GetSize(), attached = 0;
  std::vector<std::string> left;
  for (const Entry& entry : entries) {
    if (attached + entry.size <= held && left.empty()) {
      attached += entry.size;
    } else {
      left.push_back(zu_python::Repr(py::str(entry.path)));
    }
  }
  if (!left.empty()) {
    Raise(PyExc_ValueError, "these files of the description could not be attached: " + Join(left) +
                                "; the array holds the " + std::to_string(held) +
                                " elements of the files before them");
  }
}

}  // namespace zu_python
