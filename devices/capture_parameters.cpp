#include "devices/capture_parameters.h"

#include <vesk/four_char_code.h>
#include "capture/interface/frame_intervals.h"
#include "capture/interface/usual_bit_rate.h"

namespace vesk {
namespace {

constexpr uint32_t kH264Value = 24;

/// A number that does not fit would be undefined to convert.
uint32_t wholeNumber(double value) {
  return value >= 0 && value < 4294967296.0 ? static_cast<uint32_t>(value) : 0;
}

}  // namespace

VCIPixelFormat pixelFormatRecord(uint32_t codec) {
  VCIPixelFormat record{};
  for (unsigned i = 0; i < 4; ++i) record.code[i] = static_cast<char16_t>(codec >> (24 - 8 * i) & 0xFF);
  return record;
}

VCIFrameSize frameSizeRecord(const CMVideoFormatDescription& format) {
  return {format.dimensions().width, format.dimensions().height};
}

VCICaptureParameters videoCaptureParameters(const CMVideoFormatDescription& format, std::optional<uint32_t> interval) {
  const bool isH264 = format.mediaSubType() == kCMVideoCodecType_H264;
  VCICaptureParameters record{};
  record.isH264 = isH264;
  record.format = pixelFormatRecord(format.mediaSubType());
  record.width = format.dimensions().width;
  record.height = format.dimensions().height;
  record.intervalNumerator = interval.value_or(0) != 0 ? *interval : capture::kUsualInterval;
  record.intervalDenominator = capture::kTenMillionths;
  record.bitRate = isH264 ? capture::usualH264BitRate(record.width, record.height, record.intervalNumerator) : 0;
  record.h264Value = isH264 ? kH264Value : 0;
  return record;
}

CMAudioFormatDescriptionRef audioFormatDescription(const ACIWaveFormat& format) {
  AudioStreamBasicDescription description;
  description.mSampleRate = format.samplesPerSecond;
  description.mFormatID = format.formatCode;
  description.mChannelsPerFrame = format.channels;
  description.mBitsPerChannel = format.bitsPerSample;
  return CMAudioFormatDescription::create(description);
}

ACICaptureParameters audioCaptureParameters(const CMAudioFormatDescription& format) {
  const AudioStreamBasicDescription& description = format.streamBasicDescription();
  ACICaptureParameters record{};
  record.formatCode = static_cast<uint16_t>(description.mFormatID);
  record.channels = static_cast<uint16_t>(description.mChannelsPerFrame);
  record.samplesPerSecond = wholeNumber(description.mSampleRate);
  record.bitsPerSample = static_cast<uint16_t>(description.mBitsPerChannel);
  return record;
}

}  // namespace vesk
