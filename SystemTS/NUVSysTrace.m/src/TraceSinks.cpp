// Trace sinks: standard streams, the ring, rotated files.
#include "TraceSinks.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Diagnostics.h"
#include "SysCalls.h"
#include "TraceLine.h"

namespace systemts::detail {

namespace {

// The library's diagnostics path: standard error, flushed at once.
void reportFailure(const char* what, const std::string& target, int error) {
  char text[256];
  const char* reason = strerror_r(error, text, sizeof text);
  Diagnose(stderr, kDiagnoseFlush,
           "KELTrace: cannot %s %s (%s); trace lines are dropped until writing works again\n", what,
           target.c_str(), reason);
}

}  // namespace

bool writeAll(int fd, const char* data, std::size_t n, std::size_t& written) {
  written = 0;
  while (written < n) {
    const ssize_t w = RetryAfterSignal([&] { return g_sys.write(fd, data + written, n - written); });
    if (w < 0) return false;
    if (w == 0) {  // nothing taken and no error: treat as a full device
      errno = ENOSPC;
      return false;
    }
    written += static_cast<std::size_t>(w);
  }
  return true;
}

bool StreamSink::write(const char* line, std::size_t n) {
  std::size_t written = 0;
  if (writeAll(fd_, line, n, written)) {
    if (failing_.load(std::memory_order_relaxed)) failing_.store(false, std::memory_order_relaxed);
    return true;
  }
  const int e = errno;
  if (!failing_.exchange(true, std::memory_order_relaxed)) reportFailure("write to", label_, e);
  return false;
}

void TraceRing::setCapacity(std::size_t capacity) {
  std::lock_guard<std::mutex> lock(mu_);
  if (capacity == slots_.size()) return;
  // Keep the newest lines that fit, oldest first from slot 0.
  const std::size_t keep = std::min(used_, capacity);
  std::vector<std::string> slots(capacity);
  const std::size_t oldest = used_ < slots_.size() ? 0 : next_;
  for (std::size_t i = 0; i < keep; ++i) {
    slots[i].swap(slots_[(oldest + used_ - keep + i) % slots_.size()]);
  }
  slots_.swap(slots);
  used_ = keep;
  next_ = capacity == 0 ? 0 : keep % capacity;
}

void TraceRing::push(const char* line, std::size_t n) {
  std::lock_guard<std::mutex> lock(mu_);
  if (slots_.empty()) return;
  slots_[next_].assign(line, n);  // reuses the slot's storage once it is large enough
  next_ = (next_ + 1) % slots_.size();
  if (used_ < slots_.size()) ++used_;
}

std::string TraceRing::contents() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string out;
  if (slots_.empty()) return out;
  const std::size_t oldest = used_ < slots_.size() ? 0 : next_;
  std::size_t total = 0;
  for (std::size_t i = 0; i < used_; ++i) total += slots_[(oldest + i) % slots_.size()].size();
  out.reserve(total);
  for (std::size_t i = 0; i < used_; ++i) out += slots_[(oldest + i) % slots_.size()];
  return out;
}

TraceFileSink::~TraceFileSink() {
  std::atomic<std::uint64_t> dropped{0};
  std::lock_guard<std::mutex> lock(mu_);
  flushLocked(dropped);
  closeLocked();
}

void TraceFileSink::configure(const std::string& directory, std::uint64_t size, int count,
                              std::atomic<std::uint64_t>& dropped) {
  std::lock_guard<std::mutex> lock(mu_);
  if (directory == directory_ && size == maxSize_ && count == count_) return;
  flushLocked(dropped);
  closeLocked();
  directory_ = directory;
  maxSize_ = size;
  count_ = count;
  path_ = directory_ + "/" + fileName_;
  fileSize_ = 0;
}

