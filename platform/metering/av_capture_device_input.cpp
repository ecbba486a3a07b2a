#include "platform/metering/av_capture_device_input.h"

#include <utility>

namespace vesk {

std::shared_ptr<AVCaptureDeviceInput> AVCaptureDeviceInput::deviceInputWithDevice(
    std::shared_ptr<const AVCaptureDevice> device) {
  const auto provider = AudioTapProvider::shared();
  if (!device || !provider) return nullptr;
  auto tap = provider->openTap(device->uniqueID());
  if (!tap) return nullptr;
  return std::shared_ptr<AVCaptureDeviceInput>(new AVCaptureDeviceInput(std::move(device), std::move(tap)));
}

}  // namespace vesk
