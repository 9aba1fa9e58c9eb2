// A check around every test of the suite, whatever it uses: the process's open descriptors,
// its mappings of files, the library's data directory setting and that directory's files are
// the same after the test as before it. TempDataDir checks the same for the test's own
// directory; this one also catches a test that made arrays without one, a descriptor or
// mapping that outlived its directory, and a data directory setting that was not restored.
//
// Registered before main, so it covers every test of this binary, and reports a difference
// as a failure of the test that caused it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "zu_data_manager/zu_array.h"

namespace zu_test {
namespace {

// Descriptor number -> what it is open on. The listing's own descriptor is left out.
std::map<int, std::string> Descriptors() {
  std::map<int, std::string> open;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    char target[PATH_MAX];
    const ssize_t n = readlink(entry.path().c_str(), target, sizeof(target) - 1);
    if (n < 0) continue;  // the listing's descriptor, closed by now
    const std::string what(target, static_cast<size_t>(n));
    if (what.rfind("/proc/", 0) == 0) continue;
    open[std::stoi(entry.path().filename().string())] = what;
  }
  return open;
}

// Mapped file -> number of mappings of it, for the files that can come from the library or
// from a test: data files anywhere, and anything under the temporary directory.
std::map<std::string, int> FileMappings(const std::string& temp) {
  std::map<std::string, int> mapped;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t slash = line.find('/');
    if (slash == std::string::npos) continue;
    const std::string path = line.substr(slash);
    const bool data_file =
        path.find(".KMB") != std::string::npos || path.find(".kmt") != std::string::npos;
    if (data_file || path.rfind(temp, 0) == 0) ++mapped[path];
  }
  return mapped;
}

// The files in the data directory (none when it is unset or missing).
std::map<std::string, int> DataDirectoryFiles() {
  std::map<std::string, int> files;
  const std::wstring dir = IZUArray::GetDataDirectory();
  if (dir.empty()) return files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    ++files[entry.path().filename().string()];
  }
  return files;
}

template <typename Map>
std::string Describe(const Map& before, const Map& after) {
  std::ostringstream out;
  for (const auto& [key, value] : after) {
    auto it = before.find(key);
    if (it == before.end() || it->second != value) out << "\n  now:    " << key << " -> " << value;
  }
  for (const auto& [key, value] : before) {
    auto it = after.find(key);
    if (it == after.end() || it->second != value) out << "\n  before: " << key << " -> " << value;
  }
  return out.str();
}

class LeakCheck : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(const ::testing::TestInfo&) override {
    temp_ = std::filesystem::temp_directory_path().string();
    descriptors_ = Descriptors();
    mappings_ = FileMappings(temp_);
    data_files_ = DataDirectoryFiles();
    data_directory_ = IZUArray::GetDataDirectory();
  }

  void OnTestEnd(const ::testing::TestInfo&) override {
    const auto descriptors = Descriptors();
    const auto mappings = FileMappings(temp_);
    ++tests_;
    const auto data_files = DataDirectoryFiles();
    leaky_ += !(descriptors == descriptors_ && mappings == mappings_ && data_files == data_files_ &&
                IZUArray::GetDataDirectory() == data_directory_);
    EXPECT_TRUE(descriptors == descriptors_)
        << "descriptors differ after the test:" << Describe(descriptors_, descriptors);
    EXPECT_TRUE(mappings == mappings_)
        << "file mappings differ after the test:" << Describe(mappings_, mappings);
    EXPECT_EQ(IZUArray::GetDataDirectory(), data_directory_) << "data directory not restored";
    EXPECT_TRUE(data_files == data_files_)
        << "the data directory's files differ after the test:" << Describe(data_files_, data_files);
  }

  void OnTestProgramEnd(const ::testing::UnitTest&) override {
    std::printf("leak check: %d tests, %d left descriptors, file mappings or data files behind\n",
                tests_, leaky_);
  }

 private:
  int tests_ = 0;  // tests checked
  int leaky_ = 0;  // ... that left something behind
  std::string temp_;
  std::map<int, std::string> descriptors_;
  std::map<std::string, int> mappings_;
  std::map<std::string, int> data_files_;
  std::wstring data_directory_;
};

[[maybe_unused]] const bool kRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck());
  return true;
}();

}  // namespace
}  // namespace zu_test
