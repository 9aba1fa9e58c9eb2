// zu: the library's command-line program.
//   zu demo     the main job: a self-spilling array of timestamps from memory into files
//   zu clean    remove leftover data files from a directory
//   zu inspect  check the files named by a saved description
#include <unistd.h>

#include <cerrno>
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
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "zu_data_manager/array.h"
#include "zu_data_manager/zu_data_manager.h"

#ifndef ZU_VERSION
#define ZU_VERSION "unknown"
#endif

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kDefaultCount = 50'000'000;
constexpr uint64_t kMaxCount = uint64_t{1} << 40;
constexpr int64_t kFirstTimestamp = 1'700'000'000'000;  // milliseconds, an ordinary epoch
constexpr int64_t kStep = 10;                           // one reading every 10 ms
constexpr int64_t kTolerance = 1000 * kStep;            // of the nearest-element searches
constexpr int kSearches = 100'000;
constexpr uint64_t kTick = uint64_t{1} << 20;  // elements between progress updates
constexpr uint64_t kChunkBytes = 1 << 20;      // data files grow in whole 1 MiB chunks
constexpr int kExitFailure = 1;
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

// Progress on a terminal as one bar redrawn in place, with a short state after it; elsewhere
// (a log, a pipe) as a plain line every few seconds and one at the end.
class Progress {
 public:
  Progress(const char* what, uint64_t total)
      : what_(what), total_(total), tty_(isatty(fileno(stdout)) != 0), last_line_(Clock::now()) {}
  void Update(uint64_t done, const char* state = "") { Show(done, state, false); }
  // Ends the bar; the next output starts on a line of its own.
  void Done(uint64_t done, const char* state = "") {
    Show(done, state, true);
    if (tty_) std::printf("\n");
  }

 private:
  static constexpr double kLineSeconds = 5;  // between two lines when not on a terminal

  void Show(uint64_t done, const char* state, bool last) {
    int percent = total_ == 0 ? 100 : static_cast<int>(done * 100 / total_);
    if (tty_) {
      if (percent == last_percent_ && state == last_state_ && !last) return;
      int filled = percent / 4;
      std::printf("\r  %-10s [%s%s] %3d%% %-12s", what_, std::string(filled, '#').c_str(),
                  std::string(25 - filled, '.').c_str(), percent, state);
    } else {
      if (!last && Seconds(last_line_, Clock::now()) < kLineSeconds) return;
      last_line_ = Clock::now();
      std::printf("  %s: %" PRIu64 " of %" PRIu64 " (%d%%)%s%s\n", what_, done, total_, percent,
                  *state != '\0' ? ", " : "", state);
    }
    std::fflush(stdout);
    last_percent_ = percent;
    last_state_ = state;
  }

  const char* what_;
  uint64_t total_;
  bool tty_;
  int last_percent_ = -1;
  std::string last_state_;
  Clock::time_point last_line_;  // of the last line written when not on a terminal
};

bool IsDataFile(const fs::directory_entry& entry) {
  std::string ext = entry.path().extension().string();
  for (auto& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::error_code error;
  return entry.is_regular_file(error) && (ext == ".KMB" || ext == ".KMT");
}

int CountDataFiles(const fs::path& dir) {
  int n = 0;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error)) n += IsDataFile(entry) ? 1 : 0;
  return n;
}

// Empty when the directory takes a new file, else why not.
std::string CannotWriteIn(const fs::path& dir) {
  fs::path probe = dir / (".zu-probe-" + std::to_string(getpid()));
  FILE* file = std::fopen(probe.c_str(), "wb");
  if (file == nullptr) return std::strerror(errno);
  bool written = std::fputc('z', file) != EOF;
  written = std::fclose(file) == 0 && written;
  int error = errno;
  std::remove(probe.c_str());
  return written ? std::string() : std::strerror(error);
}

