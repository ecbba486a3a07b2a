#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include <vesk/export.h>

namespace vesk {

/// Writes one line to the system log: standard error, or the sink that the host has set.
/// Safe from any thread; lines of different threads do not mix. The line is cleaned for people on its
/// way (printableText). A line that cannot be written, finds no room for a tenth of a second, or whose sink
/// throws, is lost without a word; a stream without a reader does not end the process by SIGPIPE.
VESK_EXPORT void NSLog(std::string_view line) noexcept;

/// Sends the lines of NSLog elsewhere; an empty function restores standard error. The sink is
/// called on the logging thread, one line at a time, and must not log itself.
VESK_EXPORT void setLogSink(std::function<void(std::string_view line)> sink);

/// Where the library's own lines for standard output go: stdout unless the host has set another.
VESK_EXPORT FILE* standardOutput();
/// Sends the library's lines for standard output to `stream`, which the caller keeps open for as
/// long as the library is used; null restores stdout.
VESK_EXPORT void setStandardOutput(FILE* stream);
/// Where the library's own lines for standard error go, with the same rules.
VESK_EXPORT FILE* standardError();
VESK_EXPORT void setStandardError(FILE* stream);

/// printf to standardOutput() and to standardError(): one call, one write. Cleaned as NSLog's lines are,
/// but for the line breaks; what cannot be written is lost.
VESK_EXPORT void printToOutput(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));
VESK_EXPORT void printToError(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

}  // namespace vesk
