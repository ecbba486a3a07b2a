#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include <vesk/export.h>

namespace vesk {

/// Who is to see a line of the log.
enum class LogLevel : uint8_t {
  kError,    ///< something failed, and nothing else says so
  kWarning,  ///< film, sound or comfort may suffer
  kInfo,     ///< good to know
  kDebug,    ///< the ordinary course of things, and what calls, outcomes and statistics tell as well
};
/// "error", "warning", "info" or "debug".
VESK_EXPORT std::string_view logLevelName(LogLevel level);

/// Takes over every line that the library writes, which otherwise go to standard error and, some of them, to standard
/// output; an empty function gives them back. `setLogSink([](LogLevel, std::string_view) {});` silences the library.
///
/// The sink is called on the logging thread, one line at a time, each without its line break. What it makes the library
/// log on the same thread is lost. After the call has returned, the sink of before is not called any more, unless the
/// call came from inside it. Lines are for people: what a program needs to know, calls answer.
VESK_EXPORT void setLogSink(std::function<void(LogLevel level, std::string_view line)> sink);

/// Writes one line to the system log: standard error, or the sink that the host has set.
/// Safe from any thread; lines of different threads do not mix. The line is cleaned for people on its
/// way (printableText). A line that cannot be written, finds no room for a tenth of a second, or whose sink
/// throws, is lost without a word; a stream without a reader does not end the process by SIGPIPE.
VESK_EXPORT void NSLog(LogLevel level, std::string_view line) noexcept;
/// The same at LogLevel::kDebug.
VESK_EXPORT void NSLog(std::string_view line) noexcept;

/// Where the library's own lines for standard output go: stdout unless the host has set another.
VESK_EXPORT FILE* standardOutput();
/// Sends the library's lines for standard output to `stream`, which the caller keeps open for as
/// long as the library is used; null restores stdout.
VESK_EXPORT void setStandardOutput(FILE* stream);
/// Where the library's own lines for standard error go, with the same rules.
VESK_EXPORT FILE* standardError();
VESK_EXPORT void setStandardError(FILE* stream);

/// printf to standardOutput() and to standardError(), or to the sink that the host has set: one call, one write.
/// Cleaned as NSLog's lines are, but for the line breaks; what cannot be written is lost. Without a level: kDebug.
VESK_EXPORT void printToOutput(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));
VESK_EXPORT void printToOutput(LogLevel level, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
VESK_EXPORT void printToError(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));
VESK_EXPORT void printToError(LogLevel level, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

}  // namespace vesk
