#include <vesk/capture_source.h>

#include <vesk/vci.h>

// What a device answers that does not have something.

namespace vesk::capture {

int32_t CaptureDevice::setVideoParameters(const VideoParameters&) {
  return kVCIFailed;
}

int32_t CaptureDevice::getProperty(uint32_t, const PropertySetIdentifier&, uint32_t, std::span<uint8_t>, uint32_t&) {
  return kVCIPropertyNotSupported;
}

int32_t CaptureDevice::setProperty(const PropertySetIdentifier&, uint32_t, std::span<const uint8_t>) {
  return kVCIPropertyNotSupported;
}

std::vector<uint32_t> CaptureDevice::propertyItems(const PropertySetIdentifier&) {
  return {};
}

int32_t CaptureDevice::setWaveFormat(const WaveFormat&) {
  return kVCIFailed;
}

int32_t CaptureDevice::getMute(bool&) {
  return kVCIPropertyNotSupported;
}

int32_t CaptureDevice::setMute(bool) {
  return kVCIPropertyNotSupported;
}

int32_t CaptureDevice::getVolume(uint32_t&) {
  return kVCIPropertyNotSupported;
}

int32_t CaptureDevice::setVolume(uint8_t) {
  return kVCIPropertyNotSupported;
}

}  // namespace vesk::capture
