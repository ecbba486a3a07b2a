#include <vesk/capture_choices.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include <vesk/video_device.h>
#include "capture/interface/usual_bit_rate.h"
#include "sessions/device_name.h"

namespace vesk {
namespace {

// Intervals from frame to frame are in ten-millionths of a second.
constexpr double kUsualInterval = 333'333;
/// People write 30 for 29.97.
constexpr double kRateTolerance = 0.01;
constexpr int64_t kUsualArea = int64_t{1280} * 720;

bool isRecordableCodec(uint32_t codec) {
  return codec == kCMVideoCodecType_H264 || codec == kCMPixelFormat_422YpCbCr8;
}

/// The interval of those that a camera offers that is nearest to `wanted`.
std::optional<uint32_t> nearestInterval(const std::vector<uint32_t>& intervals, double wanted) {
  const auto distance = [wanted](double interval) { return std::abs(interval - wanted); };
  const auto nearest = std::min_element(intervals.begin(), intervals.end(),
                                        [&](uint32_t one, uint32_t other) { return distance(one) < distance(other); });
  return nearest == intervals.end() ? std::nullopt : std::optional(*nearest);
}

bool isNearRate(uint32_t interval, double rate) {
  return interval > 0 && std::abs(1e7 / interval - rate) <= rate * kRateTolerance;
}

bool fits(const CMVideoFormatDescription& format, const VideoFormatRequest& request) {
  if (request.codec && *request.codec != format.mediaSubType()) return false;
  return !request.size || *request.size == format.dimensions();
}

/// Lower is better. For movies and previews: H.264, raw frames, others; then the largest up to 1280 × 720,
/// then the smallest above. For photos: the largest; Motion JPEG, then what the camera lists first.
std::pair<int64_t, int64_t> preference(const CMVideoFormatDescription& format, CapturePurpose purpose) {
  const auto size = format.dimensions();
  const int64_t area = int64_t{size.width} * size.height;
  const uint32_t codec = format.mediaSubType();
  if (purpose == CapturePurpose::kPhoto) return {-area, codec == kCMVideoCodecType_MotionJPEG ? 0 : 1};
  return {codec == kCMVideoCodecType_H264 ? 0 : isRecordableCodec(codec) ? 1 : 2, area <= kUsualArea ? -area : area};
}

std::string inWords(const VideoFormatRequest& request) {
  std::vector<std::string> words;
  if (request.codec) words.push_back(fourCharString(*request.codec));
  if (request.size) words.push_back(fmt::format("{}x{}", request.size->width, request.size->height));
  if (request.rate) words.push_back(fmt::format("at {:.4g} frames a second", *request.rate));
  return fmt::format("{}", fmt::join(words, " "));
}

/// Why none of the camera's formats will do.
Error noFormat(const VeskVideoDevice& camera, const VideoFormatRequest& request, CapturePurpose purpose,
               const std::vector<double>& otherRates) {
  const std::string name = displayName(*camera.deviceInfo());
  const std::string wanted = inWords(request);
  if (!otherRates.empty()) {
    std::vector<std::string> rates;
    rates.reserve(otherRates.size());
    for (const double rate : otherRates) rates.push_back(fmt::format("{:.4g}", rate));
    return {Cause::kNoFormat, fmt::format("\"{}\" does not offer {}", name, wanted),
            fmt::format("Choose one of its rates: {}.", fmt::join(rates, ", ")), name};
  }
  if (!wanted.empty())
    return {Cause::kNoFormat, fmt::format("\"{}\" does not offer {}", name, wanted),
            "Choose one of the formats that it offers.", name};
  const bool isForMovie = purpose == CapturePurpose::kRecord;
  return {Cause::kNoFormat,
          fmt::format("\"{}\" offers no format that can be {}", name, isForMovie ? "recorded" : "shown"),
          isForMovie ? "H.264 and raw frames can be recorded; choose a camera that offers them." : "", name};
}

}  // namespace

std::shared_ptr<VeskDeviceInfo> defaultCamera() {
  const auto cameras = VeskVideoDevice::getVideoDeviceList();
  return cameras->empty() ? nullptr : cameras->front();
}

std::shared_ptr<VeskDeviceInfo> defaultMicrophone(const std::string& cameraPath) {
  const auto microphones = VeskAudioDevice::getAudioDeviceList();
  const std::string own = cameraPath.empty() ? "" : capture::microphoneOf(cameraPath);
  for (const auto& microphone : *microphones)
    if (!own.empty() && microphone->path() == own) return microphone;
  return microphones->empty() ? nullptr : microphones->front();
}

bool isRecordable(const CMVideoFormatDescription& format) {
  return isRecordableCodec(format.mediaSubType());
}

bool isRecordable(const CMAudioFormatDescription& format) {
  const AudioStreamBasicDescription& sound = format.streamBasicDescription();
  return sound.mFormatID == kWaveFormatAAC || (sound.mFormatID == kWaveFormatLinearPCM && sound.mBitsPerChannel == 16);
}

VideoFormatChoice chooseVideoFormat(VeskVideoDevice& camera, const VideoFormatRequest& request,
                                    CapturePurpose purpose) {
  VideoFormatChoice choice;
  std::optional<uint32_t> interval;
  std::set<uint32_t> otherIntervals;
  const auto formats = camera.getSupportedFormats();
  for (const auto& format : *formats) {
    if ((purpose == CapturePurpose::kRecord && !isRecordable(*format)) || !fits(*format, request)) continue;
    if (choice.format && preference(*format, purpose) >= preference(*choice.format, purpose)) continue;
    const auto intervals = camera.getSupportedFrameIntervals(format);
    const auto nearest = nearestInterval(intervals, request.rate ? 1e7 / *request.rate : kUsualInterval);
    if (request.rate && !isNearRate(nearest.value_or(0), *request.rate)) {
      otherIntervals.insert(intervals.begin(), intervals.end());
      continue;
    }
    choice.format = format;
    interval = nearest;
  }
  if (choice.format) {
    camera.setFormat(choice.format);
    camera.setCaptureInterval(interval);
    return choice;
  }
  otherIntervals.erase(0);
  for (const uint32_t each : otherIntervals) choice.otherRates.push_back(1e7 / each);
  choice.error = noFormat(camera, request, purpose, choice.otherRates);
  return choice;
}

bool isEncodedHere(VeskVideoDevice& camera) {
  const auto formats = camera.getSupportedFormats();
  return !formats->empty() && formats->front()->mediaSubType() != kCMVideoCodecType_H264 &&
         formats->back()->mediaSubType() == kCMVideoCodecType_H264;
}

uint64_t usualBitRate(const CMVideoFormatDescription& format, uint32_t interval, bool isEncodedHere) {
  const auto size = format.dimensions();
  const uint64_t time = interval == 0 ? uint64_t{333'333} : interval;
  if (format.mediaSubType() == kCMVideoCodecType_H264) {
    return isEncodedHere ? capture::encodedH264BitRate(size.width, size.height, time)
                         : capture::usualH264BitRate(size.width, size.height, time);
  }
  constexpr uint64_t kBitsOfPixel = 16;  // of 2vuy
  return static_cast<uint64_t>(size.width) * static_cast<uint64_t>(size.height) * kBitsOfPixel * 10'000'000 / time;
}

SoundFormatChoice chooseSoundFormat(VeskAudioDevice& microphone, const SoundFormatRequest& request) {
  const auto fitsRequest = [&request](const AudioStreamBasicDescription& sound) {
    return (!request.formatID || *request.formatID == sound.mFormatID) &&
           (!request.sampleRate || *request.sampleRate == static_cast<uint32_t>(sound.mSampleRate)) &&
           (!request.channels || *request.channels == sound.mChannelsPerFrame);
  };
  if (const auto formats = microphone.getSupportedFormats()) {
    for (const auto& format : *formats) {
      if (!isRecordable(*format) || !fitsRequest(format->streamBasicDescription())) continue;
      microphone.setFormat(format);
      return {format, {}};
    }
  }
  const bool isAny = !request.formatID && !request.sampleRate && !request.channels;
  return {nullptr,
          {Cause::kNoFormat,
           fmt::format("\"{}\" offers no sound {}", displayName(*microphone.deviceInfo()),
                       isAny ? "that can be recorded" : "in the format that was asked for"),
           "Choose another format or microphone, or record without sound.", displayName(*microphone.deviceInfo())}};
}

}  // namespace vesk
