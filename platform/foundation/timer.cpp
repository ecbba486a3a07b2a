#include "platform/foundation/timer.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

/// The first beat after `now`.
Clock::time_point nextBeat(Clock::time_point due, microseconds interval, Clock::time_point now) {
  if (due + interval > now) return due + interval;
  return now + interval - (now - due) % interval;
}

}  // namespace

struct NSTimer::State : std::enable_shared_from_this<NSTimer::State> {
  State(microseconds timerInterval, bool repeating, Handler timerHandler)
      : interval(timerInterval), repeats(repeating), handler(std::move(timerHandler)) {}

  const microseconds interval;
  const bool repeats;
  const Handler handler;

  Mutex mutex;
  std::condition_variable_any callEnded;
  bool valid VESK_GUARDED_BY(mutex) = true;
  /// The thread inside the handler; none while it is not called.
  std::optional<std::thread::id> caller VESK_GUARDED_BY(mutex);

  /// The main queue keeps a weak reference only: a timer that was let go is not kept until its time.
  void schedule(Clock::time_point due) {
    const auto delay = std::chrono::ceil<microseconds>(due - Clock::now());
    DispatchQueue::mainQueue()->asyncAfter(delay, [weak = weak_from_this(), due] {
      if (const auto state = weak.lock()) state->fire(due);
    });
  }

  void fire(Clock::time_point due) {
    if (!beginCall()) return;
    try {
      handler();
    } catch (const std::exception& error) {
      NSLog(LogLevel::kError, std::string("A timer's handler failed: ") + error.what());
    } catch (...) {
      NSLog(LogLevel::kError, "A timer's handler failed");
    }
    if (endCall()) schedule(nextBeat(due, interval, Clock::now()));
  }

  bool beginCall() {
    MutexLock lock(mutex);
    if (!valid) return false;
    valid = repeats;
    caller = std::this_thread::get_id();
    return true;
  }

  /// @return whether it fires again.
  bool endCall() {
    MutexLock lock(mutex);
    caller.reset();
    callEnded.notify_all();
    return valid;
  }

  void invalidate() {
    MutexLock lock(mutex);
    valid = false;
    while (caller && *caller != std::this_thread::get_id()) callEnded.wait(mutex);
  }
};

NSTimer::NSTimer(std::shared_ptr<State> state) : mState(std::move(state)) {}

std::shared_ptr<NSTimer> NSTimer::scheduledTimer(microseconds interval, bool repeats, Handler handler) {
  const auto state = std::make_shared<State>(std::max(interval, microseconds(1)), repeats, std::move(handler));
  state->schedule(Clock::now() + state->interval);
  return std::shared_ptr<NSTimer>(new NSTimer(state));
}

void NSTimer::invalidate() {
  mState->invalidate();
}

bool NSTimer::isValid() const {
  MutexLock lock(mState->mutex);
  return mState->valid;
}

NSTimer::~NSTimer() {
  mState->invalidate();
}

}  // namespace vesk
