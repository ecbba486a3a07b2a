#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/foundation/mutex.h"
#include "platform/metering/power_meter.h"

namespace vesk {

/// One channel of the sound that flows through a connection.
class AVCaptureAudioChannel {
 public:
  AVCaptureAudioChannel(std::shared_ptr<const PowerMeter> meter, uint32_t channel)
      : mMeter(std::move(meter)), mChannel(channel) {}
  /// Decibels of full scale, kSilenceLevel at the least.
  float averagePowerLevel() const { return mMeter->averagePowerLevel(mChannel, PowerMeter::Clock::now()); }

 private:
  std::shared_ptr<const PowerMeter> mMeter;
  uint32_t mChannel;
};

/// The flow from a session's input to its output.
class AVCaptureConnection {
 public:
  explicit AVCaptureConnection(std::shared_ptr<PowerMeter> meter) : mMeter(std::move(meter)) {}
  std::vector<AVCaptureAudioChannel> audioChannels() const;
  PowerMeter& meter() { return *mMeter; }

 private:
  std::shared_ptr<PowerMeter> mMeter;
};

/// An output that would play what is captured. It never plays anything here: the volume is kept, and
/// its connections tell how loud the sound is.
///
/// Threads: every operation from any thread.
class AVCaptureAudioPreviewOutput {
 public:
  void setVolume(float volume) { mVolume = volume; }
  float volume() const { return mVolume; }
  /// One connection while the output's session has an input, else none.
  std::vector<std::shared_ptr<AVCaptureConnection>> connections() const VESK_EXCLUDES(mMutex);

  /// Set by the session.
  void setConnection(std::shared_ptr<AVCaptureConnection> connection) VESK_EXCLUDES(mMutex);

 private:
  std::atomic<float> mVolume{1.0F};
  mutable Mutex mMutex;
  std::shared_ptr<AVCaptureConnection> mConnection VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk
