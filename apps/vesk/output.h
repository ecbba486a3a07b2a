#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

namespace vesk::program {

// What the program writes: results to standard output, lines for people to standard error.
//
// Threads: results come from one thread at a time, lines from any. Nothing here throws for what cannot be
// written: a recording goes on with its terminal gone.

/// Opens what the program was started without of standard input, output and error, so that no other file
/// takes its number and is written into. Before anything else is opened.
void openMissingStreams();

/// Writes results whole, after what was written before; waits for a slow reader until a signal asks for
/// the end.
void writeResult(std::string_view text);
void writeResultLine(std::string_view line);
/// One line of results, cleaned for a terminal (printableText).
template <class... Arguments>
void printLine(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  writeResultLine(fmt::format(format, std::forward<Arguments>(arguments)...));
}

void writeLine(std::string_view line);
/// One line for a person on standard error, cleaned in the same way, below a progress line that is being
/// shown. A terminal or pipe that takes nothing loses it.
template <class... Arguments>
void reportLine(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  writeLine(fmt::format(format, std::forward<Arguments>(arguments)...));
}

/// Why results are missing on standard output: the first errno, or 0 while none are. A reader that went
/// away has what it wanted: what it did not read is not missing.
int missingResults();

/// A line on standard error that is written over in place; only on a terminal.
class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  /// Whether there is a terminal to show it on.
  bool isShown() const { return mIsTerminal; }
  void show(std::string_view text);
  void clear();

 private:
  bool mIsTerminal;
};

}  // namespace vesk::program
