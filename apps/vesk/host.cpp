#include "apps/vesk/host.h"

#include <fmt/core.h>
#include <glib-unix.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string_view>
#include <utility>

#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/log.h>
#include "apps/vesk/log_lines.h"

namespace vesk::program {
namespace {

bool gVerbose = false;

struct ShownLines {
  std::mutex mutex;  ///< guards what follows
  LogLines lines;
};

ShownLines& gShown = *new ShownLines;  // stays while the process ends: threads may still log

/// With --verbose all that there is; else what calls, outcomes and statistics do not report.
void showLine(LogLevel level, std::string_view line) {
  if (gVerbose) return writeLine(line);
  if (level == LogLevel::kDebug) return;
  const std::lock_guard lock(gShown.mutex);
  if (const auto shown = gShown.lines.take(line, LogLines::Clock::now())) writeLine(*shown);
}

void showCounts() {
  const std::lock_guard lock(gShown.mutex);
  for (const std::string& line : gShown.lines.counts()) writeLine(line);
}

}  // namespace

void setUpLogLines(bool verbose) {
  gVerbose = verbose;
  setLogSink(showLine);
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
  // A pipe or socket without a reader shows it at once, not only when it is written to.
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

void MainLoop::finish(const std::function<bool()>& isDone) {
  while (!isDone()) g_main_loop_run(mLoop.get());
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
