#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <vesk/vci.h>
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// The streams of one device: the last may be running; those before it were stopped from inside their
/// receiver's call, and are kept until their threads can be waited for.
///
/// Threads: start one at a time, the rest from any thread.
/// @param Stream a StreamThread
template <class Stream>
class DeviceStreams {
 public:
  /// Starts a stream unless one is running. `make(status)` answers it, or null with its status.
  template <class Make>
  int32_t start(const Make& make) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);  // the first call of the receiver may stop what it does not yet see here: it waits
    if (mIsRunning && !mStreams.back()->isFinished()) return kVCISuccess;
    mStreams.reserve(mStreams.size() + 1);
    int32_t status = kVCIFailed;
    auto stream = make(status);
    if (!stream) return status;
    mStreams.push_back(std::move(stream));
    mIsRunning = true;
    return kVCISuccess;
  }

  /// Stops what runs and waits for what was stopped before, but for a stream inside whose receiver this is
  /// called.
  void end() VESK_EXCLUDES(mMutex) {
    std::vector<std::shared_ptr<Stream>> streams;
    bool wasRunning = false;
    {
      MutexLock lock(mMutex);
      streams = mStreams;
      wasRunning = std::exchange(mIsRunning, false);
    }
    if (wasRunning) streams.back()->stop();
    for (const auto& stream : streams) stream->wait();
    MutexLock lock(mMutex);
    const auto kept = mStreams.empty() ? nullptr : mStreams.back();
    std::erase_if(mStreams, [&](const auto& stream) { return stream != kept && stream->isFinished(); });
  }

  /// The present or last stream; null before the first.
  std::shared_ptr<Stream> last() const VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mStreams.empty() ? nullptr : mStreams.back();
  }

 private:
  mutable Mutex mMutex;
  std::vector<std::shared_ptr<Stream>> mStreams VESK_GUARDED_BY(mMutex);
  bool mIsRunning VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk::capture
