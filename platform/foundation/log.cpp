#include <vesk/log.h>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio_ext.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include <vesk/printable_text.h>
#include "platform/foundation/mutex.h"
#include "platform/foundation/never_destroyed.h"

namespace vesk {
namespace {

using Sink = std::function<void(LogLevel, std::string_view)>;

Mutex gSinkMutex;  // held while the sink runs
constinit NeverDestroyed<std::shared_ptr<const Sink>> gSink VESK_GUARDED_BY(gSinkMutex);
thread_local bool tIsInsideSink = false;
/// What was set from inside the sink, by the thread that runs it.
constinit NeverDestroyed<std::shared_ptr<const Sink>> gNextSink;
bool gHasNextSink = false;
std::atomic<FILE*> gOutput{nullptr};
std::atomic<FILE*> gError{nullptr};

constexpr int kLongestWait = 100;  // milliseconds

/// Keeps a write to a pipe without a reader from ending the host, whatever it has made of SIGPIPE.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigset_t pending;
    sigpending(&pending);
    mWasPending = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&mPipe);
    sigaddset(&mPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &mPipe, &mBefore);
  }
  ~PipeSignalHeld() {
    constexpr timespec kNow{};
    if (!mWasPending) sigtimedwait(&mPipe, nullptr, &kNow);  // the one that the write has sent to this thread
    pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  sigset_t mPipe{};
  sigset_t mBefore{};
  bool mWasPending = false;
};

/// Whether the stream takes a line within a tenth of a second; at once where the one before was not taken.
/// A thread on a frame's way is not to wait for a terminal that Ctrl-S holds.
bool takesLine(FILE* stream) {
  static std::atomic<bool> isStuck{false};
  pollfd room{fileno(stream), POLLOUT, 0};
  if (room.fd < 0) return true;  // not a file: memory, or the host's own
  isStuck = poll(&room, 1, isStuck ? 0 : kLongestWait) == 0;
  return !isStuck;
}

/// What cannot be written is lost: a line is never worth the caller's work.
void write(FILE* stream, const std::string& text) {
  if (!takesLine(stream)) return;
  const PipeSignalHeld held;
  std::fwrite(text.data(), 1, text.size(), stream);
  // What stays in the buffer would be sent to nobody again by the next flush, and end the host then.
  if (std::fflush(stream) != 0 && errno == EPIPE) __fpurge(stream);
}

/// What the format makes of its arguments; none when it cannot be made.
std::optional<std::string> formatted(const char* format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return std::nullopt;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

/// Each line cleaned for itself: the formats' own line breaks stay.
std::string printableLines(std::string_view text) {
  std::string printable;
  for (;;) {
    const size_t end = text.find('\n');
    printable += printableText(text.substr(0, end));
    if (end == std::string_view::npos) return printable;
    printable += '\n';
    text.remove_prefix(end + 1);
  }
}

struct InsideSink {
  InsideSink() { tIsInsideSink = true; }
  ~InsideSink() { tIsInsideSink = false; }
};

/// Hands the lines of a text to the sink. @return false when there is none
bool sendToSink(LogLevel level, std::string_view text) {
  if (tIsInsideSink) return true;
  MutexLock lock(gSinkMutex);
  const auto sink = gSink.value;
  if (!sink) return false;
  try {
    const InsideSink inside;
    while (!text.empty()) {
      const size_t end = text.find('\n');
      const std::string_view line = text.substr(0, end);
      if (!line.empty()) (*sink)(level, line);
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
  } catch (...) {
    // A line is never worth the caller's work.
  }
  if (gHasNextSink) gSink.value = std::move(gNextSink.value);
  gHasNextSink = false;
  return true;
}

void print(LogLevel level, FILE* stream, const char* format, va_list arguments) noexcept try {
  const auto text = formatted(format, arguments);
  if (!text) return;
  const std::string printable = printableLines(*text);
  if (!sendToSink(level, printable)) write(stream, printable);
} catch (const std::exception&) {
  // No memory for a line.
}

}  // namespace

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "error";
    case LogLevel::kWarning:
      return "warning";
    case LogLevel::kInfo:
      return "info";
    case LogLevel::kDebug:
      break;
  }
  return "debug";
}

void NSLog(LogLevel level, std::string_view line) noexcept try {
  // A line's own break at its end stays, as its text was given.
  const bool endsInBreak = line.ends_with('\n');
  std::string printable = printableText(line.substr(0, line.size() - (endsInBreak ? 1 : 0)));
  if (endsInBreak) printable += '\n';
  if (!sendToSink(level, printable)) write(standardError(), printable + "\n");
} catch (...) {
  // No memory for a line: logging never fails its caller.
}

void NSLog(std::string_view line) noexcept {
  NSLog(LogLevel::kDebug, line);
}

void setLogSink(std::function<void(LogLevel, std::string_view)> sink) {
  auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  if (tIsInsideSink) {  // it goes on to its end, and is the last time
    gNextSink.value = std::move(next);
    gHasNextSink = true;
    return;
  }
  MutexLock lock(gSinkMutex);
  gSink.value.swap(next);
}

FILE* standardOutput() {
  FILE* stream = gOutput.load();
  return stream ? stream : stdout;
}
void setStandardOutput(FILE* stream) {
  gOutput.store(stream);
}

FILE* standardError() {
  FILE* stream = gError.load();
  return stream ? stream : stderr;
}
void setStandardError(FILE* stream) {
  gError.store(stream);
}

void printToOutput(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  print(LogLevel::kDebug, standardOutput(), format, arguments);
  va_end(arguments);
}

void printToOutput(LogLevel level, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  print(level, standardOutput(), format, arguments);
  va_end(arguments);
}

void printToError(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  print(LogLevel::kDebug, standardError(), format, arguments);
  va_end(arguments);
}

void printToError(LogLevel level, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  print(level, standardError(), format, arguments);
  va_end(arguments);
}

}  // namespace vesk
