#include "platform/foundation/log.h"

#include <atomic>
#include <cstdarg>
#include <utility>

#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

Mutex gSinkMutex;
std::function<void(std::string_view)> gSink VESK_GUARDED_BY(gSinkMutex);
std::atomic<FILE*> gOutput{nullptr};
std::atomic<FILE*> gError{nullptr};

void print(FILE* stream, const char* format, va_list arguments) {
  std::vfprintf(stream, format, arguments);
  std::fflush(stream);
}

}  // namespace

void NSLog(std::string_view line) {
  MutexLock lock(gSinkMutex);
  if (gSink) {
    gSink(line);
    return;
  }
  std::fprintf(standardError(), "%.*s\n", static_cast<int>(line.size()), line.data());
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

void printToOutput(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print(standardOutput(), format, arguments);
  va_end(arguments);
}

void printToError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print(standardError(), format, arguments);
  va_end(arguments);
}

}  // namespace vesk
