#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>

#include "capture/callback_slot.h"
#include "capture/capture_source.h"
#include "capture/vci.h"

namespace vesk::capture {

/// What an event carries; nothing when devices come and go.
struct Event {
  uint8_t* bytes = nullptr;
  uint32_t length = 0;
  int64_t timestamp = 0;
};
using EventSlot = CallbackSlot<const Event&>;

/// A device behind a handle. Keeps the source's rules for it: one call at a time, start and stop in
/// turn; and the host's: calls from inside a frame callback never wait for that callback.
///
/// Threads: every operation from any thread.
class OpenDevice {
 public:
  OpenDevice(DeviceKind kind, std::shared_ptr<CaptureSource> source, std::unique_ptr<CaptureDevice> device);

  DeviceKind kind() const { return mKind; }
  /// The subscription to the device's frames.
  EventSlot& frames() { return *mFrames; }

  /// 0 also when the device has started already.
  int32_t start(uint32_t substream) VESK_EXCLUDES(mStateMutex);
  /// Once it has returned no callback runs, unless called from inside it. 0 also when stopped already.
  int32_t stop() VESK_EXCLUDES(mStateMutex);

  /// Calls the source's device; kVCIInvalidHandle when it has been closed meanwhile.
  template <class Function>
  int32_t call(Function&& function) VESK_EXCLUDES(mCallMutex) {
    MutexLock lock(mCallMutex);
    return mDevice ? function(*mDevice) : int32_t{kVCIInvalidHandle};
  }

  /// Stops the device and ends the subscription. What it answers must be destroyed by a thread that
  /// is not inside the device's callback.
  std::shared_ptr<void> close();

 private:
  enum class State { kIdle, kStarting, kRunning, kStopping };

  bool isChanging() const VESK_REQUIRES(mStateMutex) {
    return mState == State::kStarting || mState == State::kStopping;
  }
  void setState(State state) VESK_EXCLUDES(mStateMutex);
  int32_t startDevice(uint32_t substream) VESK_EXCLUDES(mCallMutex);
  int32_t stopDevice(uint32_t substream) VESK_EXCLUDES(mCallMutex);

  const DeviceKind mKind;
  const std::shared_ptr<CaptureSource> mSource;  // outlives its device
  const std::shared_ptr<EventSlot> mFrames = std::make_shared<EventSlot>();

  Mutex mStateMutex;
  std::condition_variable_any mStateChanged;
  State mState VESK_GUARDED_BY(mStateMutex) = State::kIdle;
  uint32_t mSubstream VESK_GUARDED_BY(mStateMutex) = 0;  // of the last start

  Mutex mCallMutex;  // never held while waiting for a callback
  std::shared_ptr<CaptureDevice> mDevice VESK_GUARDED_BY(mCallMutex);
};

}  // namespace vesk::capture
