#include <vesk/capture_source.h>

#include <vesk/vci.h>

// What devices and sources answer that do not have something.

namespace vesk::capture {

CaptureDevice::~CaptureDevice() = default;

std::vector<VideoFormat> CaptureDevice::videoFormats() {
  return {};
}

int32_t CaptureDevice::setVideoParameters(const VideoParameters&) {
  return kVCIFailed;
}

int32_t CaptureDevice::getProperty(uint32_t, const PropertySetIdentifier&, uint32_t, std::span<uint8_t>, uint32_t&) {
  return kVCIPropertyNotSupported;
}

int32_t CaptureDevice::setProperty(const PropertySetIdentifier&, uint32_t, std::span<const uint8_t>) {
  return kVCIPropertyNotSupported;
}

std::vector<PropertySetIdentifier> CaptureDevice::propertySets() {
  return {};
}

std::vector<uint32_t> CaptureDevice::propertyItems(const PropertySetIdentifier&) {
  return {};
}

void CaptureDevice::requestKeyFrame() {}

std::vector<WaveFormat> CaptureDevice::waveFormats() {
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

CaptureSource::~CaptureSource() = default;

std::unique_ptr<CaptureDevice> CaptureSource::openForMetering(const std::string& path) {
  return open(DeviceKind::kAudio, path);
}

std::string CaptureSource::microphoneOf(const std::string&) {
  return {};
}

std::string CaptureSource::cameraAtNode(const std::string&) {
  return {};
}

}  // namespace vesk::capture
