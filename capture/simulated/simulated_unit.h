#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <utility>

#include <vesk/capture_source.h>
#include "capture/simulated/simulated_model.h"
#include "capture/simulated/simulated_properties.h"
#include "capture/simulated/simulated_sound.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A simulated camera or microphone as it stands on the desk: what its open handles share. Unplugged
/// it is gone for good; plugged in again it is a new one.
///
/// Threads: every operation from any thread.
class SimulatedUnit {
 public:
  SimulatedUnit(DeviceDescription description, bool isPlain)
      : mDescription(std::move(description)),
        mIsPlain(isPlain),
        mProperties(isPlain ? SimulatedModel::plain() : SimulatedModel()) {}

  const DeviceDescription& description() const { return mDescription; }
  /// The simpler model of its kind.
  bool isPlain() const { return mIsPlain; }
  SoundLevel& level() { return mLevel; }
  SimulatedProperties& properties() { return mProperties; }

  SimulatedFaults faults() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mFaults;
  }
  void setFaults(const SimulatedFaults& faults) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mFaults = faults;
  }

  bool isAttached() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mIsAttached;
  }
  /// From now on calls fail.
  void detach() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mIsAttached = false;
  }
  /// From now on nothing comes.
  void endStreams() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mHasEnded = true;
  }

  /// Takes the unit for one handle's capture; false when another has it. Microphones are shared.
  bool occupy() VESK_EXCLUDES(mMutex);
  void vacate() VESK_EXCLUDES(mMutex);

  /// Whether nothing comes at present: stalled or gone.
  bool isSilent() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mFaults.isStalled || mHasEnded;
  }
  void requestKeyFrame() { mIsKeyRequested.store(true, std::memory_order_relaxed); }
  /// Whether a key frame was asked for since the last call.
  bool takeKeyRequest() { return mIsKeyRequested.exchange(false, std::memory_order_relaxed); }
  /// Hands a frame or packet to `callback` with the faults that are set for it.
  void deliver(const FrameCallback& callback, std::span<uint8_t> bytes, int64_t timestamp) VESK_EXCLUDES(mMutex);

 private:
  const DeviceDescription mDescription;
  const bool mIsPlain;
  SoundLevel mLevel;
  SimulatedProperties mProperties;
  std::atomic<bool> mIsKeyRequested{false};
  Mutex mMutex;
  SimulatedFaults mFaults VESK_GUARDED_BY(mMutex);
  bool mIsAttached VESK_GUARDED_BY(mMutex) = true;
  bool mHasEnded VESK_GUARDED_BY(mMutex) = false;
  bool mIsOccupied VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk::capture
