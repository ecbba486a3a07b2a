#include <vesk/av_device.h>

#include <iterator>
#include <string>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/log.h>
#include <vesk/vci.h>
#include <vesk/video_device.h>
#include "devices/delegate_list.h"
#include "platform/foundation/errors.h"

namespace vesk {

std::shared_ptr<VeskAVDevice> VeskAVDevice::newDevice(std::shared_ptr<VeskDeviceInfo> info) {
  if (!info) return nullptr;
  if (info->deviceType() == kVeskDeviceTypeVideo) return VeskVideoDevice::initWithDeviceInfo(std::move(info));
  return VeskAudioDevice::initWithDeviceInfo(std::move(info));
}

VeskAVDevice::VeskAVDevice(std::shared_ptr<VeskDeviceInfo> info)
    : mDeviceInfo(std::move(info)),
      mDelegates(std::make_shared<DelegateList>(mDeviceInfo)),
      mLastError(std::make_unique<LastError>()) {}

VeskAVDevice::~VeskAVDevice() {
  const auto holders = mDeviceInfo.use_count() - 1;  // the list's reference is this device's too
  NSLog("Dealloc AVDevice " + mDeviceInfo->name().value_or("(null)") + " Count:" + std::to_string(holders));
  mDelegates->clear();
}

void VeskAVDevice::addDelegate(std::shared_ptr<VeskAVDeviceDelegate> delegate) {
  mDelegates->add(std::move(delegate));
}

void VeskAVDevice::removeDelegate(const std::shared_ptr<VeskAVDeviceDelegate>& delegate) {
  if (delegate) mDelegates->remove(delegate.get());
}

void* VeskAVDevice::captureContext() const {
  return mDelegates.get();
}

const VeskDeviceDelegates& VeskAVDevice::delegates() const {
  return *mDelegates;
}

Error VeskAVDevice::lastError() const {
  return mLastError->get();
}

std::string VeskAVDevice::inText() const {
  const bool isCamera = mDeviceInfo->deviceType() == kVeskDeviceTypeVideo;
  return std::string(isCamera ? "the camera \"" : "the microphone \"") + mDeviceInfo->name().value_or("") + "\"";
}

int32_t VeskAVDevice::notOpen() const {
  return failed(kVeskStatusNotOpen, {Cause::kWrongUse, inText() + " is not open", ""});
}

int32_t VeskAVDevice::noFormatChosen() const {
  return failed(kVeskStatusNoFormat, {Cause::kNoFormat, "no format has been chosen for " + inText(), ""});
}

int32_t VeskAVDevice::failed(int32_t status, Error why) const {
  if (why && why.subject.empty()) why.subject = mDeviceInfo->name().value_or("");
  mLastError->set(std::move(why));
  return status;
}

int32_t VeskAVDevice::answered(int32_t status) const {
  if (status != kVeskStatusSuccess) return failed(status, capture::lastError());
  mLastError->clear();
  return status;
}

int32_t VeskAVDevice::openHandle(void* (*open)(const char16_t* path)) {
  if (mIsOpen) return answered(kVeskStatusSuccess);
  const auto path = mDeviceInfo->pathUnits();
  if (!path || path->size() >= std::size(CaptureDeviceRecord{}.path))
    return failed(kVeskStatusFailed, {Cause::kWrongUse, "the record of " + inText() + " has no path to open", ""});
  mHandle = open(path->c_str());
  mIsCapturing = false;  // a stop that failed before the last close is of no matter to a new handle
  mIsOpen = mHandle != nullptr;
  return answered(mIsOpen ? kVeskStatusSuccess : kVeskStatusFailed);
}

void VeskAVDevice::closeHandle() {
  if (!mIsOpen) return;
  VCI_Close_Device(mHandle);
  mHandle = nullptr;
  mIsOpen = false;
}

}  // namespace vesk
