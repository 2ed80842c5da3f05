// The settings of trace names: value parsing, the environment, the layers.
#include "TraceConfig.h"
#include "Settings.h"

#include <cctype>
#include <cstdlib>

namespace systemts::detail {

namespace {

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

// A decimal number of at most `max`, with no sign and no blank.
bool parseDecimal(std::string_view text, std::uint64_t max, std::uint64_t& out) {
  if (text.empty()) return false;
  std::uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
    if (v > max) return false;
  }
  out = v;
  return true;
}

// The setting's environment variable, or null when unset or empty.
const char* env(const char* name) { return systemts::detail::TraceSetting(name); }

// "DEFAULT,NAME=VALUE,..." into the default layer and the per-name layers.
// Items that do not parse are skipped: the environment has no line number to
// report, and a trace must never stop a process from starting.
template <class Parse>
void parseNamedList(const char* text, Parse parse, TraceOptions& defaults,
                    std::map<std::string, TraceOptions, std::less<>>& byName) {
  std::string_view rest(text);
  while (!rest.empty()) {
    const std::size_t comma = rest.find(',');
    std::string_view item = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) item.remove_prefix(1);
    while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
    const std::size_t eq = item.rfind('=');
    if (eq == std::string_view::npos) {
      parse(item, defaults);
    } else if (eq > 0) {
      TraceOptions one;
      if (parse(item.substr(eq + 1), one)) byName[std::string(item.substr(0, eq))].overlay(one);
    }
  }
}

}  // namespace

void TraceOptions::overlay(const TraceOptions& later) {
  if (later.level) level = later.level;
  if (later.sinks) sinks = later.sinks;
  if (later.directory) directory = later.directory;
  if (later.size) size = later.size;
  if (later.count) count = later.count;
}

void TraceOptions::applyTo(TraceSettings& s) const {
  if (level) s.level = *level;
  if (sinks) s.sinks = *sinks;
  if (directory) s.directory = *directory;
  if (size) s.size = *size;
  if (count) s.count = *count;
}

bool parseTraceLevel(std::string_view text, int& out) {
  static constexpr struct {
    const char* name;
    int level;
  } kNames[] = {{"off", 0},         {"error", 1}, {"warning", 2}, {"information", 3},
                {"info", 3},        {"debug", 4}, {"0", 0},       {"1", 1},
                {"2", 2},           {"3", 3},     {"4", 4}};
  for (const auto& n : kNames) {
    if (equalsIgnoreCase(text, n.name)) {
      out = n.level;
      return true;
    }
  }
  return false;
}

const char* traceLevelName(int level) {
  static constexpr const char* kNames[] = {"off", "error", "warning", "information", "debug"};
  return level >= 0 && level <= 4 ? kNames[level] : "off";
}

bool parseTraceSinks(std::string_view text, unsigned& out) {
  if (equalsIgnoreCase(text, "none")) {
    out = 0;
    return true;
  }
  static constexpr struct {
    const char* name;
    unsigned bit;
  } kSinks[] = {{"stdout", kTraceSinkStdout},
                {"stderr", kTraceSinkStderr},
                {"memory", kTraceSinkMemory},
                {"file", kTraceSinkFile}};
  unsigned sinks = 0;
  std::string_view rest = text;
  for (;;) {
    const std::size_t plus = rest.find('+');
    const std::string_view word = rest.substr(0, plus);
    bool known = false;
    for (const auto& s : kSinks) {
      if (equalsIgnoreCase(word, s.name)) {
        sinks |= s.bit;
        known = true;
      }
    }
    if (!known) return false;
    if (plus == std::string_view::npos) break;
    rest = rest.substr(plus + 1);
  }
  out = sinks;
  return true;
}

std::string traceSinksName(unsigned sinks) {
  static constexpr const char* kNames[] = {"stdout", "stderr", "memory", "file"};
  std::string out;
  for (unsigned i = 0; i < 4; ++i) {
    if ((sinks & (1u << i)) == 0) continue;
    if (!out.empty()) out += '+';
    out += kNames[i];
  }
  return out.empty() ? "none" : out;
}

