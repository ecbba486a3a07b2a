#include "sessions/recording_devices.h"

#include <fmt/format.h>

#include <utility>

#include <vesk/capture_choices.h>
#include <vesk/capture_host.h>
#include "sessions/device_name.h"

namespace vesk {
namespace {

std::string pathOf(const VeskAVDevice& device) {
  return device.deviceInfo()->path().value_or("");
}

std::shared_ptr<VeskDeviceInfo> recordAt(const VeskDeviceList& records, const std::string& path) {
  for (const auto& record : records)
    if (record->path() == path) return record;
  return nullptr;
}

Error whyNotOpened(const VeskAVDevice& device, const char* otherwise) {
  return refusalOf(device,
                   {Cause::kRefused, fmt::format("\"{}\" could not be opened", displayName(*device.deviceInfo())),
                    fmt::format("Close other programs that use it, or {}.", otherwise)});
}

}  // namespace

void RecordingDevices::reset() {
  mGivenCamera = mSettings.camera;
  mGivenMicrophone = mSettings.microphone;
  mCameraPath.clear();
  mMicrophonePath.clear();
}

std::shared_ptr<VeskDeviceInfo> RecordingDevices::findCamera() const {
  if (!mCameraPath.empty()) return recordAt(*VeskVideoDevice::getVideoDeviceList(), mCameraPath);
  return mSettings.findCamera ? mSettings.findCamera() : defaultCamera();
}

std::shared_ptr<VeskDeviceInfo> RecordingDevices::findMicrophone() const {
  if (!mMicrophonePath.empty()) return recordAt(*VeskAudioDevice::getAudioDeviceList(), mMicrophonePath);
  return mSettings.findMicrophone ? mSettings.findMicrophone() : defaultMicrophone(pathOf(*mCamera));
}

bool RecordingDevices::isMicrophoneMeant() const {
  return !mMicrophonePath.empty() || mSettings.findMicrophone;
}

bool RecordingDevices::isMicrophoneThere() const {
  return isMicrophoneMeant() ? findMicrophone() != nullptr : !capture::microphoneOf(pathOf(*mCamera)).empty();
}

DeviceError RecordingDevices::openCamera(bool& isThere) {
  auto camera = std::exchange(mGivenCamera, nullptr);
  mIsCameraOurs = camera == nullptr;
  if (!camera) {
    const auto found = findCamera();
    isThere = found != nullptr;
    if (mIsAbandoned || !found) return {};
    camera = VeskVideoDevice::initWithDeviceInfo(found);
  }
  isThere = true;
  mCamera = camera;
  const auto& info = camera->deviceInfo();
  if (camera->openDevice() != 0) return {whyNotOpened(*camera, "plug it in again"), info, true};
  if (mIsCameraOurs || !camera->getFormat()) {
    const auto choose = mSettings.setVideoFormat;
    const Error error = choose ? choose(*camera) : chooseVideoFormat(*camera).error;
    if (mIsAbandoned) return {};
    if (error) return {error, info};
  }
  mVideoFormat = camera->getFormat();
  if (mVideoFormat && isRecordable(*mVideoFormat)) return {};
  return {{Cause::kNoFormat, fmt::format("the format of \"{}\" cannot be recorded", displayName(*info)),
           "H.264 and raw frames can be recorded; choose another format.", displayName(*info)},
          info};
}

DeviceError RecordingDevices::openMicrophone(Error& missing) {
  auto microphone = std::exchange(mGivenMicrophone, nullptr);
  mIsMicrophoneOurs = microphone == nullptr;
  if (!microphone) {
    const bool isMeant = isMicrophoneMeant();
    const auto found = findMicrophone();
    if (mIsAbandoned) return {};
    if (!found) {
      if (isMeant) missing = {Cause::kNoDevice, "the microphone is not there; the movie has no sound", "Plug it in."};
      return {};
    }
    microphone = VeskAudioDevice::initWithDeviceInfo(found);
  }
  mMicrophone = microphone;
  const auto& info = microphone->deviceInfo();
  if (microphone->openDevice() != 0) return {whyNotOpened(*microphone, "record without sound"), info, true};
  if (mIsMicrophoneOurs || !microphone->getFormat()) {
    const auto choose = mSettings.setSoundFormat;
    const Error error = choose ? choose(*microphone) : chooseSoundFormat(*microphone).error;
    if (mIsAbandoned) return {};
    if (error) return {error, info};
  }
  mSoundFormat = microphone->getFormat();
  return {};
}

MoviePlan RecordingDevices::planFor(std::string file, bool replacesFile) const {
  return {mCamera, mMicrophone, mVideoFormat, mSoundFormat, std::move(file), replacesFile};
}

void RecordingDevices::keepToThese() {
  mCameraPath = pathOf(*mCamera);
  if (mMicrophone) mMicrophonePath = pathOf(*mMicrophone);
}

void RecordingDevices::close() {
  const auto camera = std::exchange(mCamera, nullptr);
  const auto microphone = std::exchange(mMicrophone, nullptr);
  mVideoFormat.reset();
  mSoundFormat.reset();
  if (camera && mIsCameraOurs) camera->closeDevice();
  if (microphone && mIsMicrophoneOurs) microphone->closeDevice();
}

}  // namespace vesk
