// TraceSinks.h - where trace lines go: the standard streams, the in-memory
// ring and size-rotated files. Each sink is safe to call from any thread.
#ifndef SYSTEMTS_TRACE_SINKS_H
#define SYSTEMTS_TRACE_SINKS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace systemts::detail {

// Writes all of `n` bytes to `fd` through the OS table, retrying EINTR and
// continuing after a short write. The bytes written before a failure are in
// `written`. False on failure, with errno set.
bool writeAll(int fd, const char* data, std::size_t n, std::size_t& written);

// Standard output (fd 1) or standard error (fd 2): one write per line. A
// failure is reported once on standard error until a write works again.
class StreamSink {
 public:
  StreamSink(int fd, const char* label) : fd_(fd), label_(label) {}
  // False when the line was not written whole.
  bool write(const char* line, std::size_t n);

 private:
  const int fd_;
  const char* const label_;
  std::atomic<bool> failing_{false};
};

// The last `capacity` lines of every trace, oldest first.
class TraceRing {
 public:
  void setCapacity(std::size_t capacity);
  void push(const char* line, std::size_t n);
  std::string contents() const;

 private:
  mutable std::mutex mu_;
  std::vector<std::string> slots_;  // a slot keeps its storage once grown
  std::size_t next_ = 0;            // slot the next line goes to
  std::size_t used_ = 0;
};

// One trace name's file: <directory>/<name>.<pid>.trace and its rotated
// predecessors .1 .. .count-1.
class TraceFileSink {
 public:
  // Lines are written when this much is buffered.
  static constexpr std::size_t kFlushBytes = 32 * 1024;

  TraceFileSink(std::string traceName, std::string fileName)
      : traceName_(std::move(traceName)), fileName_(std::move(fileName)) {}
  ~TraceFileSink();

  // Writes the buffer, closes the file, and takes the new settings; the next
  // line opens the file they name.
  void configure(const std::string& directory, std::uint64_t size, int count,
                 std::atomic<std::uint64_t>& dropped);
  // Appends one line; `urgent` (an error line) writes at once, as does the
  // first line in a new second (`second`, of the line's time).
  void write(const char* line, std::size_t n, bool urgent, std::int64_t second,
             std::atomic<std::uint64_t>& dropped);
  // False when buffered lines could not be written (they are dropped).
  bool flush(std::atomic<std::uint64_t>& dropped);

 private:
  bool flushLocked(std::atomic<std::uint64_t>& dropped);
  bool openLocked();
  void rotateLocked();
  void closeLocked();
  void failLocked(int error, const char* what);

  mutable std::mutex mu_;
  const std::string traceName_;
  const std::string fileName_;  // <name>.<pid>.trace
  std::string path_;            // <directory>/<fileName_>
  std::string directory_;
  std::uint64_t maxSize_ = 0;
  int count_ = 1;
  int fd_ = -1;
  std::uint64_t fileSize_ = 0;  // bytes in the open file
  std::string buffer_;
  std::size_t bufferedLines_ = 0;
  std::int64_t lastWrite_ = 0;
  bool failing_ = false;
  bool cutLine_ = false;          // a failed write ended inside a line
  std::uint64_t lostSinceFailure_ = 0;
};

}  // namespace systemts::detail

#endif  // SYSTEMTS_TRACE_SINKS_H
