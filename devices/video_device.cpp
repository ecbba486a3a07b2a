#include <vesk/video_device.h>

#include <algorithm>
#include <utility>

#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/four_char_code.h>
#include <vesk/unistr.h>
#include <vesk/vci.h>
#include "devices/capture_parameters.h"
#include "devices/delegate_list.h"
#include "devices/enumeration.h"
#include "devices/video_device_state.h"
#include "platform/foundation/byte_reader.h"

namespace vesk {
namespace {

constexpr uint16_t kBuiltInVendorID = 0x05AC;

constexpr uint32_t kH264Substream = 1;

void VideoFrameCompletionCallback(void*, VCI_EVENT_INFO* info) {
  static_cast<DelegateList*>(info->context)->deliver(info->frame, info->length, info->timestamp);
}

/// The code that the first four bytes of a text spell; none for a shorter text.
std::optional<uint32_t> codeOf(const std::string& text) {
  if (text.size() < 4) return std::nullopt;
  return readBigEndian32(reinterpret_cast<const uint8_t*>(text.data()));
}

}  // namespace

VeskDeviceListPtr VeskVideoDevice::getVideoDeviceList() {
  return VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
}

bool VeskVideoDevice::hasBuiltInCamera() {
  const auto cameras = getVideoDeviceList();
  return std::any_of(cameras->begin(), cameras->end(),
                     [](const auto& camera) { return camera->vendorID() == kBuiltInVendorID; });
}

std::shared_ptr<VeskVideoDevice> VeskVideoDevice::initWithDeviceInfo(std::shared_ptr<VeskDeviceInfo> info) {
  if (!info) return nullptr;
  return std::shared_ptr<VeskVideoDevice>(new VeskVideoDevice(std::move(info)));
}

VeskVideoDevice::VeskVideoDevice(std::shared_ptr<VeskDeviceInfo> info)
    : VeskAVDevice(std::move(info)), mState(std::make_unique<State>()) {}

VeskVideoDevice::~VeskVideoDevice() {
  closeDevice();
}

int32_t VeskVideoDevice::openDevice() {
  const int32_t status = openHandle(VCI_Open_Device);
  if (status == kVeskStatusSuccess) mState->recordings.leaveAtMost(AfterRecording::kStop);
  return status;
}

void VeskVideoDevice::closeDevice() {
  const NudgeGate::Closing closing(mState->nudgeGate);
  if (mIsCapturing) stopCapture();
  closeHandle();
}

std::optional<std::vector<std::string>> VeskVideoDevice::getMediaFormats() const {
  if (!mIsOpen) return std::nullopt;
  const auto records =
      enumerateRecords<VCIPixelFormat>([this](VCIPixelFormat* formats, uint32_t* size, uint32_t* count) {
        return VCI_Enum_Pixel_Formats(mHandle, formats, size, count);
      });
  std::vector<std::string> formats;
  for (const VCIPixelFormat& record : records) {
    char16_t code[4];
    std::copy_n(record.code, 4, code);
    formats.push_back(unistr_createUTF8({code, 4}));
  }
  return formats;
}

CMVideoFormatList VeskVideoDevice::getResolutionsForCodec(uint32_t codec) const {
  const VCIPixelFormat pixelFormat = pixelFormatRecord(codec);
  const auto records = enumerateRecords<VCIFrameSize>([&](VCIFrameSize* sizes, uint32_t* size, uint32_t* count) {
    return VCI_Enum_Frame_Sizes(mHandle, &pixelFormat, sizes, size, count);
  });
  CMVideoFormatList formats;
  for (const VCIFrameSize& record : records)
    if (auto format = CMVideoFormatDescription::create(codec, record.width, record.height))
      formats.push_back(std::move(format));
  return formats;
}

std::shared_ptr<const CMVideoFormatList> VeskVideoDevice::getSupportedFormats() {
  if (mState->mSupportedFormats) return mState->mSupportedFormats;
  CMVideoFormatList all;
  for (const std::string& text : getMediaFormats().value_or(std::vector<std::string>())) {
    const auto codec = codeOf(text);
    if (!codec) continue;
    auto formats = getResolutionsForCodec(*codec);
    std::move(formats.begin(), formats.end(), std::back_inserter(all));
  }
  mState->mSupportedFormats = std::make_shared<const CMVideoFormatList>(std::move(all));
  return mState->mSupportedFormats;
}

std::optional<CMVideoFormatList> VeskVideoDevice::copyFormatsForCodec(uint32_t codec,
                                                                      const CMVideoFormatList& formats) {
  if (formats.empty()) return std::nullopt;
  CMVideoFormatList found;
  std::copy_if(formats.begin(), formats.end(), std::back_inserter(found),
               [codec](const auto& format) { return format && format->mediaSubType() == codec; });
  return found;
}

std::vector<uint32_t> VeskVideoDevice::getSupportedFrameIntervals(const CMVideoFormatDescriptionRef& format) const {
  if (!format) return {};
  const VCIPixelFormat pixelFormat = pixelFormatRecord(format->mediaSubType());
  const VCIFrameSize frameSize = frameSizeRecord(*format);
  const auto records =
      enumerateRecords<VCIFrameInterval>([&](VCIFrameInterval* intervals, uint32_t* size, uint32_t* count) {
        return VCI_Enum_Frame_Intervals(mHandle, &pixelFormat, &frameSize, intervals, size, count);
      });
  std::vector<uint32_t> intervals;
  intervals.reserve(records.size());
  for (const VCIFrameInterval& record : records) intervals.push_back(record.interval);
  return intervals;
}

std::optional<std::vector<uint32_t>> VeskVideoDevice::getSupportedFrameIntervals() const {
  return mState->mSupportedFrameIntervals;
}

CMVideoFormatDescriptionRef VeskVideoDevice::getFormat() const {
  return mState->mFormat;
}

void VeskVideoDevice::setFormat(CMVideoFormatDescriptionRef format) {
  mState->mFormat = std::move(format);
}

std::optional<uint32_t> VeskVideoDevice::captureInterval() const {
  return mState->captureInterval.get();
}

void VeskVideoDevice::setCaptureInterval(std::optional<uint32_t> interval) {
  mState->captureInterval.set(interval);
}

std::optional<uint32_t> VeskVideoDevice::frameInterval() const {
  return mState->mFrameinterval.get();
}

void VeskVideoDevice::setFrameInterval(std::optional<uint32_t> interval) {
  mState->mFrameinterval.set(interval);
}

int32_t VeskVideoDevice::setCaptureFormat(const CMVideoFormatDescriptionRef& format) {
  if (!mIsOpen) return notOpen();
  if (!format) return noFormatChosen();
  const VCICaptureParameters parameters = videoCaptureParameters(*format, mState->captureInterval.get());
  const bool isSet = VCI_Set_Capture_Parameters(mHandle, &parameters) == kVCISuccess;
  return answered(isSet ? kVeskStatusSuccess : kVeskStatusNoFormat);
}

int32_t VeskVideoDevice::startCapture() {
  if (mIsCapturing) {
    mState->recordings.leaveAtMost(AfterRecording::kStayOn);
    return answered(kVeskStatusSuccess);
  }
  if (!mIsOpen) return notOpen();
  if (!mState->mFormat) return noFormatChosen();

  setCaptureFormat(mState->mFormat);
  if (VCI_Subscribe_Event(mHandle, kVCIEventFrame, VideoFrameCompletionCallback, captureContext()) != kVCISuccess)
    return answered(kVeskStatusFailed);
  mState->mSubstream = mState->mFormat->mediaSubType() == kCMVideoCodecType_H264 ? kH264Substream : 0;
  const int32_t status = VCI_Start_Capture(mHandle, mState->mSubstream);
  if (status != kVCISuccess) answered(kVeskStatusFailed);  // what follows has an error of its own
  if (status == kVCIBusy) {
    VCI_UnSubscribe_Event(mHandle, kVCIEventFrame);
    return kVeskStatusCameraInUse;
  }
  if (status != kVCISuccess) return kVeskStatusFailed;
  mIsCapturing = true;
  mState->recordings.leaveAtMost(AfterRecording::kStayOn);
  return answered(kVeskStatusSuccess);
}

void VeskVideoDevice::requestKeyFrame() {
  if (!mIsCapturing || mState->mSubstream != kH264Substream) return;
  // The camera itself may have to answer, and another control may be under way, such as a motor's.
  DispatchQueue::globalQueue()->async([handle = mHandle.load()] { VCI_Request_Key_Frame(handle); });
}

int32_t VeskVideoDevice::stopCapture() {
  if (!mIsCapturing) return kVeskStatusSuccess;
  if (!mIsOpen) return notOpen();
  if (VCI_Stop_Capture(mHandle, mState->mSubstream) != kVCISuccess) return answered(kVeskStatusFailed);
  if (VCI_UnSubscribe_Event(mHandle, kVCIEventFrame) != kVCISuccess) return answered(kVeskStatusFailed);
  mIsCapturing = false;
  return answered(kVeskStatusSuccess);
}

}  // namespace vesk