// Why file storage in dir took no more data after `bytes` of it, as far as the file system
// tells. A self-spilling array that fails clears itself, so its files are gone by now and the
// free space counts them again.
std::string NoRoomReason(const fs::path& dir, uint64_t bytes) {
  std::error_code error;
  fs::space_info space = fs::space(dir, error);
  if (error) return "its free space cannot be read: " + error.message();
  if (space.available < bytes + kChunkBytes) {
    return "the file system is full: " + Human(static_cast<double>(space.available)) +
           " free, the data needs " + Human(static_cast<double>(bytes));
  }
  return "the data files could not grow although " + Human(static_cast<double>(space.available)) +
         " are free (a file-size, open-file or quota limit?)";
}

struct Options {
  std::map<std::string, std::string> values;
  std::set<std::string> flags;
  std::vector<std::string> positional;
  bool help = false;
};

// Parses the arguments after the command: --name value and --name=value for the options in
// `valued`, --name for those in `flags`, at most `max_positional` other arguments. On anything
// else prints what is wrong and the usage to stderr and answers false.
bool ParseOptions(int argc, char** argv, const std::set<std::string>& valued,
                  const std::set<std::string>& flags, size_t max_positional, const char* usage,
                  Options* out) {
  auto fail = [&](const std::string& message) {
    std::fprintf(stderr, "zu %s: %s\n\n%s", argv[1], message.c_str(), usage);
    return false;
  };
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      out->help = true;
    } else if (arg.rfind("--", 0) == 0 && arg.size() > 2) {
      std::string name = arg.substr(2), value;
      size_t eq = name.find('=');
      bool has_value = eq != std::string::npos;
      if (has_value) {
        value = name.substr(eq + 1);
        name = name.substr(0, eq);
      }
      if (flags.count(name) != 0) {
        if (has_value) return fail("option --" + name + " takes no value");
        out->flags.insert(name);
      } else if (valued.count(name) != 0) {
        if (!has_value) {
          if (i + 1 >= argc) return fail("option --" + name + " needs a value");
          value = argv[++i];
        }
        out->values[name] = value;
      } else {
        return fail("unknown option " + arg);
      }
    } else if (arg.size() > 1 && arg[0] == '-') {
      return fail("unknown option " + arg);
    } else if (out->positional.size() < max_positional) {
      out->positional.push_back(arg);
    } else {
      return fail("unexpected argument '" + arg + "'");
    }
  }
  return true;
}

// --- zu demo ---------------------------------------------------------------------------------

// The arrays that zu demo --keep never destroys, held to the end (not leaked).
IZUArray* g_kept_arrays[2] = {};

const char kDemoHelp[] =
    "usage: zu demo [--count N] [--dir DIR] [--keep]\n"
    "\n"
    "Appends N ascending int64_t timestamps (default 50,000,000) one by one through a buffered\n"
    "appender to a self-spilling array, which moves from memory into mapped files once it\n"
    "reaches 8,388,608 elements; checks searches against the known data (each as the array's\n"
    "storage answers it: in memory exactly, in files from in-memory samples); saves the\n"
    "description as JSON, re-attaches the files in a second array and verifies every element;\n"
    "prints a summary. Exits 1 when a check fails or the data does not fit.\n"
    "\n"
    "  --count N  how many timestamps (1 up to 2^40)\n"
    "  --dir DIR  where the data files go (default: a fresh directory in the temp dir)\n"
    "  --keep     leave the data files and DIR/description.json for zu inspect (zu clean DIR\n"
    "             removes them); otherwise every file the demo made is removed\n";

// Counts failed checks and prints the first few.
class Checks {
 public:
  void Expect(bool ok, const char* what, uint64_t index) {
    if (ok) return;
    if (++failures_ <= kShown) {
      std::printf("  CHECK FAILED: %s (element %" PRIu64 ")\n", what, index);
    }
  }
  int failures() const { return failures_; }

 private:
  static constexpr int kShown = 10;
  int failures_ = 0;
};

