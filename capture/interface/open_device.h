#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/capture_source.h>
#include <vesk/vci.h>
#include "capture/interface/callback_slot.h"

namespace vesk::capture {

/// What an event carries; nothing when devices come and go.
struct Event {
  uint8_t* bytes = nullptr;
  uint32_t length = 0;
  int64_t timestamp = 0;
};
using EventSlot = CallbackSlot<const Event&>;

/// A device behind a handle. Keeps the source's rules for it: start and stop in turn, and of the other
/// calls one at a time; and the host's: calls from inside a frame callback never wait for that callback,
/// and a head's stop never waits for a camera that is slow to start.
///
/// Threads: every operation from any thread.
class OpenDevice {
 public:
  OpenDevice(DeviceKind kind, std::string name, std::shared_ptr<CaptureSource> source,
             std::unique_ptr<CaptureDevice> device);

  DeviceKind kind() const { return mKind; }
  const std::string& name() const { return mName; }
  /// The subscription to the device's frames.
  EventSlot& frames() { return *mFrames; }

  /// 0 also when the device has started already.
  int32_t start(uint32_t substream) VESK_EXCLUDES(mStateMutex);
  /// Once it has returned no callback runs, unless called from inside it. 0 also when stopped already.
  int32_t stop() VESK_EXCLUDES(mStateMutex);

  /// Sets the source's device up for the next start; kVCIInvalidHandle when it has been closed meanwhile.
  template <class Function>
  int32_t setUp(Function&& function) VESK_EXCLUDES(mStreamingMutex) {
    MutexLock lock(mStreamingMutex);
    return mDevice ? function(*mDevice) : int32_t{kVCIInvalidHandle};
  }

  /// Asks the source's device for its formats and properties, or sets a property, also while it is being
  /// set up, started or stopped; kVCIInvalidHandle when it has been closed meanwhile.
  template <class Function>
  int32_t control(Function&& function) VESK_EXCLUDES(mControlMutex) {
    MutexLock lock(mControlMutex);
    return mControlled ? function(*mControlled) : int32_t{kVCIInvalidHandle};
  }

  /// Stops the device for good and ends the subscription, also when another thread is doing the same.
  /// @return the source's device, to be destroyed before this, when no callback runs any more; null when it
  ///         was answered before
  std::shared_ptr<CaptureDevice> close();

 private:
  enum class State { kIdle, kStarting, kRunning, kStopping };

  bool isChanging() const VESK_REQUIRES(mStateMutex) {
    return mState == State::kStarting || mState == State::kStopping;
  }
  void setState(State state) VESK_EXCLUDES(mStateMutex);
  /// Ends the calls of a device that has stopped.
  void shutOut();
  int32_t startDevice(uint32_t substream) VESK_EXCLUDES(mStreamingMutex);
  int32_t stopDevice(uint32_t substream) VESK_EXCLUDES(mStreamingMutex);

  const DeviceKind mKind;
  const std::string mName;
  const std::shared_ptr<CaptureSource> mSource;  // outlives its device
  const std::shared_ptr<EventSlot> mFrames = std::make_shared<EventSlot>();

  Mutex mStateMutex;
  std::condition_variable_any mStateChanged;
  State mState VESK_GUARDED_BY(mStateMutex) = State::kIdle;
  uint32_t mSubstream VESK_GUARDED_BY(mStateMutex) = 0;  // of the last start
  bool mIsClosing VESK_GUARDED_BY(mStateMutex) = false;

  // Neither is held while waiting for a callback, nor one inside the other. Both guard the same device.
  Mutex mStreamingMutex;
  std::shared_ptr<CaptureDevice> mDevice VESK_GUARDED_BY(mStreamingMutex);
  Mutex mControlMutex;
  std::shared_ptr<CaptureDevice> mControlled VESK_GUARDED_BY(mControlMutex);
};

}  // namespace vesk::capture
