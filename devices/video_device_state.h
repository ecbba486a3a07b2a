#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <vesk/dispatch_queue.h>
#include <vesk/video_device.h>
#include "devices/nudge_gate.h"
#include "platform/foundation/mutex.h"

namespace vesk {

/// What is left to the end of a camera's recordings.
enum class AfterRecording { kStayOn, kStop, kClose };

/// The recordings of one camera, and what was asked for while they run.
///
/// Threads: every operation from any thread.
class VESK_LOCAL RecordingsUnderWay {
 public:
  void begin() VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    ++mRecordings;
  }
  /// @return what to do now: nothing unless this was the last one.
  AfterRecording end() VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return --mRecordings == 0 ? std::exchange(mAfterwards, AfterRecording::kStayOn) : AfterRecording::kStayOn;
  }
  /// @return whether a recording is under way, which will do it when it ends.
  bool leave(AfterRecording action) VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    if (mRecordings == 0) return false;
    mAfterwards = std::max(mAfterwards, action);
    return true;
  }
  /// The camera was opened or started anew: at most `action` is left to the end.
  void leaveAtMost(AfterRecording action) VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mAfterwards = std::min(mAfterwards, action);
  }

 private:
  Mutex mMutex;
  int mRecordings VESK_GUARDED_BY(mMutex) = 0;
  AfterRecording mAfterwards VESK_GUARDED_BY(mMutex) = AfterRecording::kStayOn;
};

/// A number or none, for every thread; an atomic std::optional is not lock-free with every compiler.
class VESK_LOCAL Interval {
 public:
  std::optional<uint32_t> get() const {
    const int64_t value = mValue;
    return value < 0 ? std::nullopt : std::optional(static_cast<uint32_t>(value));
  }
  void set(std::optional<uint32_t> interval) { mValue = interval ? int64_t{*interval} : -1; }

 private:
  std::atomic<int64_t> mValue{-1};
};

struct VESK_LOCAL VeskVideoDevice::State {
  Interval mFrameinterval;
  Interval captureInterval;
  std::optional<std::vector<uint32_t>> mSupportedFrameIntervals;
  std::shared_ptr<const CMVideoFormatList> mSupportedFormats;
  std::atomic<uint32_t> mSubstream{0};  ///< of the capture under way: 1 for H.264
  CMVideoFormatDescriptionRef mFormat;
  int32_t stop = 0;  ///< 1 once nudges were told to stop; nothing reads it
  std::shared_ptr<DispatchQueue> _localQueue;
  NudgeGate nudgeGate;
  RecordingsUnderWay recordings;
};

}  // namespace vesk
