#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A slot that this thread is calling, and the one whose callback led to that.
struct CallInProgress {
  const void* slot;
  const CallInProgress* outer;
};
inline thread_local const CallInProgress* tInnermostCall = nullptr;

/// Whether this thread is inside a callback of any slot.
inline bool isInsideCallback() {
  return tInnermostCall != nullptr;
}

/// A callback that may be replaced, taken away or shut out while other threads are calling it: the one place
/// that keeps the promise "no callback after the end". What lies below it only joins its threads, and whoever
/// is called trusts it.
///
/// Once set has returned the callback of before does not run any more; only when set is called from inside a
/// call of this slot does it return at once, and that call is the last. A callback that is set where there is
/// none waits for nothing: what still runs took itself away from inside, and may be waiting for whoever sets
/// the new one.
///
/// Threads: every operation from any thread; the callback runs without a lock. A call takes the lock once.
template <class... Arguments>
class CallbackSlot {
 public:
  using Callback = std::function<void(Arguments...)>;

  /// An empty callback takes the present one away.
  void set(Callback callback) VESK_EXCLUDES(mMutex) {
    auto next = callback ? std::make_shared<Subscription>(std::move(callback)) : nullptr;
    uint64_t number = 0;
    {
      MutexLock lock(mMutex);
      number = ++mLastNumber;
      if (next) next->number = number;
      const bool isFirst = next && !mCurrent;
      if (mCurrent) {
        mCurrent->older = std::move(mEnded);
        mEnded = std::move(mCurrent);
      }
      mCurrent = std::move(next);
      if (isFirst) return;
    }
    waitForCallsBefore(number);
  }

  /// Whether calls reach the callback; they do unless they are shut out. Waits for nothing, see settle.
  void setOpen(bool isOpen) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mIsOpen = isOpen;
  }

  /// Waits for the calls under way on other threads, when no new ones begin. Returns at once from inside a
  /// call of this slot.
  void settle() VESK_EXCLUDES(mMutex) { waitForCallsBefore(UINT64_MAX); }

  /// Runs the callback, if there is one and it is not shut out, on the calling thread.
  void call(Arguments... arguments) VESK_EXCLUDES(mMutex) {
    std::shared_ptr<Subscription> subscription;
    {
      MutexLock lock(mMutex);
      if (!mCurrent || !mIsOpen) return;
      subscription = mCurrent;
      subscription->running.fetch_add(1, std::memory_order_relaxed);
    }
    const Inside inside{*this, *subscription};
    subscription->callback(arguments...);
  }

  /// Whether the calling thread is inside a call of this slot.
  bool isInside() const {
    const CallInProgress* call = tInnermostCall;
    while (call && call->slot != this) call = call->outer;
    return call != nullptr;
  }

 private:
  struct Subscription {
    explicit Subscription(Callback of) : callback(std::move(of)) {}
    const Callback callback;
    uint64_t number = 0;
    std::atomic<int> running{0};          ///< calls; begun under the slot's mutex, and none once it has ended
    std::shared_ptr<Subscription> older;  ///< that has ended too and was still running then
  };

  struct Inside : CallInProgress {
    Inside(const CallbackSlot& of, Subscription& called) : CallInProgress{&of, tInnermostCall}, subscription(called) {
      tInnermostCall = this;
    }
    ~Inside() {
      tInnermostCall = outer;
      subscription.running.fetch_sub(1, std::memory_order_release);
      subscription.running.notify_all();
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    Subscription& subscription;
  };

  void waitForCallsBefore(uint64_t number) VESK_EXCLUDES(mMutex) {
    while (const auto running = runningBefore(number)) {
      if (isInside()) return;
      while (const int calls = running->running.load(std::memory_order_acquire)) running->running.wait(calls);
    }
  }

  /// A subscription from before `number` that is being called; none when all such calls have returned.
  /// Forgets those that have ended and are not called any more.
  std::shared_ptr<Subscription> runningBefore(uint64_t number) VESK_EXCLUDES(mMutex) {
    std::shared_ptr<Subscription> forgotten;  // goes after the lock: a callback may hold anything
    MutexLock lock(mMutex);
    std::shared_ptr<Subscription> found;
    if (mCurrent && mCurrent->number < number && isRunning(*mCurrent)) found = mCurrent;
    for (std::shared_ptr<Subscription>* link = &mEnded; *link;) {
      if (isRunning(**link)) {
        if ((*link)->number < number) found = *link;
        link = &(*link)->older;
      } else {
        auto ended = std::move(*link);
        *link = std::move(ended->older);
        ended->older = std::move(forgotten);
        forgotten = std::move(ended);
      }
    }
    return found;
  }

  static bool isRunning(const Subscription& subscription) {
    return subscription.running.load(std::memory_order_acquire) != 0;
  }

  Mutex mMutex;
  std::shared_ptr<Subscription> mCurrent VESK_GUARDED_BY(mMutex);
  std::shared_ptr<Subscription> mEnded VESK_GUARDED_BY(mMutex);  ///< the newest; those before it behind it
  uint64_t mLastNumber VESK_GUARDED_BY(mMutex) = 0;
  bool mIsOpen VESK_GUARDED_BY(mMutex) = true;
};

}  // namespace vesk::capture
