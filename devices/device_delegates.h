#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <vesk/device_delegate.h>
#include <vesk/export.h>
#include "platform/foundation/mutex.h"

namespace vesk {

/// The delegates of one device in the order in which they were added, and the lock under which they
/// are called. Whoever walks them holds the lock:
///
///     const std::lock_guard lock(camera->delegates());
///     for (const auto& delegate : camera->delegates()) …
///
/// Threads: every operation from any thread. The lock is recursive, so it may be taken again, also
/// inside a delivery; while it is held nothing is delivered, so hold it briefly.
class VESK_EXPORT VeskDeviceDelegates {
 public:
  using Delegates = std::vector<std::shared_ptr<VeskAVDeviceDelegate>>;

  VeskDeviceDelegates(const VeskDeviceDelegates&) = delete;
  VeskDeviceDelegates& operator=(const VeskDeviceDelegates&) = delete;

  void lock() const VESK_NO_THREAD_SAFETY_ANALYSIS { mLock.lock(); }
  void unlock() const VESK_NO_THREAD_SAFETY_ANALYSIS { mLock.unlock(); }

  /// The caller holds the lock for as long as it uses the iterators.
  Delegates::const_iterator begin() const VESK_NO_THREAD_SAFETY_ANALYSIS { return mDelegates.begin(); }
  Delegates::const_iterator end() const VESK_NO_THREAD_SAFETY_ANALYSIS { return mDelegates.end(); }

  size_t size() const {
    const RecursiveMutexLock lock(mLock);
    return mDelegates.size();
  }
  bool empty() const { return size() == 0; }

 protected:
  VeskDeviceDelegates() = default;
  ~VeskDeviceDelegates() = default;

  mutable RecursiveMutex mLock;
  Delegates mDelegates VESK_GUARDED_BY(mLock);
};

}  // namespace vesk
