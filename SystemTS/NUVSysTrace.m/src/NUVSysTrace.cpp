// Named traces: the registry of names, the handles, and the print path.
//
// Each trace name has one channel, made with its first handle and kept for
// the process (so that a name's file, dropped count and settings outlive its
// handles, and a name made again finds them). The registry's lock guards the
// names, the configuration and the handle lists; it is never taken on the
// print path, which reads the channel's sink bits atomically and takes only
// the lock of the ring or of the channel's file.
#include "NUVSysTrace.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TraceConfig.h"
#include "TraceLine.h"
#include "TraceOptionFile.h"
#include "TraceSinks.h"

namespace systemts::detail {

namespace {

// Longest message kept; the rest of a longer one is cut.
constexpr std::size_t kMaxMessage = 64 * 1024;

std::string fileNameFor(const std::string& name) {
  std::string out;
  out.reserve(name.size() + 24);
  for (char c : name) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-' || c == '_';
    out += keep ? c : '_';
  }
  out += '.';
  out += std::to_string(static_cast<long>(::getpid()));
  out += ".trace";
  return out;
}

struct TraceChannel;

class TraceHandle final : public NUVSysTrace {
 public:
  explicit TraceHandle(TraceChannel* c) : channel(c) {}
  void setLevel(int level) { level_.store(level, std::memory_order_relaxed); }
  TraceChannel* const channel;
};

struct TraceChannel {
  explicit TraceChannel(const std::string& n) : name(n), file(n, fileNameFor(n)) {}
  const std::string name;
  std::atomic<unsigned> sinks{0};
  std::atomic<std::uint64_t> dropped{0};
  TraceFileSink file;
  int level = NUVSysTraceOff;          // guarded by the registry's lock
  std::vector<TraceHandle*> handles;   // guarded by the registry's lock
};

class TraceRegistry {
 public:
  // Made on first use and never destroyed: traces may print from other
  // static destructors, and the exit handler flushes the files instead.
  static TraceRegistry& get() {
    static TraceRegistry* const registry = new TraceRegistry();
    return *registry;
  }

  TraceHandle* create(const char* name) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = channels_.find(name);
    if (it == channels_.end()) {
      it = channels_.emplace(name, std::make_unique<TraceChannel>(name)).first;
      updateLocked(*it->second);
    }
    TraceChannel& c = *it->second;
    auto handle = std::make_unique<TraceHandle>(&c);
    handle->setLevel(c.level);
    c.handles.push_back(handle.get());
    return handle.release();
  }

  void destroy(TraceHandle* handle) {
    std::unique_ptr<TraceHandle> owned(handle);
    std::lock_guard<std::mutex> lock(mu_);
    TraceChannel& c = *handle->channel;
    auto& hs = c.handles;
    hs.erase(std::remove(hs.begin(), hs.end(), handle), hs.end());
    if (hs.empty()) c.file.flush(c.dropped);
  }

  int configure(const char* line) {
    if (line == nullptr) {
      std::lock_guard<std::mutex> lock(mu_);
      reloadLocked();
      return 0;
    }
    std::string name, reason;
    TraceOptions options;
    const TraceLine kind = parseTraceOptionLine(line, name, options, reason);
    if (kind == TraceLine::kBad) return -1;
    if (kind == TraceLine::kComment) return 0;
    std::lock_guard<std::mutex> lock(mu_);
    config_.applyLine(name, options);
    if (name.empty()) {
      for (auto& entry : channels_) updateLocked(*entry.second);
    } else if (auto it = channels_.find(name); it != channels_.end()) {
      updateLocked(*it->second);
    }
    return 0;
  }

  int readOptionFile(const char* path) {
    std::string text;
    if (path == nullptr || !readTraceFile(path, text)) return -1;
    std::lock_guard<std::mutex> lock(mu_);
    const int bad = applyLocked(text, path);
    for (auto& entry : channels_) updateLocked(*entry.second);
    return bad;
  }

  std::string describe(const std::string& name) {
    std::lock_guard<std::mutex> lock(mu_);
    return describeTrace(name, config_.resolve(name));
  }

