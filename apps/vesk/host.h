#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vesk/device_info.h>
#include <vesk/notification_center.h>
#include "apps/vesk/output.h"
#include "apps/vesk/program.h"
#include "apps/vesk/signals.h"

namespace vesk::program {

/// Makes this process a host of the library for one command: chooses the capture source, keeps the
/// library's lines off the results, and starts the device manager. Undone when it goes.
class Host {
 public:
  /// @throws Failure when the capture source cannot be set up.
  explicit Host(const GlobalOptions& options);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
};

/// The program's main loop: serves the library's main queue and ends on Ctrl-C, SIGTERM or a hang-up.
/// One at a time.
///
/// Threads: stop and post from any thread, the rest from the main thread.
class MainLoop {
 public:
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Runs until stop is called or the end is asked for. A second signal ends the program at once.
  void run();
  void stop();
  /// Runs until `isDone`, which is asked after each stop; being asked for the end, or the end of the time
  /// where one is given, ends it too. @return whether it was done
  bool runUntil(const std::function<bool()>& isDone, std::optional<std::chrono::milliseconds> longest = {});
  /// Runs until `isDone`, which is asked after each stop, whoever asks for the end meanwhile: what was begun is
  /// finished. A second signal ends the program at once.
  void finish(const std::function<bool()>& isDone);
  /// Runs `work` on the main thread every `interval` for as long as the loop lives.
  void every(std::chrono::milliseconds interval, std::function<void()> work);
  /// Runs `work` once on the main thread.
  void post(std::function<void()> work);
  /// From now on the end is also asked for by whoever reads standard output, by going away.
  void endWithReader();
  /// Whether a signal has asked for the end.
  bool wasInterrupted() const;

 private:
  bool isEnding() const;

  const std::shared_ptr<GMainLoop> mLoop;  ///< held by what is posted too, which may run after this is gone
  std::vector<guint> mSources;
  bool mIsReaderGone = false;
  std::optional<SignalAttendant> mAttendant;
};

/// Calls a handler with the record of each device that a notification of the manager is about, for as
/// long as it lives. The handler runs on the capture source's thread.
class DeviceWatch {
 public:
  DeviceWatch(const char* notification, std::function<void(std::shared_ptr<VeskDeviceInfo>)> handler);

 private:
  NSNotificationObserver mObserver;
};

/// Sends the library's lines to standard error, above a progress line that is being shown: with --verbose as
/// they are, else as LogLines has them.
void setUpLogLines(bool verbose);

}  // namespace vesk::program