// Searches for random stored timestamps and for values between two of them. An array in memory
// answers exactly; in files, FindNearest may answer a sampled element within the tolerance and
// FindFloor a sampled position at or before the floor, while LowerBound and Find stay exact.
void CheckSearches(const zu::Array<int64_t>& array, uint64_t count, bool in_files, Checks* checks) {
  std::mt19937_64 random(12345);
  Progress progress("searching", kSearches);
  for (int s = 0; s < kSearches; ++s) {
    uint64_t i = random() % count;
    const int64_t stored = TimestampAt(i);
    const int64_t between = stored + kStep / 2;
    checks->Expect(array.lower_bound(stored) == i, "LowerBound of a stored timestamp", i);
    checks->Expect(array.lower_bound(between) == i + 1, "LowerBound between two timestamps", i);
    checks->Expect(array.find(stored) == i, "Find of a stored timestamp", i);
    checks->Expect(array.find(between) == count, "Find of a missing timestamp", i);
    // A tolerance of 0 accepts no sample: every kind answers the lower bound.
    checks->Expect(array.find_nearest(between, 0).first == i + 1, "FindNearest, tolerance 0", i);
    auto [at, nearest] = array.find_nearest(between, kTolerance);
    if (in_files) {
      checks->Expect(
          at < count && nearest == TimestampAt(at) && std::llabs(nearest - between) < kTolerance,
          "FindNearest in files: an element within the tolerance", i);
    } else {
      checks->Expect(at == i + 1 && nearest == (at < count ? TimestampAt(at) : between),
                     "FindNearest in memory: the lower bound", i);
    }
    uint64_t floor = array.find_floor(between);
    if (in_files) {
      checks->Expect(floor <= i && array.at(floor).value_or(INT64_MAX) <= between,
                     "FindFloor in files: a position at or before the floor", i);
    } else {
      checks->Expect(floor == i, "FindFloor in memory: the floor", i);
    }
    if ((s & 1023) == 0) progress.Update(static_cast<uint64_t>(s));
  }
  progress.Done(kSearches);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

int Demo(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {"count", "dir"}, {"keep"}, 0, kDemoHelp, &options)) {
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(kDemoHelp, stdout);
    return 0;
  }
  uint64_t count = kDefaultCount;
  if (options.values.count("count")) {
    const std::string& text = options.values["count"];
    char* end = nullptr;
    count = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || count == 0 || count > kMaxCount) {
      std::fprintf(stderr, "zu demo: --count wants a whole number from 1 to 2^40\n\n%s", kDemoHelp);
      return kExitUsage;
    }
  }
  const bool keep = options.flags.count("keep") != 0;
  const bool own_dir = !options.values.count("dir");
  const fs::path dir = own_dir ? fs::temp_directory_path() / ("zu-demo-" + std::to_string(getpid()))
                               : fs::path(options.values["dir"]);
  std::error_code error;
  fs::create_directories(dir, error);
  std::string unusable = error ? error.message() : CannotWriteIn(dir);
  if (!unusable.empty()) {
    std::fprintf(stderr, "zu demo: cannot use the directory %s: %s\n", dir.c_str(),
                 unusable.c_str());
    return kExitFailure;
  }
  IZUArray::SetDataDirectory(fs::absolute(dir).wstring());
  const int files_before = CountDataFiles(dir);
  std::printf("zu demo: %" PRIu64 " timestamps into a self-spilling array in %s\n", count,
              dir.c_str());

  Checks checks;
  double append_seconds = 0, search_seconds = 0, moved_after = -1;
  int files = 0;
  std::pair<long, long> memory{0, 0};
  const fs::path description_path = dir / "description.json";
  bool kept = false;
  bool room = true;
  {
    auto array = zu::make_auto_deque_array<int64_t>();
    // Appends through the appender, flushing at every tick to see how far the array got.
    Progress progress("appending", count);
    zu::Status status = zu::Status::ok;
    uint64_t handed = 0;  // elements the array has been given
    const auto start = Clock::now();
    {
      auto out = array.appender();
      for (uint64_t i = 0; i < count && status == zu::Status::ok; ++i) {
        out.push_back(TimestampAt(i));
        if ((i + 1) % kTick != 0 && i + 1 != count) continue;
        status = out.flush();
        handed = i + 1;
        if (moved_after < 0 && CountDataFiles(dir) > files_before) {
          moved_after = Seconds(start, Clock::now());
        }
        progress.Update(handed, moved_after < 0 ? "in memory" : "in files");
      }
      status = out.flush();
    }
    append_seconds = Seconds(start, Clock::now());
    if (status != zu::Status::ok) {
      room = false;
      progress.Done(handed, "stopped");
      std::string reason = status == zu::Status::no_space
                               ? NoRoomReason(dir, handed * sizeof(int64_t))
                               : "the array could not take more (out of memory?)";
      std::fprintf(stderr, "zu demo: no room for the data in %s: %s.\n", dir.c_str(),
                   reason.c_str());
      std::fprintf(
          stderr, "zu demo: the array holds %" PRIu64 " of the %" PRIu64 " timestamps appended%s\n",
          array.size(), handed,
          array.size() == 0 ? " (a self-spilling array that fails an add clears itself)" : "");
    } else {
      progress.Done(handed, moved_after < 0 ? "in memory" : "in files");
      if (moved_after >= 0) {
        std::printf("  moved from memory into files after %.2f s\n", moved_after);
      } else {
        std::printf("  stayed in memory (the array moves into files at 8,388,608 elements)\n");
      }
      checks.Expect(array.size() == count, "the array holds every appended element", count);
      std::string description = array.save_description();
      const bool in_files = !description.empty();

      auto search_start = Clock::now();
      CheckSearches(array, count, in_files, &checks);
      search_seconds = Seconds(search_start, Clock::now());
      files = CountDataFiles(dir) - files_before;
      memory = ResidentMemory();

      if (in_files) {
        std::ofstream(description_path) << description;
        if (ReadFile(description_path) != description) {
          std::fprintf(stderr, "zu demo: cannot write %s: %s\n", description_path.c_str(),
                       std::strerror(errno));
          room = false;
        } else {
          std::printf("  saved the description of %d files to %s\n", files,
                      description_path.c_str());
          // Re-attach the same files in a second array and compare every element.
          auto second = zu::make_file_array<int64_t>();
          checks.Expect(second.load_description(ReadFile(description_path)),
                        "the description loads into a second array", 0);
          checks.Expect(second.size() == count, "the second array sees every element", count);
          Progress verify("verifying", count);
          uint64_t expected_sum = 0, sum = 0;
          std::vector<int64_t> chunk(1 << 16);
          for (uint64_t i = 0; i < count; i += chunk.size()) {
            uint64_t got = second.copy_out(i, chunk.data(), chunk.size());
            for (uint64_t k = 0; k < got; ++k) {
              sum = sum * 31 + static_cast<uint64_t>(chunk[k]);
              expected_sum = expected_sum * 31 + static_cast<uint64_t>(TimestampAt(i + k));
            }
            if (i % kTick == 0) verify.Update(i);
          }
          verify.Done(count);
          checks.Expect(sum == expected_sum, "the checksum of every re-attached element", 0);
          if (keep) {
            // Neither array is ever destroyed, so neither deletes the files: the process ends
            // with them still open, and they stay.
            g_kept_arrays[0] = array.release();
            g_kept_arrays[1] = second.release();
            kept = true;
          }
        }
      } else if (keep) {
        std::printf("  --keep: nothing to keep, the array stayed in memory\n");
      }
    }
  }  // the arrays that are still owned go, and with them every data file

  if (!kept) {
    fs::remove(description_path, error);
    checks.Expect(CountDataFiles(dir) == files_before, "no data file is left behind", 0);
    if (own_dir) fs::remove_all(dir, error);
  }
  IZUArray::SetDataDirectory(L"");
  if (!room) return kExitFailure;

  std::printf("\n  %-22s %" PRIu64 "\n", "elements", count);
  std::printf("  %-22s %s\n", "bytes", Human(static_cast<double>(count) * 8).c_str());
  std::printf("  %-22s %d\n", "files", files);
  std::printf("  %-22s %.3g M/s\n", "append rate", count / append_seconds / 1e6);
  // Seven searches a round: two LowerBound, two Find, two FindNearest, one FindFloor.
  std::printf("  %-22s %.2f us\n", "search latency", search_seconds * 1e6 / (kSearches * 7.0));
  std::printf("  %-22s %s anonymous, %s file-backed\n", "resident memory",
              Human(memory.first).c_str(), Human(memory.second).c_str());
  if (kept) {
    std::printf(
        "\n  kept %d data files and %s\n  check them: zu inspect %s\n"
        "  remove them: zu clean %s\n",
        files, description_path.c_str(), description_path.c_str(), dir.c_str());
  }
  const bool passed = checks.failures() == 0;
  std::printf("\n%s\n", passed ? "zu demo: all checks passed" : "zu demo: CHECKS FAILED");
  return passed ? 0 : kExitFailure;
}

