#include "devices/delegate_list.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include <vesk/dispatch_queue.h>
#include <vesk/log.h>

namespace vesk {
namespace {

/// Nothing that a host's delegate throws may unwind through the capture library.
template <class Call>
void callDelegate(const Call& call) {
  try {
    call();
  } catch (const std::exception& error) {
    NSLog(LogLevel::kError, std::string("a device's delegate threw: ") + error.what());
  } catch (...) {
    NSLog(LogLevel::kError, "a device's delegate threw");
  }
}

/// The same object when it takes levels, else null.
std::shared_ptr<VeskMicLevelDelegate> micLevelDelegate(const std::shared_ptr<VeskAVDeviceDelegate>& delegate) {
  return std::dynamic_pointer_cast<VeskMicLevelDelegate>(delegate);
}

}  // namespace

VeskDeviceDelegates::~VeskDeviceDelegates() = default;

size_t DelegateList::size() const {
  const RecursiveMutexLock lock(mLock);
  return mDelegates.size();
}

void DelegateList::add(std::shared_ptr<VeskAVDeviceDelegate> delegate) {
  if (!delegate) return;
  const RecursiveMutexLock lock(mLock);
  mDelegates.push_back(std::move(delegate));
}

void DelegateList::remove(const VeskAVDeviceDelegate* delegate) {
  // The last reference may go with these: let that happen outside the lock.
  Delegates removed;
  {
    const RecursiveMutexLock lock(mLock);
    const auto isAnother = [delegate](const auto& each) { return each.get() != delegate; };
    const auto first = std::stable_partition(mDelegates.begin(), mDelegates.end(), isAnother);
    removed.assign(std::make_move_iterator(first), std::make_move_iterator(mDelegates.end()));
    mDelegates.erase(first, mDelegates.end());
  }
  // Those that take no levels need not wait for a level that another delegate is being handed.
  if (!removed.empty() && micLevelDelegate(removed.front())) {
    const RecursiveMutexLock levelHasEnded(mLevelLock);
  }
}

void DelegateList::clear() {
  Delegates removed;
  const RecursiveMutexLock lock(mLock);
  removed.swap(mDelegates);
}

void DelegateList::deliver(void* frame, uint32_t length, int64_t timestamp) {
  const auto self = shared_from_this();
  const RecursiveMutexLock lock(mLock);
  // By index and with a reference of its own: a delegate may change the list after all.
  for (size_t i = 0; i < mDelegates.size(); ++i) {
    const auto delegate = mDelegates[i];
    callDelegate([&] { delegate->didCaptureFrame(frame, length, timestamp, mInfo); });
  }
}

void DelegateList::deliverMicLevel(float level) {
  const RecursiveMutexLock levels(mLevelLock);
  Delegates delegates;
  {
    const RecursiveMutexLock lock(mLock);
    delegates = mDelegates;
  }
  for (const auto& each : delegates) {
    const auto delegate = micLevelDelegate(each);
    if (delegate && isThere(each.get())) callDelegate([&] { delegate->didMicLevelEventOccured(level); });
  }
}

void DelegateList::queueMicLevel(float level, const std::shared_ptr<const std::atomic<bool>>& isCurrent) {
  const auto mainQueue = DispatchQueue::mainQueue();
  const RecursiveMutexLock lock(mLock);
  for (const auto& each : mDelegates) {
    if (!micLevelDelegate(each)) continue;
    mainQueue->async([list = shared_from_this(), delegate = each, level, isCurrent] {
      list->deliverQueuedMicLevel(delegate, level, *isCurrent);
    });
  }
}

bool DelegateList::isThere(const VeskAVDeviceDelegate* delegate) {
  const RecursiveMutexLock lock(mLock);
  return std::any_of(mDelegates.begin(), mDelegates.end(),
                     [delegate](const auto& each) { return each.get() == delegate; });
}

void DelegateList::deliverQueuedMicLevel(const std::shared_ptr<VeskAVDeviceDelegate>& delegate, float level,
                                         const std::atomic<bool>& isCurrent) {
  const RecursiveMutexLock levels(mLevelLock);  // before the look: a removal after it waits for this level
  if (isThere(delegate.get()) && isCurrent)
    callDelegate([&] { micLevelDelegate(delegate)->didMicLevelEventOccured(level); });
}

}  // namespace vesk
