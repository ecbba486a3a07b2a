#pragma once

#include <atomic>
#include <memory>

#include <vesk/audio_device.h>
#include "platform/foundation/timer.h"
#include "platform/metering/av_capture_audio_preview_output.h"
#include "platform/metering/av_capture_device_input.h"
#include "platform/metering/av_capture_session.h"

namespace vesk {

struct VESK_LOCAL VeskAudioDevice::State {
  std::shared_ptr<const CMAudioFormatList> mSupportedFormats;
  CMAudioFormatDescriptionRef mFormat;

  std::shared_ptr<NSTimer> mMicLevelTimer;
  std::shared_ptr<AVCaptureSession> mSession;  ///< there while the meter runs
  std::shared_ptr<AVCaptureAudioPreviewOutput> mAudioPreviewOutput;
  std::shared_ptr<AVCaptureDeviceInput> mAudioDeviceInput;
  /// False once the run that it was made for has ended: levels still on the main queue are left out.
  std::shared_ptr<std::atomic<bool>> isMetering;
};

}  // namespace vesk
