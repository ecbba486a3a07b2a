#include "platform/foundation/log.h"

#include <atomic>
#include <cstdarg>
#include <exception>
#include <optional>
#include <utility>

#include "platform/foundation/mutex.h"
#include "platform/foundation/printable_text.h"

namespace vesk {
namespace {

Mutex gSinkMutex;
std::function<void(std::string_view)> gSink VESK_GUARDED_BY(gSinkMutex);
std::atomic<FILE*> gOutput{nullptr};
std::atomic<FILE*> gError{nullptr};

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

/// What cannot be written is lost: a line is never worth the caller's work.
void print(FILE* stream, const char* format, va_list arguments) noexcept try {
  const auto text = formatted(format, arguments);
  if (!text) return;
  const std::string printable = printableLines(*text);
  std::fwrite(printable.data(), 1, printable.size(), stream);
  std::fflush(stream);
} catch (const std::exception&) {
  // No memory for a line.
}

}  // namespace

void NSLog(std::string_view line) noexcept try {
  const std::string printable = printableText(line);
  MutexLock lock(gSinkMutex);
  if (gSink) {
    gSink(printable);
    return;
  }
  std::fprintf(standardError(), "%s\n", printable.c_str());
} catch (...) {
  // A sink that throws, or no memory for a line: logging never fails its caller.
}

void setLogSink(std::function<void(std::string_view)> sink) {
  MutexLock lock(gSinkMutex);
  gSink = std::move(sink);
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
  print(standardOutput(), format, arguments);
  va_end(arguments);
}

void printToError(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  print(standardError(), format, arguments);
  va_end(arguments);
}

}  // namespace vesk
