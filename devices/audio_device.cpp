#include <vesk/audio_device.h>

#include <utility>

#include <vesk/aci.h>
#include <vesk/device_manager.h>
#include "devices/audio_device_state.h"
#include "devices/capture_parameters.h"
#include "devices/delegate_list.h"
#include "devices/enumeration.h"

namespace vesk {
namespace {

void AudioFrameCompletionCallback(void*, ACI_EVENT_INFO* info) {
  static_cast<DelegateList*>(info->context)->deliver(info->packet, info->length, info->timestamp);
}

}  // namespace

VeskDeviceListPtr VeskAudioDevice::getAudioDeviceList() {
  return VeskDeviceManager::getSharedInstance()->getAudioDeviceList();
}

std::shared_ptr<VeskAudioDevice> VeskAudioDevice::initWithDeviceInfo(std::shared_ptr<VeskDeviceInfo> info) {
  if (!info) return nullptr;
  return std::shared_ptr<VeskAudioDevice>(new VeskAudioDevice(std::move(info)));
}

VeskAudioDevice::VeskAudioDevice(std::shared_ptr<VeskDeviceInfo> info)
    : VeskAVDevice(std::move(info)), mState(std::make_unique<State>()) {}

VeskAudioDevice::~VeskAudioDevice() {
  endMeter();
  // Capture goes on, but its packets need not be sent to a device that is gone.
  if (mIsOpen) ACI_UnSubscribe_Event(mHandle, kACIEventPacket);
}

int32_t VeskAudioDevice::openDevice() {
  return openHandle(ACI_Open_Device);
}

void VeskAudioDevice::closeDevice() {
  if (mIsCapturing) stopCapture();
  closeHandle();
  stopVUMeter();
}

std::shared_ptr<const CMAudioFormatList> VeskAudioDevice::getSupportedFormats() {
  if (!mIsOpen) return nullptr;
  if (mState->mSupportedFormats) return mState->mSupportedFormats;
  const auto records = enumerateRecords<ACIWaveFormat>([this](ACIWaveFormat* formats, uint32_t* size, uint32_t* count) {
    return ACI_Enum_Wave_Formats(mHandle, formats, size, count);
  });
  CMAudioFormatList formats;
  for (const ACIWaveFormat& record : records)
    if (auto format = audioFormatDescription(record)) formats.push_back(std::move(format));
  if (!formats.empty()) mState->mSupportedFormats = std::make_shared<const CMAudioFormatList>(std::move(formats));
  return mState->mSupportedFormats;
}

CMAudioFormatDescriptionRef VeskAudioDevice::getFormat() const {
  return mState->mFormat;
}

void VeskAudioDevice::setFormat(const CMAudioFormatDescriptionRef& format) {
  mState->mFormat = format ? CMAudioFormatDescription::create(format->streamBasicDescription()) : nullptr;
}

int32_t VeskAudioDevice::startCapture() {
  if (!mIsOpen) return notOpen();
  if (mIsCapturing) return answered(kVeskStatusSuccess);
  if (!mState->mFormat) return noFormatChosen();

  const ACICaptureParameters parameters = audioCaptureParameters(*mState->mFormat);
  if (ACI_Set_Capture_Parameters(mHandle, &parameters) != kVCISuccess) return answered(kVeskStatusNoFormat);
  int32_t status = ACI_Subscribe_Event(mHandle, kACIEventPacket, AudioFrameCompletionCallback, captureContext());
  if (status != kVCISuccess) return answered(status);
  status = ACI_Start_Capture(mHandle);
  mIsCapturing = status == kVCISuccess;
  return answered(status == kVCIBusy ? int32_t{kVeskStatusMicrophoneInUse} : status);
}

int32_t VeskAudioDevice::stopCapture() {
  if (!mIsOpen) return notOpen();
  if (!mIsCapturing) return kVeskStatusSuccess;
  if (ACI_Stop_Capture(mHandle) != kVCISuccess) return answered(kVeskStatusFailed);
  if (ACI_UnSubscribe_Event(mHandle, kACIEventPacket) != kVCISuccess) return answered(kVeskStatusFailed);
  mIsCapturing = false;
  return answered(kVeskStatusSuccess);
}

bool VeskAudioDevice::isMuteOn() const {
  uint8_t mute = 0;
  answered(ACI_Get_Mic_Mute(mHandle, &mute));
  return mute != 0;
}

void VeskAudioDevice::setMute(bool mute) {
  answered(ACI_Set_Mic_Mute(mHandle, mute ? 1 : 0));
}

std::optional<int32_t> VeskAudioDevice::getVolumeCur() const {
  uint32_t volume = 0;
  if (answered(ACI_Get_Mic_Volume(mHandle, &volume)) != kVCISuccess) return std::nullopt;
  return static_cast<int32_t>(volume);
}

void VeskAudioDevice::setVolumeCur(int32_t volume) {
  answered(ACI_Set_Mic_Volume(mHandle, static_cast<uint8_t>(volume)));
}

}  // namespace vesk
