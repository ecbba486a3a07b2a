#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// How many callbacks of slots are running on this thread, one inside the other.
inline thread_local int tCallbackDepth = 0;
inline bool isInsideCallback() {
  return tCallbackDepth > 0;
}

/// A callback that may be replaced or taken away while other threads are calling it. Once set has
/// returned the callback of before does not run any more; only when set is called from inside a
/// call of this slot does it return at once, and that call is the last. A callback that is set where
/// there is none waits for nothing: what still runs took itself away from inside, and may be waiting
/// for whoever sets the new one.
///
/// Threads: every operation from any thread; the callback runs without a lock.
template <class... Arguments>
class CallbackSlot {
 public:
  using Callback = std::function<void(Arguments...)>;

  /// An empty callback takes the present one away.
  void set(Callback callback) VESK_EXCLUDES(mMutex) {
    auto next = callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
    MutexLock lock(mMutex);
    const bool isFirst = next && !mCallback;
    mCallback.swap(next);
    const uint64_t newest = ++mGeneration;
    if (isFirst || isCalledHere()) return;
    while (isOlderCallRunning(newest)) mReturned.wait(mMutex);
  }

  /// Runs the callback, if there is one, on the calling thread.
  void call(Arguments... arguments) VESK_EXCLUDES(mMutex) {
    const auto callback = enter();
    if (!callback) return;
    const Leave leave{*this};
    (*callback)(arguments...);
  }

  /// Whether the calling thread is inside a call of this slot.
  bool isInside() const VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return isCalledHere();
  }

 private:
  struct Call {
    std::thread::id thread;
    uint64_t generation;
  };
  struct Leave {
    CallbackSlot& slot;
    ~Leave() { slot.leave(); }
  };

  std::shared_ptr<const Callback> enter() {
    MutexLock lock(mMutex);
    if (!mCallback) return nullptr;
    mCalls.push_back({std::this_thread::get_id(), mGeneration});
    ++tCallbackDepth;
    return mCallback;
  }

  void leave() {
    MutexLock lock(mMutex);
    --tCallbackDepth;
    const auto own = std::find_if(mCalls.rbegin(), mCalls.rend(),
                                  [](const Call& call) { return call.thread == std::this_thread::get_id(); });
    mCalls.erase(std::next(own).base());
    mReturned.notify_all();
  }

  bool isCalledHere() const VESK_REQUIRES(mMutex) {
    return std::any_of(mCalls.begin(), mCalls.end(),
                       [](const Call& call) { return call.thread == std::this_thread::get_id(); });
  }
  bool isOlderCallRunning(uint64_t generation) const VESK_REQUIRES(mMutex) {
    return std::any_of(mCalls.begin(), mCalls.end(), [&](const Call& call) { return call.generation < generation; });
  }

  mutable Mutex mMutex;
  std::condition_variable_any mReturned;
  std::shared_ptr<const Callback> mCallback VESK_GUARDED_BY(mMutex);
  uint64_t mGeneration VESK_GUARDED_BY(mMutex) = 0;
  std::vector<Call> mCalls VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