// --- zu clean --------------------------------------------------------------------------------

const char kCleanHelp[] =
    "usage: zu clean DIR\n"
    "\n"
    "Deletes the leftover data files (*.KMB, *.kmt) at the top level of DIR. Files that a live\n"
    "array of any process holds open are left alone and listed.\n";

int Clean(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {}, {}, 1, kCleanHelp, &options)) return kExitUsage;
  if (options.help) {
    std::fputs(kCleanHelp, stdout);
    return 0;
  }
  if (options.positional.size() != 1) {
    std::fprintf(stderr, "zu clean: which directory?\n\n%s", kCleanHelp);
    return kExitUsage;
  }
  fs::path dir = options.positional[0];
  std::error_code error;
  if (!fs::is_directory(dir, error)) {
    std::fprintf(stderr, "zu clean: %s is not a directory\n", dir.c_str());
    return kExitFailure;
  }
  int before = CountDataFiles(dir);
  IZUArray::SetDataDirectory(dir.wstring());
  IZUArray::CleanTmpFiles();
  IZUArray::SetDataDirectory(L"");
  std::printf("zu clean: removed %d data file(s) from %s\n", before - CountDataFiles(dir),
              dir.c_str());
  for (const auto& entry : fs::directory_iterator(dir, error)) {
    if (IsDataFile(entry)) {
      std::printf("  left (in use): %s\n", entry.path().filename().c_str());
    }
  }
  return 0;
}

