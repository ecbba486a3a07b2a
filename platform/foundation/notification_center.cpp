#include <vesk/notification_center.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <vesk/log.h>
#include "platform/foundation/mutex.h"

namespace vesk {

struct NSNotificationObserver::Registration {
  std::shared_ptr<NSNotificationCenter::State> state;
  std::string name;
  NSNotificationCenter::Handler handler;
  // Guarded by the state's mutex:
  bool removed = false;
  std::vector<std::thread::id> callers;  ///< threads inside the handler, one entry for each call
};

struct NSNotificationCenter::State {
  using Registration = NSNotificationObserver::Registration;

  Mutex mutex;
  std::condition_variable_any callEnded;
  /// In order of registration.
  std::vector<std::shared_ptr<Registration>> observers VESK_GUARDED_BY(mutex);
  /// Which registration's calls a thread is waiting for.
  std::unordered_map<std::thread::id, const Registration*> waiting VESK_GUARDED_BY(mutex);

  std::vector<std::shared_ptr<Registration>> observersOf(const std::string& name) {
    MutexLock lock(mutex);
    std::vector<std::shared_ptr<Registration>> found;
    std::copy_if(observers.begin(), observers.end(), std::back_inserter(found),
                 [&](const auto& each) { return each->name == name; });
    return found;
  }

  /// Whether the handler may be called; the call then counts until endCall.
  bool beginCall(Registration& registration) {
    MutexLock lock(mutex);
    if (registration.removed) return false;
    registration.callers.push_back(std::this_thread::get_id());
    return true;
  }

  void endCall(Registration& registration) {
    MutexLock lock(mutex);
    auto& callers = registration.callers;
    callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
    callEnded.notify_all();
  }

  void remove(Registration& registration) {
    MutexLock lock(mutex);
    registration.removed = true;
    std::erase_if(observers, [&](const auto& each) { return each.get() == &registration; });
    const auto me = std::this_thread::get_id();
    while (!registration.callers.empty() && !waitsFor(registration, me, 0)) {
      waiting[me] = &registration;
      callEnded.wait(mutex);
      waiting.erase(me);
    }
  }

  /// Whether the calls under way in `registration` cannot end before thread `me` goes on.
  bool waitsFor(const Registration& registration, std::thread::id me, size_t depth) VESK_REQUIRES(mutex) {
    for (const std::thread::id caller : registration.callers) {
      if (caller == me) return true;
      const auto next = waiting.find(caller);
      if (next != waiting.end() && depth < waiting.size() && waitsFor(*next->second, me, depth + 1)) return true;
    }
    return false;
  }
};

NSNotificationObserver::NSNotificationObserver(std::shared_ptr<Registration> registration)
    : mRegistration(std::move(registration)) {}

NSNotificationObserver& NSNotificationObserver::operator=(NSNotificationObserver&& other) noexcept {
  NSNotificationObserver old(std::move(*this));
  mRegistration = std::move(other.mRegistration);
  return *this;
}

NSNotificationObserver::~NSNotificationObserver() {
  if (mRegistration) mRegistration->state->remove(*mRegistration);
}

NSNotificationCenter::NSNotificationCenter() : mState(std::make_shared<State>()) {}

NSNotificationCenter::~NSNotificationCenter() = default;

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  // Never destroyed: observers may outlive a host's static objects.
  static auto* const center = new NSNotificationCenter();
  return *center;
}

NSNotificationObserver NSNotificationCenter::addObserver(const std::string& name, Handler handler) {
  auto registration = std::make_shared<NSNotificationObserver::Registration>();
  registration->state = mState;
  registration->name = name;
  registration->handler = std::move(handler);
  MutexLock lock(mState->mutex);
  mState->observers.push_back(registration);
  return NSNotificationObserver(std::move(registration));
}

void NSNotificationCenter::removeObserver(NSNotificationObserver& observer) {
  observer = NSNotificationObserver();
}

void NSNotificationCenter::postNotificationName(const std::string& name, void* object,
                                                const NotificationInfo& userInfo) {
  const NSNotification notification{name, object, userInfo};
  for (const auto& observer : mState->observersOf(name)) {
    if (!mState->beginCall(*observer)) continue;
    try {
      observer->handler(notification);
    } catch (const std::exception& error) {
      NSLog(LogLevel::kError, "An observer of " + name + " failed: " + error.what());
    } catch (...) {
      NSLog(LogLevel::kError, "An observer of " + name + " failed");
    }
    mState->endCall(*observer);
  }
}

}  // namespace vesk