  bool flushAll() {
    std::lock_guard<std::mutex> lock(mu_);
    bool ok = true;
    for (auto& entry : channels_) ok = entry.second->file.flush(entry.second->dropped) && ok;
    return ok;
  }

  StreamSink out{1, "standard output"};
  StreamSink err{2, "standard error"};
  TraceRing ring;

 private:
  TraceRegistry() {
    reloadLocked();
    std::atexit([] { get().flushAll(); });
  }

  // The environment and the declaration files, from the start.
  void reloadLocked() {
    config_.reset();
    if (!config_.declarationDirectory().empty()) {
      for (const std::string& file : traceDeclarationFiles(config_.declarationDirectory())) {
        std::string text;
        if (readTraceFile(file.c_str(), text)) applyLocked(text, file);
      }
    }
    ring.setCapacity(config_.ringCapacity());
    for (auto& entry : channels_) updateLocked(*entry.second);
  }

  int applyLocked(const std::string& text, const std::string& source) {
    return applyTraceOptionText(text, source, [this](const std::string& name, const TraceOptions& o) {
      config_.applyLine(name, o);
    });
  }

  // Puts the settings now in force for the channel's name into the channel,
  // its file and every handle of the name.
  void updateLocked(TraceChannel& c) {
    const TraceSettings s = config_.resolve(c.name);
    c.file.configure(s.directory, s.size, s.count, c.dropped);
    c.sinks.store(s.sinks, std::memory_order_relaxed);
    // A trace without a sink is off: its lines cost no formatting.
    c.level = s.sinks != 0 ? s.level : static_cast<int>(NUVSysTraceOff);
    for (TraceHandle* h : c.handles) h->setLevel(c.level);
  }

  std::mutex mu_;
  TraceConfig config_;
  std::map<std::string, std::unique_ptr<TraceChannel>, std::less<>> channels_;
};

void printV(NUVSysTrace* trace, int level, const char* format, va_list args) noexcept {
  if (trace == nullptr || level < NUVSysTraceError || level > NUVSysTraceDebug || !trace->IsOn(level)) return;
  TraceChannel& c = *static_cast<TraceHandle*>(trace)->channel;
  const unsigned sinks = c.sinks.load(std::memory_order_relaxed);
  if (sinks == 0) return;
  TraceRegistry& registry = TraceRegistry::get();

  // Most lines fit the stack buffer; a longer one is formatted again into a
  // heap buffer of its exact size.
  char stack[2048];
  std::string heap;
  char* buf = stack;
  std::size_t cap = sizeof stack;
  const std::size_t room = kTracePrefixRoom + c.name.size();
  try {
    if (room + 64 > cap) {
      heap.resize(room + 256);
      buf = heap.data();
      cap = heap.size();
    }
  } catch (...) {
    c.dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const TraceTime now = traceNow();
  const std::size_t prefix = formatTracePrefix(buf, now, traceThreadId(), c.name, level);
  std::size_t message = 0;
  if (format != nullptr) {
    va_list copy;
    va_copy(copy, args);
    const int m = std::vsnprintf(buf + prefix, cap - prefix - 1, format, copy);
    va_end(copy);
    message = m > 0 ? std::min(static_cast<std::size_t>(m), kMaxMessage) : 0;
    if (prefix + message + 2 > cap) {
      try {
        std::string big(prefix + message + 2, '\0');
        std::memcpy(big.data(), buf, prefix);
        std::vsnprintf(big.data() + prefix, message + 1, format, args);
        heap.swap(big);
        buf = heap.data();
      } catch (...) {
        message = cap - prefix - 2;  // keep what the first pass formatted
      }
    }
  }
  std::size_t n = prefix + message;
  if (message == 0 || buf[n - 1] != '\n') buf[n++] = '\n';

  std::uint64_t lost = 0;
  if ((sinks & kTraceSinkStdout) != 0 && !registry.out.write(buf, n)) ++lost;
  if ((sinks & kTraceSinkStderr) != 0 && !registry.err.write(buf, n)) ++lost;
  if ((sinks & kTraceSinkMemory) != 0) {
    try {
      registry.ring.push(buf, n);
    } catch (...) {
      ++lost;
    }
  }
  if (lost != 0) c.dropped.fetch_add(lost, std::memory_order_relaxed);
  if ((sinks & kTraceSinkFile) != 0) c.file.write(buf, n, level == NUVSysTraceError, now.second, c.dropped);
}

}  // namespace

}  // namespace systemts::detail

