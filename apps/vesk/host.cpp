#include "apps/vesk/host.h"

#include <fmt/core.h>
#include <glib-unix.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/log.h>
#include "apps/vesk/log_lines.h"
#include "platform/foundation/mutex.h"

namespace vesk::program {
namespace {

bool gVerbose = false;

struct ShownLines {
  Mutex mutex;
  LogLines lines VESK_GUARDED_BY(mutex);
};

ShownLines gShown;

/// Lines that are kept back while a device is being opened or started.
struct HeldLines {
  Mutex mutex;
  bool isHolding VESK_GUARDED_BY(mutex) = false;
  std::vector<std::string> lines VESK_GUARDED_BY(mutex);
};

HeldLines gHeld;

bool keepBack(std::string_view line) {
  const MutexLock lock(gHeld.mutex);
  if (gHeld.isHolding) gHeld.lines.emplace_back(line);
  return gHeld.isHolding;
}

void hold() {
  const MutexLock lock(gHeld.mutex);
  gHeld.isHolding = true;
}

/// Whether the line is about a device and no routine one, which --verbose lets through.
bool explains(const std::string& line, const std::string& name) {
  return LogLines::isForPeople(line) && line.find(name) != std::string::npos;
}

std::vector<std::string> letGo() {
  const MutexLock lock(gHeld.mutex);
  gHeld.isHolding = false;
  return std::exchange(gHeld.lines, {});
}

/// The failure in the words of a line of the library's: the first sentence says what, the rest what to do.
Failure reworded(const Failure& failure, std::string line) {
  constexpr std::string_view kWarning = "[WARNING]: ";
  if (line.starts_with(kWarning)) line.erase(0, kWarning.size());
  if (line.starts_with("The ")) line[0] = 't';
  if (line.back() != '.') line += '.';
  const size_t end = line.find(". ");
  if (end == std::string::npos) return {failure.status, line, failure.hint};
  return {failure.status, line.substr(0, end + 1), line.substr(end + 2)};
}

void showLine(std::string_view line) {
  while (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (line.empty() || (!gVerbose && !LogLines::isForPeople(line))) return;
  if (keepBack(line)) return;
  if (gVerbose) return writeLine(line);
  const MutexLock lock(gShown.mutex);
  if (const auto words = gShown.lines.take(line, LogLines::Clock::now())) writeLine(*words);
}

void showCounts() {
  const MutexLock lock(gShown.mutex);
  for (const std::string& line : gShown.lines.counts()) writeLine(line);
}

/// The write function of the stream that the library is given in place of standard output: the
/// library writes a line at a time.
ssize_t writeLines(void* /*cookie*/, const char* bytes, size_t size) {
  std::string_view text(bytes, size);
  while (!text.empty()) {
    const size_t end = text.find('\n');
    showLine(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return static_cast<ssize_t>(size);
}

FILE* lineStream() {
  static FILE* const stream = [] {
    FILE* made = fopencookie(nullptr, "w", {nullptr, writeLines, nullptr, nullptr});
    if (made) setvbuf(made, nullptr, _IOLBF, 4096);
    return made ? made : stderr;
  }();
  return stream;
}

}  // namespace

void setUpLogLines(bool verbose) {
  gVerbose = verbose;
  setStandardOutput(lineStream());
  setStandardError(lineStream());
  setLogSink(showLine);
}

void explained(const std::vector<std::string>& names, const std::function<void()>& work) {
  hold();
  try {
    work();
  } catch (const Failure& failure) {
    const std::vector<std::string> lines = letGo();
    const auto reason = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return explains(line, name); });
    });
    if (reason != lines.end()) throw reworded(failure, *reason);
    for (const std::string& line : lines) showLine(line);
    throw;
  } catch (...) {
    letGo();
    throw;
  }
  for (const std::string& line : letGo()) showLine(line);
}