bool parseTraceSize(std::string_view text, std::uint64_t& out) {
  std::uint64_t unit = 1;
  if (!text.empty()) {
    switch (std::toupper(static_cast<unsigned char>(text.back()))) {
      case 'K': unit = 1024; break;
      case 'M': unit = 1024 * 1024; break;
      case 'G': unit = 1024 * 1024 * 1024; break;
      default: break;
    }
    if (unit != 1) text.remove_suffix(1);
  }
  std::uint64_t v = 0;
  if (!parseDecimal(text, kTraceMaxSize / unit, v) || v == 0) return false;
  out = v * unit;
  return true;
}

bool parseTraceCount(std::string_view text, int& out) {
  std::uint64_t v = 0;
  if (!parseDecimal(text, kTraceMaxCount, v) || v == 0) return false;
  out = static_cast<int>(v);
  return true;
}

void TraceConfig::reset() {
  lineDefault_ = TraceOptions();
  lineByName_.clear();
  loadEnvironment();
}

void TraceConfig::loadEnvironment() {
  envDefault_ = TraceOptions();
  envByName_.clear();
  if (const char* v = env("KELTemp")) {
    builtinDirectory_ = v;
  } else if (const char* t = env("TMPDIR")) {
    builtinDirectory_ = t;
  } else {
    builtinDirectory_ = "/tmp";
  }
  if (const char* v = env("KELTraceLevel")) {
    parseNamedList(
        v,
        [](std::string_view t, TraceOptions& o) {
          int level = 0;
          if (!parseTraceLevel(t, level)) return false;
          o.level = level;
          return true;
        },
        envDefault_, envByName_);
  }
  if (const char* v = env("KELTraceSink")) {
    parseNamedList(
        v,
        [](std::string_view t, TraceOptions& o) {
          unsigned sinks = 0;
          if (!parseTraceSinks(t, sinks)) return false;
          o.sinks = sinks;
          return true;
        },
        envDefault_, envByName_);
  }
  if (const char* v = env("KELTraceDir")) envDefault_.directory = v;
  std::uint64_t size = 0;
  if (const char* v = env("KELTraceSize"); v != nullptr && parseTraceSize(v, size)) envDefault_.size = size;
  int count = 0;
  if (const char* v = env("KELTraceCount"); v != nullptr && parseTraceCount(v, count)) envDefault_.count = count;
  ringCapacity_ = kTraceDefaultRing;
  std::uint64_t ring = 0;
  if (const char* v = env("KELTraceRing"); v != nullptr && parseDecimal(v, kTraceMaxRing, ring))
    ringCapacity_ = static_cast<std::size_t>(ring);
  const char* dec = env("KELTraDecDir");
  declarationDirectory_ = dec != nullptr ? dec : "";
}

void TraceConfig::applyLine(const std::string& name, const TraceOptions& options) {
  if (name.empty()) {
    lineDefault_.overlay(options);
  } else {
    lineByName_[name].overlay(options);
  }
}

TraceSettings TraceConfig::resolve(const std::string& name) const {
  TraceSettings s;
  s.directory = builtinDirectory_;
  lineDefault_.applyTo(s);
  envDefault_.applyTo(s);
  if (auto it = lineByName_.find(name); it != lineByName_.end()) it->second.applyTo(s);
  if (auto it = envByName_.find(name); it != envByName_.end()) it->second.applyTo(s);
  return s;
}

namespace {
// Quotes one value so that the option-line splitter gives it back: quoted
// when empty or holding a blank, a tab, a quote or a backslash; a quote is
// written \" with the backslashes before it doubled, and the backslashes
// before the closing quote are doubled.
std::string quote(const std::string& v) {
  if (!v.empty() && v.find_first_of(" \t\"\\") == std::string::npos) return v;
  std::string out = "\"";
  std::size_t backslashes = 0;
  for (char c : v) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  out += '"';
  return out;
}
}  // namespace

std::string describeTrace(const std::string& name, const TraceSettings& s) {
  std::string out = "--name " + quote(name);
  out += " --level ";
  out += traceLevelName(s.level);
  out += " --sink " + traceSinksName(s.sinks);
  out += " --directory " + quote(s.directory);
  out += " --size " + std::to_string(s.size);
  out += " --count " + std::to_string(s.count);
  return out;
}

}  // namespace systemts::detail
