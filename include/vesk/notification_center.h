#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <vesk/export.h>

namespace vesk {

/// What a notification says beyond its name: values by key.
using NotificationInfo = std::map<std::string, std::any>;

/// A notification on its way; valid while the handler runs.
struct NSNotification {
  const std::string& name;
  void* object;  ///< whom it is about, as given by the poster; null when about nobody
  const NotificationInfo& userInfo;

  /// The value under `key`; null when there is none of that type.
  template <class T>
  const T* value(const std::string& key) const {
    const auto found = userInfo.find(key);
    return found == userInfo.end() ? nullptr : std::any_cast<T>(&found->second);
  }
};

/// An observer's registration; empty when it was moved away or removed. Letting it go removes the
/// observer, with the rules of NSNotificationCenter::removeObserver.
class VESK_EXPORT NSNotificationObserver {
 public:
  NSNotificationObserver() = default;
  NSNotificationObserver(NSNotificationObserver&&) noexcept = default;
  NSNotificationObserver& operator=(NSNotificationObserver&& other) noexcept;
  ~NSNotificationObserver();

  explicit operator bool() const { return mRegistration != nullptr; }

 private:
  friend class NSNotificationCenter;
  struct VESK_LOCAL Registration;
  explicit NSNotificationObserver(std::shared_ptr<Registration> registration);

  std::shared_ptr<Registration> mRegistration;
};

/// Tells observers of what happened, by name.
///
/// Threads: every operation from any thread, also from inside a handler.
class VESK_EXPORT NSNotificationCenter {
 public:
  using Handler = std::function<void(const NSNotification& notification)>;

  /// The centre of the process.
  static NSNotificationCenter& defaultCenter();

  /// Calls `handler` for every notification of that name posted from now on, for as long as the
  /// answer is kept.
  [[nodiscard]] NSNotificationObserver addObserver(const std::string& name, Handler handler);

  /// Ends a registration. Once it has returned the handler is not called any more: a call under way
  /// on another thread is waited for, so hold no lock that the handler takes. Two cases do not wait:
  /// a handler that removes itself, and two handlers on two threads that remove each other.
  void removeObserver(NSNotificationObserver& observer);

  /// Calls the observers of `name` one after the other on this thread, in the order in which they
  /// were added, and returns when all are done. What a handler throws is logged.
  void postNotificationName(const std::string& name, void* object = nullptr, const NotificationInfo& userInfo = {});

  NSNotificationCenter();
  ~NSNotificationCenter();
  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;

 private:
  friend class NSNotificationObserver;
  struct VESK_LOCAL State;
  std::shared_ptr<State> mState;  ///< shared with the registrations, which may outlive the centre
};

}  // namespace vesk