bool hasBeenExplained(const std::string& name) {
  const MutexLock lock(gHeld.mutex);
  return std::any_of(gHeld.lines.begin(), gHeld.lines.end(),
                     [&](const std::string& line) { return explains(line, name); });
}

Host::Host(const GlobalOptions& options) {
  setUpLogLines(options.verbose);
  std::string source = options.capture;
  if (source.empty()) {
    const char* const environment = std::getenv("VESK_CAPTURE");
    source = environment && *environment ? environment : capture::kDefaultSource;
  }
  const capture::SourceOptions sourceOptions{options.pace == "fast" ? capture::Pace::kFast : capture::Pace::kRealTime,
                                             options.loop};
  if (const Error error = capture::selectSource(source, sourceOptions)) throw Failure(kNoSuchDevice, error);
  VeskDeviceManager::getSharedInstance();
}

Host::~Host() {
  VeskDeviceManager::destroy();
  showCounts();
}

DeviceWatch::DeviceWatch(const char* notification, std::function<void(std::shared_ptr<VeskDeviceInfo>)> handler)
    : mObserver(NSNotificationCenter::defaultCenter().addObserver(
          notification, [key = std::string(notification), handler = std::move(handler)](const NSNotification& posted) {
            if (const auto* info = posted.value<std::shared_ptr<VeskDeviceInfo>>(key)) handler(*info);
          })) {}

MainLoop::MainLoop() : mLoop(g_main_loop_new(nullptr, FALSE), &g_main_loop_unref) {
  mAttendant.emplace([this] { stop(); });
}

MainLoop::~MainLoop() {
  mAttendant.reset();
  for (const guint source : mSources) g_source_remove(source);
}

bool MainLoop::wasInterrupted() const {
  return isEndAsked();
}

bool MainLoop::isEnding() const {
  return wasInterrupted() || mIsReaderGone;
}

void MainLoop::endWithReader() {
  // A pipe or socket without a reader tells so at once, not only when it is written to.
  mSources.push_back(g_unix_fd_add(
      STDOUT_FILENO, G_IO_ERR,
      [](int, GIOCondition, void* data) -> gboolean {
        auto* const loop = static_cast<MainLoop*>(data);
        loop->mIsReaderGone = true;
        g_main_loop_quit(loop->mLoop.get());
        return G_SOURCE_CONTINUE;
      },
      this));
}

void MainLoop::run() {
  if (!isEnding()) g_main_loop_run(mLoop.get());
}

bool MainLoop::runUntil(const std::function<bool()>& isDone, std::optional<std::chrono::milliseconds> longest) {
  bool isLate = false;
  std::pair<GMainLoop*, bool*> end{mLoop.get(), &isLate};
  const guint timer = longest ? g_timeout_add(
                                    static_cast<guint>(longest->count()),
                                    [](void* data) -> gboolean {
                                      auto& [loop, late] = *static_cast<std::pair<GMainLoop*, bool*>*>(data);
                                      *late = true;
                                      g_main_loop_quit(loop);
                                      return G_SOURCE_CONTINUE;
                                    },
                                    &end)
                              : 0;
  while (!isEnding() && !isLate && !isDone()) g_main_loop_run(mLoop.get());
  if (timer != 0) g_source_remove(timer);
  return isDone();
}

void MainLoop::stop() {
  // Through the loop itself, so that a stop that comes before run() is not lost.
  post([loop = mLoop] { g_main_loop_quit(loop.get()); });
}

void MainLoop::every(std::chrono::milliseconds interval, std::function<void()> work) {
  mSources.push_back(g_timeout_add_full(
      G_PRIORITY_DEFAULT, static_cast<guint>(interval.count()),
      [](void* data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_CONTINUE;
      },
      new std::function<void()>(std::move(work)),
      [](void* data) { delete static_cast<std::function<void()>*>(data); }));
}

void MainLoop::post(std::function<void()> work) {
  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](void* data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(work)), [](void* data) { delete static_cast<std::function<void()>*>(data); });
}

}  // namespace vesk::program
