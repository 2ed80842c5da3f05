// Option lines and option files of the trace configuration. A line is split
// like a command line and checked against the trace options with the
// library's option checker, then each value is checked on its own.
#include "TraceOptionFile.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <set>

#include "Diagnostics.h"
#include "NUVSysEnvironCommandLine.h"
#include "SysCalls.h"

namespace systemts::detail {

namespace {

enum Option { kName, kLevel, kSink, kDirectory, kSize, kCount, kOptions };
constexpr const char* kOptionNames[kOptions] = {"name", "level", "sink", "directory", "size", "count"};

// Frees the splitter's vector on every path.
struct ArgumentVector {
  char** argv = nullptr;
  int argc = 0;
  ~ArgumentVector() { NUVSysEnvironDeleteArgumentArrayA(&argv, argc); }
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Why the checker stopped at `arg`, from the counters it left.
std::string checkerReason(const char* arg, const int (&counters)[kOptions]) {
  const std::string a = arg != nullptr ? arg : "";
  if (a.size() >= 2 && a[0] == '-' && a[1] == '-') {
    for (int i = 0; i < kOptions; ++i) {
      if (a.compare(2, std::string::npos, kOptionNames[i]) != 0) continue;
      if (counters[i] > 1) return "option " + a + " given twice";
      for (int j = 0; j < kOptions; ++j) {
        if (counters[j] == 1) return std::string("option --") + kOptionNames[j] + " needs a value";
      }
      return "option " + a + " not expected here";
    }
    return "unknown option " + a;
  }
  if (!a.empty() && a[0] == '-' && !(a.size() > 1 && a[1] >= '0' && a[1] <= '9')) {
    for (int j = 0; j < kOptions; ++j) {
      if (counters[j] == 1) return std::string("option --") + kOptionNames[j] + " needs a value";
    }
    return "unknown option " + a;
  }
  return "value \"" + a + "\" follows no option";
}

}  // namespace

TraceLine parseTraceOptionLine(const char* line, std::string& name, TraceOptions& options,
                               std::string& reason) {
  name.clear();
  options = TraceOptions();
  if (line == nullptr) {
    reason = "no line";
    return TraceLine::kBad;
  }
  std::string_view text(line);
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  // A trailing blank would make the splitter give an empty last argument.
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  if (text.empty() || text.front() == '#') return TraceLine::kComment;

  // The checker skips argv[0], the program's place on a command line.
  std::string command = "trace ";
  command.append(text);
  ArgumentVector args;
  if (NUVSysEnvironBuildArgumentFromCommandLine(command.c_str(), &args.argv, &args.argc) != 0) {
    reason = "cannot split the line";
    return TraceLine::kBad;
  }
  int counters[kOptions] = {};
  char** values[kOptions] = {};
  NUVSysEnvironCommandLongOptionStructA longOptions[kOptions + 1];
  for (int i = 0; i < kOptions; ++i) longOptions[i] = {kOptionNames[i], 2, &values[i], &counters[i]};
  longOptions[kOptions] = {nullptr, 0, nullptr, nullptr};
  // An empty table of letters: every short option is refused, instead of
  // ignored as with no table.
  NUVSysEnvironCommandShortOptionStruct noLetters[1] = {{0, nullptr}};
  int bad = 0;
  if (NUVSysEnvironParseCommandOptionA(args.argc, args.argv, longOptions, noLetters, &bad) != 0) {
    reason = checkerReason(bad > 0 && bad < args.argc ? args.argv[bad] : nullptr, counters);
    return TraceLine::kBad;
  }
  for (int i = 0; i < kOptions; ++i) {
    if (counters[i] == 0) continue;
    if (counters[i] == 1) {
      reason = std::string("option --") + kOptionNames[i] + " needs a value";
      return TraceLine::kBad;
    }
    if (counters[i] > 2) {
      reason = std::string("option --") + kOptionNames[i] + " takes one value";
      return TraceLine::kBad;
    }
    const std::string_view value(*values[i]);
    const auto refuse = [&](const char* what) {
      reason = std::string(what) + " \"" + std::string(value) + "\"";
      return TraceLine::kBad;
    };
    switch (i) {
      case kName:
        if (value.empty()) return refuse("empty name");
        if (value != "*") name = value;
        break;
      case kLevel: {
        int level = 0;
        if (!parseTraceLevel(value, level)) return refuse("unknown level");
        options.level = level;
        break;
      }
      case kSink: {
        unsigned sinks = 0;
        if (!parseTraceSinks(value, sinks)) return refuse("unknown sink");
        options.sinks = sinks;
        break;
      }
      case kDirectory:
        if (value.empty()) return refuse("empty directory");
        options.directory = std::string(value);
        break;
      case kSize: {
        std::uint64_t size = 0;
        if (!parseTraceSize(value, size)) return refuse("size not in 1 to 2^40 bytes");
        options.size = size;
        break;
      }
      case kCount: {
        int count = 0;
        if (!parseTraceCount(value, count)) return refuse("count not in 1 to 1000");
        options.count = count;
        break;
      }
      default:
        break;
    }
  }
  return TraceLine::kGood;
}

int applyTraceOptionText(std::string_view text, const std::string& source, const TraceApply& apply) {
  // Bad lines already reported, so that reading a file again (a reload)
  // does not repeat them.
  static std::mutex reportedLock;
  static std::set<std::string> reported;

  int badLines = 0;
  std::size_t number = 0;
  std::string line, name, reason;
  TraceOptions options;
  while (!text.empty()) {
    ++number;
    const std::size_t end = text.find('\n');
    line.assign(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    // A NUL byte ends a C string early: such a line is bad as a whole.
    const TraceLine kind = line.find('\0') != std::string::npos
                               ? (reason = "NUL byte in the line", TraceLine::kBad)
                               : parseTraceOptionLine(line.c_str(), name, options, reason);
    if (kind == TraceLine::kGood) {
      apply(name, options);
    } else if (kind == TraceLine::kBad) {
      ++badLines;
      const std::string key = source + ":" + std::to_string(number) + ":" + line;
      std::lock_guard<std::mutex> lock(reportedLock);
      if (reported.insert(key).second) {
        Diagnose(stderr, kDiagnoseFlush,
                 "KELTrace: %s:%zu: %s; line ignored\n", source.c_str(), number, reason.c_str());
      }
    }
  }
  return badLines;
}

bool readTraceFile(const char* path, std::string& out) {
  constexpr std::size_t kMaxFile = 16u << 20;
  const int fd = RetryAfterSignal([&] { return g_sys.open(path, O_RDONLY | O_CLOEXEC, 0); });
  if (fd < 0) return false;
  std::string text;
  bool ok = true;
  char chunk[4096];
  for (;;) {
    const ssize_t n = RetryAfterSignal([&] { return g_sys.read(fd, chunk, sizeof chunk); });
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    text.append(chunk, static_cast<std::size_t>(n));
    if (text.size() > kMaxFile) {
      text.resize(kMaxFile);
      break;
    }
  }
  g_sys.close(fd);
  if (ok) out.swap(text);
  return ok;
}

std::vector<std::string> traceDeclarationFiles(const std::string& directory) {
  static constexpr std::string_view kSuffix = ".tradec";
  std::vector<std::string> files;
  DIR* dir = g_sys.opendir(directory.c_str());
  if (dir == nullptr) return files;
  while (const struct dirent* e = g_sys.readdir(dir)) {
    const std::string_view n(e->d_name);
    if (n.size() <= kSuffix.size() || n.substr(n.size() - kSuffix.size()) != kSuffix) continue;
    std::string path = directory + "/" + std::string(n);
    struct stat64 st;
    if (g_sys.stat64(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(std::move(path));
  }
  g_sys.closedir(dir);
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace systemts::detail
