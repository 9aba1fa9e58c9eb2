// A fresh data directory per test: created under the system temporary directory, installed as
// the library's data directory, and removed with everything in it afterwards.
//
// On destruction it also checks that the library cleaned up after itself: no file left in the
// directory (apart from those a test declared its own with Keep()), no descriptor or handle more
// than at the start, and no mapping of a file in the directory (on Windows: no more mapped views
// than at the start). A file still open or mapped on Windows also refuses the library's delete,
// so it shows up as left behind as well.
#ifndef ZU_TESTS_SUPPORT_TEMP_DIR_H_
#define ZU_TESTS_SUPPORT_TEMP_DIR_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>

#include "tests/support/process_state.h"
#include "zu_data_manager/zu_array.h"

namespace zu_test {

class TempDataDir {
 public:
  TempDataDir() : previous_(IZUArray::GetDataDirectory()) {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("zu_test_" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(path_);
    descriptors_ = OpenHandleCount();
    views_ = MappedViewCount(path_);
    IZUArray::SetDataDirectory(path_.wstring());
  }

  ~TempDataDir() {
    IZUArray::SetDataDirectory(previous_);
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_, error)) {
      if (!entry.is_directory(error) && !entry.is_symlink(error) &&
          kept_.count(entry.path().filename().u8string()) == 0) {
        ADD_FAILURE() << "left behind: " << entry.path();
      }
    }
    EXPECT_EQ(OpenHandleCount(), descriptors_) << "descriptors left open";
    EXPECT_EQ(MappedViewCount(path_), views_) << "mappings left behind";
    std::filesystem::remove_all(path_, error);  // links and test-made files go too
  }

  TempDataDir(const TempDataDir&) = delete;
  TempDataDir& operator=(const TempDataDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::wstring wide() const { return path_.wstring(); }

  // Declares a file the test made itself, so its presence at the end is not a leak.
  void Keep(const std::string& name) { kept_.insert(name); }

  // Regular files directly in the directory whose name ends with `suffix`.
  int CountFiles(const std::string& suffix = ".KMB") const {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      const std::string name = entry.path().filename().string();
      if (entry.is_regular_file() && name.size() >= suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        ++count;
      }
    }
    return count;
  }

  // Creates a file with some content; returns its path.
  std::filesystem::path Touch(const std::string& relative,
                              const std::string& content = "data") const {
    std::filesystem::path file = path_ / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << content;
    return file;
  }

 private:
  std::wstring previous_;       // data directory before the test; restored afterwards
  std::filesystem::path path_;  // unique per test, removed at the end
  int descriptors_ = 0;         // open descriptors when the directory was installed
  int views_ = 0;               // mapped views counted then (of this directory where knowable)
  std::set<std::string> kept_;  // names of files the test created on purpose
};

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_TEMP_DIR_H_
