#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vesk {

/// Calls a handler on the main thread (GLib's default main context), once or again and again.
class NSTimer {
 public:
  using Handler = std::function<void()>;

  /// A timer that fires `interval` from now and, when it `repeats`, every `interval` after that. The
  /// beat does not drift; firings that were missed are left out. Any thread may call this.
  static std::shared_ptr<NSTimer> scheduledTimer(std::chrono::microseconds interval, bool repeats, Handler handler);

  /// Ends the timer, from any thread. Once it has returned the handler is not called any more: a
  /// call under way on the main thread is waited for, unless this is called from inside it. So hold
  /// no lock that the handler takes.
  void invalidate();
  /// False once it was invalidated, and after the one firing of a timer that does not repeat.
  bool isValid() const;

  /// Invalidates.
  ~NSTimer();
  NSTimer(const NSTimer&) = delete;
  NSTimer& operator=(const NSTimer&) = delete;

 private:
  struct State;
  explicit NSTimer(std::shared_ptr<State> state);

  std::shared_ptr<State> mState;
};

}  // namespace vesk
