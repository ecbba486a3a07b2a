#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <vesk/device_delegate.h>
#include <vesk/export.h>
#include "platform/foundation/mutex.h"

namespace vesk {

/// The delegates of one device, and what changes and calls them.
///
/// The capture library is given the list and not the device as a callback's context: a delegate may let the
/// device go while it is being called, and the list holds itself until that delivery ends. The library calls
/// nobody after a subscription has ended, and devices end theirs before they go.
///
/// Threads: every operation from any thread. mLock is recursive and held for a whole delivery, so add
/// and remove wait for a delivery in progress on another thread. It is the outermost of the recording's
/// locks: a delegate may take its own inside. mLevelLock comes before it, since a host may change the list
/// inside a level, and is held alone while a level is delivered: neither frames nor who adds a delegate wait
/// for what a host does with it.
class VESK_LOCAL DelegateList final : public VeskDeviceDelegates, public std::enable_shared_from_this<DelegateList> {
 public:
  explicit DelegateList(std::shared_ptr<VeskDeviceInfo> info) : mInfo(std::move(info)) {}

  void lock() const override VESK_NO_THREAD_SAFETY_ANALYSIS { mLock.lock(); }
  void unlock() const override VESK_NO_THREAD_SAFETY_ANALYSIS { mLock.unlock(); }
  Delegates::const_iterator begin() const override VESK_NO_THREAD_SAFETY_ANALYSIS { return mDelegates.begin(); }
  Delegates::const_iterator end() const override VESK_NO_THREAD_SAFETY_ANALYSIS { return mDelegates.end(); }
  size_t size() const override VESK_EXCLUDES(mLock);

  /// Appends a delegate, which is held until it is removed; nothing for null. One that is added
  /// twice receives everything twice.
  void add(std::shared_ptr<VeskAVDeviceDelegate> delegate) VESK_EXCLUDES(mLock);
  /// Removes every entry of the delegate. Once it has returned the delegate receives nothing more.
  void remove(const VeskAVDeviceDelegate* delegate) VESK_EXCLUDES(mLock, mLevelLock);
  /// Removes all delegates: a delivery under way ends with the one that is being called.
  void clear() VESK_EXCLUDES(mLock);

  /// Hands one frame to every delegate in order. What a delegate throws is logged.
  void deliver(void* frame, uint32_t length, int64_t timestamp) VESK_EXCLUDES(mLock);
  /// Hands a microphone's level to every delegate that takes levels. The caller holds the list: a
  /// delegate may let the device go.
  void deliverMicLevel(float level) VESK_EXCLUDES(mLock, mLevelLock);
  /// The same on the main queue, without waiting: each delegate has work of its own there, which is
  /// left out once `isCurrent` holds false or the delegate has been removed.
  void queueMicLevel(float level, const std::shared_ptr<const std::atomic<bool>>& isCurrent) VESK_EXCLUDES(mLock);

 private:
  bool isThere(const VeskAVDeviceDelegate* delegate) VESK_EXCLUDES(mLock);
  void deliverQueuedMicLevel(const std::shared_ptr<VeskAVDeviceDelegate>& delegate, float level,
                             const std::atomic<bool>& isCurrent) VESK_EXCLUDES(mLock, mLevelLock);

  const std::shared_ptr<VeskDeviceInfo> mInfo;
  RecursiveMutex mLevelLock;
  mutable RecursiveMutex mLock;
  Delegates mDelegates VESK_GUARDED_BY(mLock);
};

}  // namespace vesk
