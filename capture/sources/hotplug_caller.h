#pragma once

#include <memory>
#include <utility>

#include <vesk/capture_source.h>
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// The hot-plug handler of a source, which may be replaced while the source's thread calls it. That call may
/// outlast the change: the capture interface sees to it that nobody is called who has ended a subscription.
///
/// Threads: every operation from any thread; the handler runs without a lock.
class HotplugCaller {
 public:
  void set(CaptureSource::HotplugHandler handler) VESK_EXCLUDES(mMutex) {
    auto next = handler ? std::make_shared<const CaptureSource::HotplugHandler>(std::move(handler)) : nullptr;
    MutexLock lock(mMutex);
    mHandler.swap(next);
  }

  void call(DeviceKind kind, bool arrived) VESK_EXCLUDES(mMutex) {
    if (const auto handler = current()) (*handler)(kind, arrived);
  }

 private:
  std::shared_ptr<const CaptureSource::HotplugHandler> current() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mHandler;
  }

  Mutex mMutex;
  std::shared_ptr<const CaptureSource::HotplugHandler> mHandler VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
