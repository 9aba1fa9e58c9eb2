// zu: the library's command-line program.
//   zu demo     the main job: a self-spilling array of timestamps from memory into files
//   zu clean    remove leftover data files from a directory
//   zu inspect  check the files named by a saved description
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "zu_data_manager/array.h"
#include "zu_data_manager/zu_data_manager.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kDefaultCount = 50'000'000;
constexpr uint64_t kSpillThreshold = 8'388'608;         // where an auto array moves into files
constexpr int64_t kFirstTimestamp = 1'700'000'000'000;  // milliseconds, an ordinary epoch
constexpr int64_t kStep = 10;                           // one reading every 10 ms
constexpr int kSearches = 100'000;
constexpr int kExitUsage = 2;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

int64_t TimestampAt(uint64_t i) { return kFirstTimestamp + static_cast<int64_t>(i) * kStep; }

std::string Human(double bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (bytes >= 1024 && u < 4) {
    bytes /= 1024;
    ++u;
  }
  char text[32];
  std::snprintf(text, sizeof(text), u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
  return text;
}

// Resident memory of this process from /proc (anonymous and file-backed), in bytes.
std::pair<long, long> ResidentMemory() {
  std::ifstream status("/proc/self/status");
  long anon = -1, file = -1;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("RssAnon:", 0) == 0) anon = std::strtol(line.c_str() + 8, nullptr, 10) * 1024;
    if (line.rfind("RssFile:", 0) == 0) file = std::strtol(line.c_str() + 8, nullptr, 10) * 1024;
  }
  return {anon, file};
}

// Progress on a terminal as a redrawn bar; elsewhere as a plain line every tenth.
class Progress {
 public:
  Progress(const char* what, uint64_t total)
      : what_(what), total_(total), tty_(isatty(fileno(stdout)) != 0) {}
  void Update(uint64_t done) {
    int tenth = total_ == 0 ? 10 : static_cast<int>(done * 10 / total_);
    if (tty_) {
      int percent = total_ == 0 ? 100 : static_cast<int>(done * 100 / total_);
      if (percent == last_percent_) return;
      last_percent_ = percent;
      int filled = percent / 4;
      std::printf("\r  %s [%s%s] %3d%%", what_, std::string(filled, '#').c_str(),
                  std::string(25 - filled, '.').c_str(), percent);
      std::fflush(stdout);
    } else if (tenth != last_tenth_) {
      last_tenth_ = tenth;
      std::printf("  %s: %" PRIu64 " of %" PRIu64 " (%d%%)\n", what_, done, total_, tenth * 10);
    }
  }
  // A message between progress updates, on its own line.
  void Note(const std::string& message) {
    std::printf("%s  %s\n", tty_ ? "\n" : "", message.c_str());
    last_percent_ = -1;
  }
  void Done() {
    Update(total_);
    if (tty_) std::printf("\n");
  }

 private:
  const char* what_;
  uint64_t total_;
  bool tty_;
  int last_percent_ = -1;
  int last_tenth_ = -1;
};

int CountDataFiles(const fs::path& dir) {
  int n = 0;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error)) {
    std::string ext = entry.path().extension().string();
    for (auto& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (entry.is_regular_file() && (ext == ".KMB" || ext == ".KMT")) ++n;
  }
  return n;
}

struct Options {
  std::map<std::string, std::string> values;
  std::vector<std::string> positional;
  bool help = false;
};

// Parses --name value / --name=value pairs; false (with a message) on an unknown option.
bool ParseOptions(int argc, char** argv, const std::vector<std::string>& known, Options* out) {
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      out->help = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) {
      out->positional.push_back(arg);
      continue;
    }
    std::string name = arg.substr(2), value;
    size_t eq = name.find('=');
    if (eq != std::string::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      std::fprintf(stderr, "zu: option --%s needs a value\n", name.c_str());
      return false;
    }
    bool ok = false;
    for (const auto& k : known) ok = ok || k == name;
    if (!ok) {
      std::fprintf(stderr, "zu: unknown option --%s\n", name.c_str());
      return false;
    }
    out->values[name] = value;
  }
  return true;
}

