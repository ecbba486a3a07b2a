#pragma once

#include <memory>
#include <string>

#include "platform/metering/audio_tap.h"
#include "platform/metering/av_capture_device.h"

namespace vesk {

/// A microphone opened for a session, which calls it under the session's lock.
class AVCaptureDeviceInput {
 public:
  /// Opens the device a second time, beside whatever captures from it. Null when it cannot be.
  static std::shared_ptr<AVCaptureDeviceInput> deviceInputWithDevice(std::shared_ptr<const AVCaptureDevice> device);

  const AVCaptureDevice& device() const { return *mDevice; }
  AudioTap& tap() { return *mTap; }

 private:
  AVCaptureDeviceInput(std::shared_ptr<const AVCaptureDevice> device, std::unique_ptr<AudioTap> tap)
      : mDevice(std::move(device)), mTap(std::move(tap)) {}

  const std::shared_ptr<const AVCaptureDevice> mDevice;
  const std::unique_ptr<AudioTap> mTap;
};

}  // namespace vesk
