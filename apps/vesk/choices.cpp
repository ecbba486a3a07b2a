#include "apps/vesk/choices.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "apps/vesk/host.h"
#include "apps/vesk/program.h"
#include "capture/capture_host.h"
#include "platform/media/four_char_code.h"

namespace vesk::program {
namespace {

std::string lowerCase(std::string text) {
  for (char& character : text) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  return text;
}

template <class Number>
std::optional<Number> readNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts{""};
  for (const char character : text) {
    if (character == separator)
      parts.emplace_back();
    else
      parts.back() += character;
  }
  return parts;
}

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

struct WantedPicture {
  std::optional<uint32_t> codec;
  std::optional<CMVideoDimensions> size;
};

WantedPicture readPictureChoice(const std::string& text) {
  WantedPicture wanted;
  if (text.empty()) return wanted;
  for (const std::string& part : split(text, ':')) {
    const auto numbers = split(part, 'x');
    const auto width = readNumber<int32_t>(numbers[0]);
    const auto height = numbers.size() == 2 ? readNumber<int32_t>(numbers[1]) : std::nullopt;
    if (width && height)
      wanted.size = CMVideoDimensions{*width, *height};
    else if (part.size() == 4)
      wanted.codec = uint32_t{static_cast<uint8_t>(part[0])} << 24 | uint32_t{static_cast<uint8_t>(part[1])} << 16 |
                     uint32_t{static_cast<uint8_t>(part[2])} << 8 | static_cast<uint8_t>(part[3]);
    else
      throw Failure(kWrongUse, fmt::format("\"{}\" is no picture format.", text),
                    "Write it like avc1:1280x720, avc1 or 1280x720.");
  }
  return wanted;
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
  throw Failure(kWrongUse, fmt::format("\"{}\" is no sound format.", whole),
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

bool isRecordable(const CMVideoFormatDescription& format) {
  return isRecordable(format.mediaSubType());
}

CMVideoFormatDescriptionRef chooseVideoFormat(VeskVideoDevice& camera, const std::string& text, Purpose purpose) {
  const WantedPicture wanted = readPictureChoice(text);
  const bool mustBeRecordable = purpose == Purpose::kRecord;
  if (mustBeRecordable && wanted.codec && !isRecordable(*wanted.codec))
    throw Failure(kWrongUse, fmt::format("a movie cannot hold {} pictures here.", fourCharString(*wanted.codec)),
                  "Choose avc1 or 2vuy.");
  CMVideoFormatDescriptionRef best;
  if (const auto formats = camera.getSupportedFormats()) {
    for (const auto& format : *formats) {
      if (mustBeRecordable && !isRecordable(*format)) continue;
      if (wanted.codec && *wanted.codec != format->mediaSubType()) continue;
      if (wanted.size && *wanted.size != format->dimensions()) continue;
      if (!best || preference(*format, purpose) < preference(*best, purpose)) best = format;
    }
  }
  if (best) return best;
  const std::string name = nameOf(*camera.deviceInfo());
  if (!text.empty())
    throw Failure(kFailed, fmt::format("\"{}\" does not offer {}.", name, text),
                  "\"vesk formats\" lists what it offers.");
  throw Failure(kFailed,
                fmt::format("\"{}\" offers no format that can be {}.", name, mustBeRecordable ? "recorded" : "shown"),
                mustBeRecordable ? "\"vesk formats\" lists what it offers; avc1 and 2vuy can be recorded."
                                 : "\"vesk formats\" lists what it offers.");
}

CMAudioFormatDescriptionRef chooseSoundFormat(VeskAudioDevice& microphone, const std::string& text) {
  std::optional<uint32_t> codec;
  std::optional<uint32_t> rate;
  std::optional<uint32_t> channels;
  if (!text.empty()) {
    const auto parts = split(text, ':');
    codec = readSoundCodec(parts[0], text);
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