// --- zu demo ---------------------------------------------------------------------------------

const char kDemoHelp[] =
    "usage: zu demo [--count N] [--dir DIR]\n"
    "\n"
    "Appends N ascending int64_t timestamps (default 50,000,000) one by one to a self-spilling\n"
    "array, which moves from memory into mapped files at 8,388,608 elements; checks searches\n"
    "against the known data; saves the description as JSON, re-attaches the files in a second\n"
    "array and verifies every element; prints a summary; removes every file it made.\n"
    "DIR (default: a fresh directory under the system temp dir) holds the data files.\n";

int Demo(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {"count", "dir"}, &options)) return kExitUsage;
  if (options.help) {
    std::fputs(kDemoHelp, stdout);
    return 0;
  }
  uint64_t count = kDefaultCount;
  if (options.values.count("count")) {
    char* end = nullptr;
    count = std::strtoull(options.values["count"].c_str(), &end, 10);
    if (end == nullptr || *end != '\0' || count == 0 || count > (uint64_t{1} << 40)) {
      std::fprintf(stderr, "zu demo: --count wants a positive whole number\n");
      return kExitUsage;
    }
  }
  bool own_dir = !options.values.count("dir");
  fs::path dir = own_dir ? fs::temp_directory_path() / ("zu-demo-" + std::to_string(getpid()))
                         : fs::path(options.values["dir"]);
  std::error_code error;
  fs::create_directories(dir, error);
  if (error) {
    std::fprintf(stderr, "zu demo: cannot create %s: %s\n", dir.c_str(), error.message().c_str());
    return 1;
  }
  IZUArray::SetDataDirectory(fs::absolute(dir).wstring());
  std::printf("zu demo: %" PRIu64 " timestamps into a self-spilling array in %s\n", count,
              dir.c_str());

  int failures = 0;
  auto check = [&failures](bool ok, const char* what) {
    if (!ok) {
      ++failures;
      std::printf("  CHECK FAILED: %s\n", what);
    }
  };

  double append_seconds = 0, search_seconds = 0, moved_at_seconds = -1;
  int files = 0;
  std::pair<long, long> memory{0, 0};
  fs::path description_path = dir / "description.json";
  {
    auto array = zu::make_auto_deque_array<int64_t>();
    Progress progress("appending", count);
    auto start = Clock::now();
    for (uint64_t i = 0; i < count; ++i) {
      if (array.append(TimestampAt(i)) != zu::Status::ok) {
        std::printf("\n  append %" PRIu64 " failed\n", i);
        ++failures;
        break;
      }
      if (i == kSpillThreshold) {  // this append moved the whole array into files
        moved_at_seconds = Seconds(start, Clock::now());
        char note[128];
        std::snprintf(note, sizeof(note),
                      "moved into files at element %" PRIu64 " (after %.2f s), %d file(s)",
                      kSpillThreshold + 1, moved_at_seconds, CountDataFiles(dir));
        progress.Note(note);
      }
      if ((i & 0xFFFF) == 0) progress.Update(i);
    }
    append_seconds = Seconds(start, Clock::now());
    progress.Done();
    if (moved_at_seconds < 0) {
      std::printf("  stayed in memory (%" PRIu64 " elements or fewer)\n", kSpillThreshold);
    }
    check(array.size() == count, "the array holds every appended element");

    // Searches against the known data: exact bounds, nearest within a tolerance, floor.
    std::mt19937_64 random(12345);
    auto search_start = Clock::now();
    for (int s = 0; s < kSearches && failures == 0; ++s) {
      uint64_t i = random() % count;
      int64_t between = TimestampAt(i) + kStep / 2;
      check(array.lower_bound(TimestampAt(i)) == i, "LowerBound of a stored timestamp");
      check(array.lower_bound(between) == i + 1, "LowerBound between two timestamps");
      check(array.find(TimestampAt(i)) == i, "Find of a stored timestamp");
      int64_t nearest = between;
      uint64_t at = array.find_nearest(nearest, 1000 * kStep);
      check(at < count && array.at(at) == nearest && std::llabs(nearest - between) <= 1000 * kStep,
            "FindNearest within the tolerance");
      uint64_t floor = array.find_floor(between);
      check(floor <= i && array.at(floor).value_or(INT64_MAX) <= between,
            "FindFloor at or before the value");
    }
    search_seconds = Seconds(search_start, Clock::now());
    files = CountDataFiles(dir);
    memory = ResidentMemory();

    std::string description = array.save_description();
    if (!description.empty()) {
      std::ofstream(description_path) << description;
      std::printf("  saved the description of %d files to %s\n", files, description_path.c_str());

      // Re-attach the same files in a second array and compare every element.
      std::ifstream in(description_path);
      std::stringstream text;
      text << in.rdbuf();
      auto second = zu::make_file_array<int64_t>();
      check(second.load_description(text.str()), "the description loads into a second array");
      check(second.size() == count, "the second array sees every element");
      Progress verify("verifying", count);
      uint64_t expected_sum = 0, sum = 0;
      std::vector<int64_t> chunk(1 << 16);
      for (uint64_t i = 0; i < count; i += chunk.size()) {
        uint64_t got = second.copy_out(i, chunk.data(), static_cast<uint32_t>(chunk.size()));
        for (uint64_t k = 0; k < got; ++k) {
          sum = sum * 31 + static_cast<uint64_t>(chunk[k]);
          expected_sum = expected_sum * 31 + static_cast<uint64_t>(TimestampAt(i + k));
        }
        verify.Update(i);
      }
      verify.Done();
      check(sum == expected_sum, "the checksum of every re-attached element");
    }
  }  // both arrays go: every data file is deleted

  fs::remove(description_path, error);
  int left = CountDataFiles(dir);
  check(left == 0, "no data file is left behind");
  if (own_dir) fs::remove_all(dir, error);
  IZUArray::SetDataDirectory(L"");

  std::printf("\n  %-22s %s\n", "elements", std::to_string(count).c_str());
  std::printf("  %-22s %s\n", "bytes", Human(static_cast<double>(count) * 8).c_str());
  std::printf("  %-22s %d\n", "files", files);
  std::printf("  %-22s %.1f M/s\n", "append rate", count / append_seconds / 1e6);
  std::printf("  %-22s %.2f us\n", "search latency", search_seconds * 1e6 / (kSearches * 5.0));
  std::printf("  %-22s %s anonymous, %s file-backed\n", "resident memory",
              Human(memory.first).c_str(), Human(memory.second).c_str());
  std::printf("\n%s\n", failures == 0 ? "zu demo: all checks passed" : "zu demo: CHECKS FAILED");
  return failures == 0 ? 0 : 1;
}

