#pragma once

#include <chrono>
#include <memory>

#include <vesk/export.h>

namespace vesk {

/// Serves a thread's timers, events and main-queue work: GLib's default main context on the main
/// thread; elsewhere the thread's own default context, or, where none was pushed, one that belongs
/// to the loop.
///
/// Threads: a loop is run by its own thread only; stop comes from any thread. Runs may lie within
/// one another, and within a main loop of the host's.
class VESK_EXPORT NSRunLoop {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// The calling thread's loop.
  static std::shared_ptr<NSRunLoop> currentRunLoop();

  /// Serves the thread until `deadline`; when that is past, serves once what is ready. When another
  /// thread is serving the context, it is left to that thread and this one only waits.
  void runUntilDate(TimePoint deadline);

  /// Serves the thread until stop is called. A stop that came before ends the next run.
  void run();

  /// Ends the innermost run() of this loop, or the next one when none is under way. It has no effect
  /// on runUntilDate. Not for signal handlers: those wake a thread, or g_unix_signal_add serves.
  void stop();

  NSRunLoop();
  ~NSRunLoop();
  NSRunLoop(const NSRunLoop&) = delete;
  NSRunLoop& operator=(const NSRunLoop&) = delete;

 private:
  struct VESK_LOCAL State;
  std::unique_ptr<State> mState;
};

}  // namespace vesk
