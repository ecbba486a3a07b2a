#include "apps/vesk/output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>

#include <vesk/printable_text.h>
#include "apps/vesk/signals.h"

namespace vesk::program {
namespace {

using std::chrono::milliseconds;

/// A pipe that has room takes so much without a wait (PIPE_BUF).
constexpr size_t kPiece = 4096;
constexpr milliseconds kLook{100};
/// How long a slow reader of results is waited for once a signal has asked for the end.
constexpr milliseconds kLastWait{1000};

std::atomic<bool> gProgressOnScreen{false};
/// Standard error has let one line wait too long: the next ones do not wait until it takes one.
std::atomic<bool> gIsErrorStuck{false};
std::atomic<int> gMissing{0};

bool hasRoom(int stream, milliseconds longest) {
  pollfd room{stream, POLLOUT, 0};
  return poll(&room, 1, static_cast<int>(longest.count())) > 0;
}

/// Writes all of it. `goesOn` is asked each time that the stream has taken nothing for a while.
/// @return 0 or errno; EAGAIN when it was given up
template <class GoesOn>
int writeAll(int stream, std::string_view text, milliseconds look, GoesOn goesOn) {
  while (!text.empty()) {
    if (!hasRoom(stream, look)) {
      if (!goesOn()) return EAGAIN;
      continue;
    }
    const ssize_t written = write(stream, text.data(), std::min(text.size(), kPiece));
    if (written > 0)
      text.remove_prefix(static_cast<size_t>(written));
    else if (written < 0 && errno != EINTR && errno != EAGAIN)
      return errno;
  }
  return 0;
}

void writeToError(std::string_view text) {
  const milliseconds look = gIsErrorStuck ? milliseconds{0} : kLook;
  gIsErrorStuck = writeAll(STDERR_FILENO, text, look, [] { return false; }) == EAGAIN;
}

}  // namespace

void openMissingStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) != -1 || errno != EBADF) continue;
    // The other way round: what is written there fails as before. The lowest free number is this one.
    open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void writeResult(std::string_view text) {
  milliseconds waited{0};
  const int error = writeAll(STDOUT_FILENO, text, kLook, [&waited] {
    if (isEndAsked()) waited += kLook;
    return waited < kLastWait;
  });
  int none = 0;
  if (error != 0 && error != EPIPE) gMissing.compare_exchange_strong(none, error);
}

void writeResultLine(std::string_view line) {
  writeResult(printableText(line) + "\n");
}

void writeLine(std::string_view line) {
  const char* const clear = gProgressOnScreen.exchange(false) ? "\r\033[K" : "";
  writeToError(clear + printableText(line) + "\n");
}

int missingResults() {
  return gMissing;
}

ProgressLine::ProgressLine() : mIsTerminal(isatty(STDERR_FILENO) == 1) {}

ProgressLine::~ProgressLine() {
  clear();
}

void ProgressLine::show(std::string_view text) {
  if (!mIsTerminal || !hasRoom(STDERR_FILENO, milliseconds{0})) return;  // held by Ctrl-S: it shows the next one
  writeToError("\r\033[K" + printableText(text));
  gProgressOnScreen = true;
}

void ProgressLine::clear() {
  if (gProgressOnScreen.exchange(false)) writeToError("\r\033[K");
}

}  // namespace vesk::program
