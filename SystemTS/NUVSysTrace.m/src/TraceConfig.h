// TraceConfig.h - the settings of a trace name and where they come from: the
// built-in defaults, the environment, and option lines (files and
// NUVSysTraceConfigure__). The layering is described in NUVSysTrace.h.
#ifndef SYSTEMTS_TRACE_CONFIG_H
#define SYSTEMTS_TRACE_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace systemts::detail {

// Sink bits.
enum : unsigned {
  kTraceSinkStdout = 1u,
  kTraceSinkStderr = 2u,
  kTraceSinkMemory = 4u,
  kTraceSinkFile = 8u,
  kTraceSinkAll = 15u,
};

inline constexpr std::uint64_t kTraceMaxSize = std::uint64_t{1} << 40;
inline constexpr int kTraceMaxCount = 1000;
inline constexpr std::size_t kTraceDefaultRing = 1024;
// The ring's capacity is bounded so that a typo cannot reserve gigabytes.
inline constexpr std::size_t kTraceMaxRing = 1u << 20;

// What a trace name ends up with.
struct TraceSettings {
  int level = 2;  // warning
  unsigned sinks = kTraceSinkStderr;
  std::string directory;
  std::uint64_t size = 10u * 1024u * 1024u;
  int count = 5;
};

// One layer: the settings it gives, each possibly absent.
struct TraceOptions {
  std::optional<int> level;
  std::optional<unsigned> sinks;
  std::optional<std::string> directory;
  std::optional<std::uint64_t> size;
  std::optional<int> count;

  // Takes every setting that `later` gives.
  void overlay(const TraceOptions& later);
  // Writes the settings this layer gives into `s`.
  void applyTo(TraceSettings& s) const;
};

// Values, as option lines and the environment write them. Each returns false
// for text it does not take, leaving `out` alone.
bool parseTraceLevel(std::string_view text, int& out);
bool parseTraceSinks(std::string_view text, unsigned& out);
bool parseTraceSize(std::string_view text, std::uint64_t& out);
bool parseTraceCount(std::string_view text, int& out);
const char* traceLevelName(int level);  // "off" .. "debug"
std::string traceSinksName(unsigned sinks);  // "stderr+file", "none"

// One option line checked. kComment for an empty or comment line; kBad with
// `reason` set, `name` and `options` then unspecified. A line without --name
// (or with --name "*") gives the empty `name`: the defaults.
enum class TraceLine { kComment, kGood, kBad };
TraceLine parseTraceOptionLine(const char* line, std::string& name, TraceOptions& options,
                               std::string& reason);

// Every layer, and the answer for one name.
class TraceConfig {
 public:
  // Forgets the option lines and reads the environment again.
  void reset();
  void applyLine(const std::string& name, const TraceOptions& options);
  TraceSettings resolve(const std::string& name) const;
  std::size_t ringCapacity() const { return ringCapacity_; }
  // "KELTraDecDir", or "" when it is unset or empty.
  const std::string& declarationDirectory() const { return declarationDirectory_; }

 private:
  void loadEnvironment();

  std::string builtinDirectory_;
  TraceOptions envDefault_;
  std::map<std::string, TraceOptions, std::less<>> envByName_;
  TraceOptions lineDefault_;
  std::map<std::string, TraceOptions, std::less<>> lineByName_;
  std::size_t ringCapacity_ = kTraceDefaultRing;
  std::string declarationDirectory_;
};

// The option line NUVSysTraceDescribe__ writes for `name` with `s`.
std::string describeTrace(const std::string& name, const TraceSettings& s);

}  // namespace systemts::detail

#endif  // SYSTEMTS_TRACE_CONFIG_H
