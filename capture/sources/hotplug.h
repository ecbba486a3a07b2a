#pragma once

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

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

/// Calls `announce(list, arrived)` for each device that went or came between two lists, with the list as it is
/// after that change alone. A subscriber compares its own list with the present one and finds one
/// change, so changes must come into the list one by one.
template <class Record, class IsSame, class Announce>
void announceOneByOne(const std::vector<Record>& before, const std::vector<Record>& now, const IsSame& isSame,
                      const Announce& announce) {
  const auto isAmong = [&](const std::vector<Record>& records, const Record& record) {
    return std::any_of(records.begin(), records.end(), [&](const Record& other) { return isSame(other, record); });
  };
  std::vector<Record> list = before;
  for (const Record& record : before) {
    if (isAmong(now, record)) continue;
    std::erase_if(list, [&](const Record& other) { return isSame(other, record); });
    announce(list, false);
  }
  for (const Record& record : now) {
    if (isAmong(before, record)) continue;
    list.push_back(record);
    std::vector<Record> inOrder = now;
    std::erase_if(inOrder, [&](const Record& other) { return !isAmong(list, other); });
    list = std::move(inOrder);
    announce(list, true);
  }
}

}  // namespace vesk::capture