// --- zu clean --------------------------------------------------------------------------------

const char kCleanHelp[] =
    "usage: zu clean DIR\n"
    "\n"
    "Deletes the leftover data files (*.KMB, *.kmt) at the top level of DIR. Files that a live\n"
    "array of any process holds open are left alone and listed.\n";

int Clean(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {}, &options)) return kExitUsage;
  if (options.help) {
    std::fputs(kCleanHelp, stdout);
    return 0;
  }
  if (options.positional.size() != 1) {
    std::fputs(kCleanHelp, stderr);
    return kExitUsage;
  }
  fs::path dir = options.positional[0];
  std::error_code error;
  if (!fs::is_directory(dir, error)) {
    std::fprintf(stderr, "zu clean: %s is not a directory\n", dir.c_str());
    return 1;
  }
  int before = CountDataFiles(dir);
  IZUArray::SetDataDirectory(dir.wstring());
  IZUArray::CleanTmpFiles();
  IZUArray::SetDataDirectory(L"");
  std::printf("zu clean: removed %d data file(s) from %s\n", before - CountDataFiles(dir),
              dir.c_str());
  for (const auto& entry : fs::directory_iterator(dir, error)) {
    std::string ext = entry.path().extension().string();
    for (auto& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (entry.is_regular_file() && (ext == ".KMB" || ext == ".KMT")) {
      std::printf("  left (in use): %s\n", entry.path().filename().c_str());
    }
  }
  return 0;
}

