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

// What a test may not leave changed: "kind: item" -> how often it occurs.
using Snapshot = std::map<std::string, int>;

Snapshot Take() {
  Snapshot now;
  std::error_code error;
  // Descriptors and what they are open on (not the listing's own, which points into /proc).
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    char target[PATH_MAX];
    const ssize_t n = readlink(entry.path().c_str(), target, sizeof(target) - 1);
    const std::string what(target, n < 0 ? 0 : static_cast<size_t>(n));
    if (n >= 0 && what.rfind("/proc/", 0) != 0)
      ++now["descriptor " + entry.path().filename().string() + ": " + what];
  }
  // Mappings of files that can come from the library or a test: data files anywhere, and
  // anything under the temporary directory.
  const std::string temp = std::filesystem::temp_directory_path().string();
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t slash = line.find('/');
    const std::string path = slash == std::string::npos ? "" : line.substr(slash);
    if (path.find(".KMB") != std::string::npos || path.find(".kmt") != std::string::npos ||
        (!path.empty() && path.rfind(temp, 0) == 0)) {
      ++now["mapping: " + path];
    }
  }
  // The data directory setting and its files.
  const std::wstring dir = IZUArray::GetDataDirectory();
  std::string name;
  for (wchar_t c : dir) name += c < 128 ? static_cast<char>(c) : '?';
  ++now["data directory: " + name];
  try {  // a name the C locale cannot convert is left unlisted
    for (const auto& entry :
         std::filesystem::directory_iterator(dir.empty() ? L"/-" : dir, error)) {
      ++now["data file: " + entry.path().filename().string()];
    }
  } catch (const std::exception&) {
  }
  return now;
}

class LeakCheck : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(const ::testing::TestInfo&) override { before_ = Take(); }

  void OnTestEnd(const ::testing::TestInfo&) override {
    const Snapshot after = Take();
    ++tests_;
    if (after == before_) return;
    ++leaky_;
    std::ostringstream out;
    for (const auto& [key, count] : after) {
      if (before_[key] != count) out << "\n  now:    " << key << " (" << count << ")";
    }
    for (const auto& [key, count] : before_) {
      if (count != 0 && after.count(key) == 0) out << "\n  before: " << key;
    }
    ADD_FAILURE() << "the test left something changed behind:" << out.str();
  }

  void OnTestProgramEnd(const ::testing::UnitTest&) override {
    std::printf("leak check: %d tests, %d left descriptors, file mappings or data files behind\n",
                tests_, leaky_);
  }

 private:
  int tests_ = 0;    // tests checked
  int leaky_ = 0;    // ... that left something behind
  Snapshot before_;  // taken when the test started
};

[[maybe_unused]] const bool kRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck());
  return true;
}();

}  // namespace
}  // namespace zu_test
