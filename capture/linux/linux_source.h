#pragma once

#include <memory>
#include <string>

#include "capture/linux/cameras/linux_cameras.h"
#include "capture/linux/sound/sound_source.h"
#include "capture/sources/combined_source.h"

namespace vesk::capture {

/// The cameras and microphones of this machine.
class LinuxSource : public CombinedSource {
 public:
  LinuxSource(std::shared_ptr<LinuxCameras> cameras, std::shared_ptr<SoundSource> sound)
      : CombinedSource({cameras, sound}), mCameras(std::move(cameras)), mSound(std::move(sound)) {}

  /// The microphone of the USB device that the camera is of.
  std::string microphoneOf(const std::string& path) override {
    const std::string device = mCameras->usbPathOf(path);
    if (device.empty()) return {};
    for (const Microphone& microphone : mSound->microphones()) {
      if (microphone.usbParent == device) return microphone.description.path;
    }
    return {};
  }

 private:
  const std::shared_ptr<LinuxCameras> mCameras;
  const std::shared_ptr<SoundSource> mSound;
};

}  // namespace vesk::capture