void TraceFileSink::write(const char* line, std::size_t n, bool urgent, std::int64_t second,
                          std::atomic<std::uint64_t>& dropped) {
  std::lock_guard<std::mutex> lock(mu_);
  const std::uint64_t pending = fileSize_ + buffer_.size();
  if (pending > 0 && pending + n > maxSize_) {
    // The line would take the file past its size: write what is buffered
    // (it fits), then begin the next file.
    flushLocked(dropped);
    if (fileSize_ > 0 && fileSize_ + n > maxSize_) rotateLocked();
  }
  try {
    buffer_.append(line, n);
  } catch (...) {
    dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  ++bufferedLines_;
  if (urgent || buffer_.size() >= kFlushBytes || second != lastWrite_) {
    lastWrite_ = second;
    flushLocked(dropped);
  }
}

bool TraceFileSink::flush(std::atomic<std::uint64_t>& dropped) {
  std::lock_guard<std::mutex> lock(mu_);
  return flushLocked(dropped);
}

bool TraceFileSink::flushLocked(std::atomic<std::uint64_t>& dropped) {
  if (buffer_.empty()) return true;
  const auto lose = [&](std::size_t lines) {
    dropped.fetch_add(lines, std::memory_order_relaxed);
    lostSinceFailure_ += lines;
    buffer_.clear();
    bufferedLines_ = 0;
  };
  if (fd_ < 0 && !openLocked()) {
    lose(bufferedLines_);
    return false;
  }
  std::size_t written = 0;
  if (failing_) {
    // Writing works again (or is tried again): say first what was lost.
    std::string notice = traceNotice(traceName_,
                                     std::to_string(lostSinceFailure_) +
                                         " lines dropped while the file could not be written");
    if (cutLine_) notice.insert(0, 1, '\n');
    if (!writeAll(fd_, notice.data(), notice.size(), written)) {
      fileSize_ += written;
      const int e = errno;
      closeLocked();
      failLocked(e, "write");
      lose(bufferedLines_);
      return false;
    }
    fileSize_ += written;
    failing_ = false;
    cutLine_ = false;
    lostSinceFailure_ = 0;
  }
  if (!writeAll(fd_, buffer_.data(), buffer_.size(), written)) {
    const int e = errno;
    fileSize_ += written;
    // Lines wholly written stay; the line cut by the failure and the ones
    // after it are lost.
    const std::size_t lost = static_cast<std::size_t>(
        std::count(buffer_.begin() + static_cast<std::ptrdiff_t>(written), buffer_.end(), '\n'));
    cutLine_ = written > 0 && buffer_[written - 1] != '\n';
    closeLocked();
    failLocked(e, "write");
    lose(lost);
    return false;
  }
  fileSize_ += written;
  buffer_.clear();
  bufferedLines_ = 0;
  return true;
}

bool TraceFileSink::openLocked() {
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  int fd = RetryAfterSignal([&] { return g_sys.open(path_.c_str(), flags, 0644); });
  if (fd < 0 && errno == ENOENT) {
    // Make the directory and its missing parents, then try once more.
    for (std::size_t slash = directory_.find('/', 1);; slash = directory_.find('/', slash + 1)) {
      const std::string part = directory_.substr(0, slash);
      if (g_sys.mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) break;
      if (slash == std::string::npos) break;
    }
    fd = RetryAfterSignal([&] { return g_sys.open(path_.c_str(), flags, 0644); });
  }
  if (fd < 0) {
    failLocked(errno, "open");
    return false;
  }
  struct stat64 st;
  fileSize_ = g_sys.stat64(path_.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  fd_ = fd;
  return true;
}

void TraceFileSink::rotateLocked() {
  closeLocked();
  // path.count-2 -> path.count-1 (replacing the oldest), ..., path -> path.1.
  for (int k = count_ - 1; k >= 1; --k) {
    const std::string from = k == 1 ? path_ : path_ + "." + std::to_string(k - 1);
    const std::string to = path_ + "." + std::to_string(k);
    g_sys.rename(from.c_str(), to.c_str());  // a missing file is fine
  }
  // With one file only, or when the rename failed, start the file afresh so
  // that the size holds.
  struct stat64 st;
  if (g_sys.stat64(path_.c_str(), &st) == 0) g_sys.unlink(path_.c_str());
  fileSize_ = 0;
}

void TraceFileSink::closeLocked() {
  if (fd_ >= 0) g_sys.close(fd_);
  fd_ = -1;
}

void TraceFileSink::failLocked(int error, const char* what) {
  if (failing_) return;
  failing_ = true;
  reportFailure(what, path_, error);
}

}  // namespace systemts::detail
