#include "apps/vesk/choices.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>

#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/host.h"
#include "apps/vesk/program.h"

namespace vesk::program {
namespace {

/// The record that `text` names among `records`; `kind` and `option` are for the messages.
std::shared_ptr<VeskDeviceInfo> chooseRecord(const VeskDeviceList& records, const std::string& text, const char* kind,
                                             const char* option) {
  if (records.empty())
    throw DeviceMissing(fmt::format("no {} was found.", kind),
                        "Plug one in, or try things without one: vesk --capture simulated.");
  if (text.empty()) return records.front();
  if (const auto index = readNumber<size_t>(text); index && *index < records.size()) return records[*index];
  VeskDeviceList fitting;
  for (const auto& record : records) {
    if (record->path() == text) return record;
    if (lowerCase(nameOf(*record)).find(lowerCase(text)) != std::string::npos) fitting.push_back(record);
  }
  if (fitting.size() == 1) return fitting.front();
  if (fitting.empty())
    throw DeviceMissing(fmt::format("no {} is called \"{}\".", kind, text), "\"vesk devices\" lists what there is.");
  std::vector<std::string> names;
  for (const auto& record : fitting) names.push_back(nameOf(*record));
  throw Failure(kNoSuchDevice, fmt::format("\"{}\" fits more than one {}: {}.", text, kind, fmt::join(names, ", ")),
                fmt::format("Name it by index or path with {}.", option));
}

template <class Device>
void open(Device& device) {
  const VeskDeviceInfo& info = *device.deviceInfo();
  explained({nameOf(info)}, [&] {
    if (device.openDevice() != 0)
      throw Failure(kBusy, fmt::format("\"{}\" could not be opened.", nameOf(info)),
                    "Close other programs that use it, or plug it in again.");
  });
}

bool isRecordable(uint32_t codec) {
  return codec == kCMVideoCodecType_H264 || codec == kCMPixelFormat_422YpCbCr8;
}

/// In ten-millionths of a second from picture to picture, as all intervals.
constexpr double kUsualInterval = 333'333;
/// People write 30 for 29.97.
constexpr double kRateTolerance = 0.01;

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

WantedFormat readWantedFormat(const std::string& text) {
  if (text.empty()) return {};
  if (auto wanted = readFormat(text)) return *wanted;
  throw Failure(kWrongUse, fmt::format("\"{}\" is not a picture format.", text),
                "Write it like h264:1280x720@30, mjpeg, raw, 720p or 640x480.");
}

bool fits(const CMVideoFormatDescription& format, const WantedFormat& wanted) {
  if (wanted.codec && *wanted.codec != format.mediaSubType()) return false;
  return !wanted.width || (*wanted.width == format.dimensions().width && *wanted.height == format.dimensions().height);
}

/// Why none of the camera's formats will do.
Failure noFormat(VeskVideoDevice& camera, const std::string& text, bool mustBeRecordable) {
  const std::string name = nameOf(*camera.deviceInfo());
  if (!text.empty())
    return {kFailed, fmt::format("\"{}\" does not offer {}.", name, text), "\"vesk formats\" lists what it offers."};
  return {kFailed,
          fmt::format("\"{}\" offers no format that can be {}.", name, mustBeRecordable ? "recorded" : "shown"),
          mustBeRecordable ? "\"vesk formats\" lists what it offers; h264 and raw can be recorded."
                           : "\"vesk formats\" lists what it offers."};
}

/// The camera has what is wanted at other rates only: those of `intervals`, of which there are some.
Failure noRate(VeskVideoDevice& camera, const std::string& text, const std::set<uint32_t>& intervals) {
  std::vector<std::string> rates;
  rates.reserve(intervals.size());
  for (const uint32_t interval : intervals) rates.push_back(fmt::format("{:.4g}", 1e7 / interval));
  const std::string last = rates.back();
  rates.pop_back();
  return {kWrongUse,
          fmt::format("\"{}\" does not offer {}: {} {} pictures a second.", nameOf(*camera.deviceInfo()), text,
                      rates.empty() ? "its only rate is" : fmt::format("its rates are {} and", fmt::join(rates, ", ")),
                      last),
          "\"vesk formats\" lists sizes and rates."};
}

/// Lower is better. For movies and previews: H.264, raw pictures, others; then the largest up to
/// 1280 × 720, then the smallest above. For photos: the largest; Motion JPEG, then what the camera lists first.
std::pair<int64_t, int64_t> preference(const CMVideoFormatDescription& format, Purpose purpose) {
  const auto size = format.dimensions();
  const int64_t area = int64_t{size.width} * size.height;
  const uint32_t codec = format.mediaSubType();
  if (purpose == Purpose::kPhoto) return {-area, codec == kCMVideoCodecType_MotionJPEG ? 0 : 1};
  return {codec == kCMVideoCodecType_H264 ? 0
          : isRecordable(codec)           ? 1
                                          : 2,
          area <= int64_t{1280} * 720 ? -area : area};
}

uint32_t readSoundCodec(const std::string& text, const std::string& whole) {
  if (text == "pcm") return kWaveFormatLinearPCM;
  if (text == "aac") return kWaveFormatAAC;
  throw Failure(kWrongUse, fmt::format("\"{}\" is not a sound format.", whole),
                "Write it like pcm:48000:2, pcm:48000, pcm or aac.");
}

}  // namespace

std::shared_ptr<VeskVideoDevice> chooseCamera(const std::string& text) {
  const auto records = VeskVideoDevice::getVideoDeviceList();
  const bool isNode = text.starts_with("/dev/");
  const std::string path = isNode ? capture::cameraAtNode(text) : text;
  if (isNode && path.empty())
    throw DeviceMissing(fmt::format("no camera gives pictures at {}.", text),
                        "It may be a camera's node for metadata: \"vesk doctor\" tells.");
  return VeskVideoDevice::initWithDeviceInfo(chooseRecord(*records, path, "camera", "--camera"));
}

std::shared_ptr<VeskAudioDevice> chooseMicrophone(const std::string& text) {
  const auto records = VeskAudioDevice::getAudioDeviceList();
  return VeskAudioDevice::initWithDeviceInfo(chooseRecord(*records, text, "microphone", "--mic"));
}

std::shared_ptr<VeskAudioDevice> defaultMicrophone(const std::shared_ptr<VeskVideoDevice>& camera) {
  const auto records = VeskAudioDevice::getAudioDeviceList();
  const std::string own = camera ? capture::microphoneOf(camera->deviceInfo()->path().value_or("")) : "";
  for (const auto& record : *records) {
    if (!own.empty() && record->path() == own) return VeskAudioDevice::initWithDeviceInfo(record);
  }
  return records->empty() ? nullptr : VeskAudioDevice::initWithDeviceInfo(records->front());
}

void openDevice(VeskVideoDevice& camera) {
  open(camera);
}
void openDevice(VeskAudioDevice& microphone) {
  open(microphone);
}

Failure notRecordable(uint32_t codec) {
  return {kWrongUse, fmt::format("{} cannot be recorded.", codecName(codec)),
          "Choose h264 or raw with --format; \"vesk formats\" lists what the camera offers."};
}

bool isRecordable(const CMVideoFormatDescription& format) {
  return isRecordable(format.mediaSubType());
}

CMVideoFormatDescriptionRef setVideoFormat(VeskVideoDevice& camera, const std::string& text, Purpose purpose) {
  const WantedFormat wanted = readWantedFormat(text);
  const bool mustBeRecordable = purpose == Purpose::kRecord;
  if (mustBeRecordable && wanted.codec && !isRecordable(*wanted.codec)) throw notRecordable(*wanted.codec);
  CMVideoFormatDescriptionRef best;
  std::optional<uint32_t> interval;
  std::set<uint32_t> otherIntervals;
  if (const auto formats = camera.getSupportedFormats()) {
    for (const auto& format : *formats) {
      if ((mustBeRecordable && !isRecordable(*format)) || !fits(*format, wanted)) continue;
      if (best && preference(*format, purpose) >= preference(*best, purpose)) continue;
      const auto intervals = camera.getSupportedFrameIntervals(format);
      const auto nearest = nearestInterval(intervals, wanted.rate ? 1e7 / *wanted.rate : kUsualInterval);
      if (wanted.rate && !isNearRate(nearest.value_or(0), *wanted.rate)) {
        otherIntervals.insert(intervals.begin(), intervals.end());
        continue;
      }
      best = format;
      interval = nearest;
    }
  }
  otherIntervals.erase(0);
  if (!best)
    throw otherIntervals.empty() ? noFormat(camera, text, mustBeRecordable) : noRate(camera, text, otherIntervals);
  camera.setFormat(best);
  camera.setCaptureInterval(interval);
  return best;
}

CMAudioFormatDescriptionRef chooseSoundFormat(VeskAudioDevice& microphone, const std::string& text) {
  std::optional<uint32_t> codec;
  std::optional<uint32_t> rate;
  std::optional<uint32_t> channels;
  if (!text.empty()) {
    const auto parts = split(text, ':');
    codec = readSoundCodec(lowerCase(parts[0]), text);
    if (parts.size() > 1) rate = readNumber<uint32_t>(parts[1]);
    if (parts.size() > 2) channels = readNumber<uint32_t>(parts[2]);
    if (parts.size() > 3 || (parts.size() > 1 && !rate) || (parts.size() > 2 && !channels)) readSoundCodec("", text);
  }
  if (const auto formats = microphone.getSupportedFormats()) {
    for (const auto& format : *formats) {
      const auto& description = format->streamBasicDescription();
      const bool isHoldable = description.mFormatID == kWaveFormatAAC ||
                              (description.mFormatID == kWaveFormatLinearPCM && description.mBitsPerChannel == 16);
      if (!isHoldable) continue;
      if (codec && *codec != description.mFormatID) continue;
      if (rate && *rate != static_cast<uint32_t>(description.mSampleRate)) continue;
      if (channels && *channels != description.mChannelsPerFrame) continue;
      return format;
    }
  }
  throw Failure(kFailed,
                text.empty()
                    ? fmt::format("\"{}\" offers no sound that can be recorded.", nameOf(*microphone.deviceInfo()))
                    : fmt::format("\"{}\" does not offer {}.", nameOf(*microphone.deviceInfo()), text),
                "\"vesk formats\" lists what it offers; --no-audio records the picture alone.");
}

std::string nameOf(const VeskDeviceInfo& info) {
  if (const auto name = info.name(); name && !name->empty()) return *name;
  return info.path().value_or("unnamed device");
}

std::string soundCodecName(uint32_t formatID) {
  switch (formatID) {
    case kWaveFormatLinearPCM:
      return "pcm";
    case kWaveFormatAAC:
      return "aac";
    default:
      return fmt::format("0x{:04x}", formatID);
  }
}

}  // namespace vesk::program
