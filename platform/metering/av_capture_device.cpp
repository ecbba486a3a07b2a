#include "platform/metering/av_capture_device.h"

#include "platform/metering/audio_tap.h"

namespace vesk {

std::vector<std::shared_ptr<const AVCaptureDevice>> AVCaptureDevice::devicesWithMediaType(MediaType type) {
  std::vector<std::shared_ptr<const AVCaptureDevice>> devices;
  const auto provider = AudioTapProvider::shared();
  if (!provider || type != AVMediaTypeAudio) return devices;
  for (AudioTapProvider::Microphone& microphone : provider->microphones())
    devices.push_back(
        std::make_shared<const AVCaptureDevice>(std::move(microphone.uniqueID), std::move(microphone.name)));
  return devices;
}

}  // namespace vesk
