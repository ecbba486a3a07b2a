#include <vesk/format_description.h>

#include <utility>

#include <vesk/four_char_code.h>

namespace vesk {

CMVideoFormatDescription::CMVideoFormatDescription(uint32_t codec, CMVideoDimensions dimensions,
                                                   VideoFormatExtensions extensions)
    : CMFormatDescription(codec), mDimensions(dimensions), mExtensions(std::move(extensions)) {}

std::shared_ptr<const CMVideoFormatDescription> CMVideoFormatDescription::create(uint32_t codec, int32_t width,
                                                                                 int32_t height,
                                                                                 VideoFormatExtensions extensions) {
  if (width <= 0 || height <= 0) return nullptr;
  return std::shared_ptr<const CMVideoFormatDescription>(
      new CMVideoFormatDescription(codec, {width, height}, std::move(extensions)));
}

CMAudioFormatDescription::CMAudioFormatDescription(const AudioStreamBasicDescription& description)
    : CMFormatDescription(description.mFormatID), mDescription(description) {}

std::shared_ptr<const CMAudioFormatDescription> CMAudioFormatDescription::create(
    const AudioStreamBasicDescription& description) {
  return std::shared_ptr<const CMAudioFormatDescription>(new CMAudioFormatDescription(description));
}

bool AudioFormatCompleteDescription(AudioStreamBasicDescription& description) {
  switch (description.mFormatID) {
    case kAudioFormatMPEG4AAC:
      description.mFramesPerPacket = 1024;  // ISO/IEC 14496-3, AAC-LC
      description.mBytesPerPacket = 0;
      description.mBytesPerFrame = 0;
      description.mBitsPerChannel = 0;
      return true;
    case kAudioFormatLinearPCM:
      description.mFramesPerPacket = 1;
      description.mBytesPerFrame = description.mChannelsPerFrame * description.mBitsPerChannel / 8;
      description.mBytesPerPacket = description.mBytesPerFrame;
      return true;
    default:
      return false;
  }
}

}  // namespace vesk