// --- zu inspect ------------------------------------------------------------------------------

const char kInspectHelp[] =
    "usage: zu inspect DESCRIPTION.json\n"
    "\n"
    "Lists the files of a saved description (zu demo --keep leaves one) with their element\n"
    "counts and checks that each exists with a plausible length.\n";

int Inspect(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, {}, {}, 1, kInspectHelp, &options)) return kExitUsage;
  if (options.help) {
    std::fputs(kInspectHelp, stdout);
    return 0;
  }
  if (options.positional.size() != 1) {
    std::fprintf(stderr, "zu inspect: which description?\n\n%s", kInspectHelp);
    return kExitUsage;
  }
  std::ifstream in(options.positional[0]);
  if (!in) {
    std::fprintf(stderr, "zu inspect: cannot read %s: %s\n", options.positional[0].c_str(),
                 std::strerror(errno));
    return kExitFailure;
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
    return kExitFailure;
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
  return problems == 0 ? 0 : kExitFailure;
}

const char kHelp[] =
    "usage: zu COMMAND [options]\n"
    "       zu --version\n"
    "\n"
    "commands:\n"
    "  demo      append timestamps to a self-spilling array, search, re-attach, verify\n"
    "  clean     remove leftover data files from a directory\n"
    "  inspect   check the files named by a saved description\n"
    "\n"
    "zu COMMAND --help tells more; zu --version prints the version.\n";

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
  if (command == "--version") {
    std::printf("zu %s\n", ZU_VERSION);
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
    return kExitFailure;
  }
}