// --- zu inspect ------------------------------------------------------------------------------

const char kInspectHelp[] =
    "usage: zu inspect DESCRIPTION.json\n"
    "\n"
    "Lists the files of a saved description with their element counts and checks that each\n"
    "exists with a plausible length.\n";

constexpr uint64_t kChunkBytes = 1 << 20;  // data files grow in whole 1 MiB chunks

int Inspect(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {}, &options)) return kExitUsage;
  if (options.help) {
    std::fputs(kInspectHelp, stdout);
    return 0;
  }
  if (options.positional.size() != 1) {
    std::fputs(kInspectHelp, stderr);
    return kExitUsage;
  }
  std::ifstream in(options.positional[0]);
  if (!in) {
    std::fprintf(stderr, "zu inspect: cannot read %s\n", options.positional[0].c_str());
    return 1;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::string error;
  std::unique_ptr<base::DictionaryValue> desc = base::ReadJsonDictionary(text.str(), &error);
  base::ListValue* list = nullptr;
  if (desc == nullptr || !desc->GetList("files", &list)) {
    std::fprintf(stderr, "zu inspect: %s is not a description (%s)\n",
                 options.positional[0].c_str(),
                 desc == nullptr ? error.c_str() : "no \"files\" list");
    return 1;
  }
  int problems = 0;
  std::printf("%-4s %-12s %-12s %s\n", "#", "elements", "file bytes", "path");
  for (size_t i = 0; i < list->GetSize(); ++i) {
    base::DictionaryValue* file = nullptr;
    std::string path;
    int size = -1;
    if (!list->GetDictionary(i, &file) || !file->GetString("file_path", &path) ||
        !file->GetInteger("size", &size) || size < 0) {
      std::printf("%-4zu entry is malformed (needs \"file_path\" and a non-negative \"size\")\n",
                  i);
      ++problems;
      continue;
    }
    std::error_code fs_error;
    auto length = fs::file_size(path, fs_error);
    const char* verdict = "ok";
    if (fs_error) {
      verdict = "MISSING";
    } else if (length % kChunkBytes != 0 || length < static_cast<uint64_t>(size)) {
      verdict = "IMPLAUSIBLE LENGTH";
    }
    if (std::strcmp(verdict, "ok") != 0) ++problems;
    std::printf("%-4zu %-12d %-12s %s  %s\n", i, size,
                fs_error ? "-" : std::to_string(length).c_str(), path.c_str(), verdict);
  }
  std::printf("%zu file(s), %d problem(s)\n", list->GetSize(), problems);
  return problems == 0 ? 0 : 1;
}

const char kHelp[] =
    "usage: zu COMMAND [options]\n"
    "\n"
    "commands:\n"
    "  demo      append timestamps to a self-spilling array, search, re-attach, verify\n"
    "  clean     remove leftover data files from a directory\n"
    "  inspect   check the files named by a saved description\n"
    "\n"
    "zu COMMAND --help tells more.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kHelp, stderr);
    return kExitUsage;
  }
  std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kHelp, stdout);
    return 0;
  }
  const std::map<std::string, std::function<int(int, char**)>> commands = {
      {"demo", Demo}, {"clean", Clean}, {"inspect", Inspect}};
  auto it = commands.find(command);
  if (it == commands.end()) {
    std::fprintf(stderr, "zu: unknown command '%s'\n\n%s", command.c_str(), kHelp);
    return kExitUsage;
  }
  try {
    return it->second(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zu %s: %s\n", command.c_str(), e.what());
    return 1;
  }
}