using systemts::detail::TraceRegistry;

NUVSysTrace* NUVSysTraceCreate__(const char* name) {
  if (name == nullptr || *name == '\0') return nullptr;
  try {
    return TraceRegistry::get().create(name);
  } catch (...) {
    return nullptr;
  }
}

void NUVSysTraceDestroy__(NUVSysTrace* trace) {
  if (trace == nullptr) return;
  TraceRegistry::get().destroy(static_cast<systemts::detail::TraceHandle*>(trace));
}

void NUVSysTracePrintV__(NUVSysTrace* trace, int level, const char* format, va_list args) {
  systemts::detail::printV(trace, level, format, args);
}

void NUVSysTracePrint__(NUVSysTrace* trace, int level, const char* format, ...) {
  if (trace == nullptr || !trace->IsOn(level)) return;
  va_list args;
  va_start(args, format);
  systemts::detail::printV(trace, level, format, args);
  va_end(args);
}

#define SYSTEMTS_TRACE_AT_LEVEL(function, level)                   \
  void function(NUVSysTrace* trace, const char* format, ...) {     \
    if (trace == nullptr || !trace->IsOn(level)) return;           \
    va_list args;                                                  \
    va_start(args, format);                                        \
    systemts::detail::printV(trace, level, format, args);          \
    va_end(args);                                                  \
  }
SYSTEMTS_TRACE_AT_LEVEL(NUVSysTraceError__, NUVSysTraceError)
SYSTEMTS_TRACE_AT_LEVEL(NUVSysTraceWarning__, NUVSysTraceWarning)
SYSTEMTS_TRACE_AT_LEVEL(NUVSysTraceInfo__, NUVSysTraceInformation)
SYSTEMTS_TRACE_AT_LEVEL(NUVSysTraceDebug__, NUVSysTraceDebug)
#undef SYSTEMTS_TRACE_AT_LEVEL

int NUVSysTraceConfigure__(const char* line) {
  try {
    return TraceRegistry::get().configure(line);
  } catch (...) {
    return -1;
  }
}

int NUVSysTraceReadOptionFile__(const char* path) {
  try {
    return TraceRegistry::get().readOptionFile(path);
  } catch (...) {
    return -1;
  }
}

int NUVSysTraceDescribe__(const char* name, char* buffer, size_t size) {
  if (name == nullptr || *name == '\0') return -1;
  try {
    const std::string line = TraceRegistry::get().describe(name);
    if (buffer != nullptr && size > 0) {
      const std::size_t n = std::min(line.size(), size - 1);
      std::memcpy(buffer, line.data(), n);
      buffer[n] = '\0';
    }
    return static_cast<int>(line.size());
  } catch (...) {
    return -1;
  }
}

unsigned long long NUVSysTraceGetDropped__(const NUVSysTrace* trace) {
  if (trace == nullptr) return 0;
  return static_cast<const systemts::detail::TraceHandle*>(trace)->channel->dropped.load(
      std::memory_order_relaxed);
}

size_t NUVSysTraceReadMemory__(char* buffer, size_t size) {
  try {
    const std::string all = TraceRegistry::get().ring.contents();
    if (buffer != nullptr && size > 0) {
      const std::size_t n = std::min(all.size(), size - 1);
      std::memcpy(buffer, all.data(), n);
      buffer[n] = '\0';
    }
    return all.size();
  } catch (...) {
    if (buffer != nullptr && size > 0) buffer[0] = '\0';
    return 0;
  }
}

int NUVSysTraceDumpMemory__(int fd) {
  try {
    const std::string all = TraceRegistry::get().ring.contents();
    std::size_t written = 0;
    return systemts::detail::writeAll(fd, all.data(), all.size(), written) ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

int NUVSysTraceFlush__() {
  try {
    return TraceRegistry::get().flushAll() ? 0 : -1;
  } catch (...) {
    return -1;
  }
}
