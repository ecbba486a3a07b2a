#include "apps/vesk/choices.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <optional>

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
  VeskDeviceList named;  // as a whole, which may be a part of another's name
  for (const auto& record : records) {
    if (record->path() == text) return record;
    if (lowerCase(nameOf(*record)) == lowerCase(text)) named.push_back(record);
    if (lowerCase(nameOf(*record)).find(lowerCase(text)) != std::string::npos) fitting.push_back(record);
  }
  if (named.size() == 1) return named.front();
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
  if (device.openDevice() != 0) throw Failure(kBusy, device.lastError());
}

WantedFormat readWantedFormat(const std::string& text) {
  if (text.empty()) return {};
  if (auto wanted = readFormat(text)) return *wanted;
  throw Failure(kWrongUse, fmt::format("\"{}\" is not a picture format.", text),
                "Write it like h264:1280x720@30, mjpeg, raw, 720p or 640x480.");
}

Failure noFormat(ExitStatus status, const std::string& what, const std::string& hint) {
  Failure failure(status, what, hint);
  failure.cause = Cause::kNoFormat;
  return failure;
}

/// Why none of the camera's formats will do.
Failure noFormat(VeskVideoDevice& camera, const std::string& text, CapturePurpose purpose) {
  const std::string name = nameOf(*camera.deviceInfo());
  if (!text.empty())
    return noFormat(kFailed, fmt::format("\"{}\" does not offer {}.", name, text),
                    "\"vesk formats\" lists what it offers.");
  const bool isForMovie = purpose == CapturePurpose::kRecord;
  return noFormat(kFailed,
                  fmt::format("\"{}\" offers no format that can be {}.", name, isForMovie ? "recorded" : "shown"),
                  isForMovie ? "\"vesk formats\" lists what it offers; h264 and raw can be recorded."
                             : "\"vesk formats\" lists what it offers.");
}

/// The camera has what is wanted at other rates only, of which there are some.
Failure noRate(VeskVideoDevice& camera, const std::string& text, const std::vector<double>& otherRates) {
  std::vector<std::string> rates;
  rates.reserve(otherRates.size());
  for (const double rate : otherRates) rates.push_back(fmt::format("{:.4g}", rate));
  const std::string last = rates.back();
  rates.pop_back();
  return noFormat(
      kWrongUse,
      fmt::format("\"{}\" does not offer {}: {} {} pictures a second.", nameOf(*camera.deviceInfo()), text,
                  rates.empty() ? "its only rate is" : fmt::format("its rates are {} and", fmt::join(rates, ", ")),
                  last),
      "\"vesk formats\" lists sizes and rates.");
}

uint32_t readSoundCodec(const std::string& text, const std::string& whole) {
  if (text == "pcm") return kWaveFormatLinearPCM;
  if (text == "aac") return kWaveFormatAAC;
  throw Failure(kWrongUse, fmt::format("\"{}\" is not a sound format.", whole),
                "Write it like pcm:48000:2, pcm:48000, pcm or aac.");
}

}  // namespace

std::shared_ptr<VeskDeviceInfo> findCamera(const std::string& text) {
  const auto records = VeskVideoDevice::getVideoDeviceList();
  const bool isNode = text.starts_with("/dev/");
  const std::string path = isNode ? capture::cameraAtNode(text) : text;
  if (isNode && path.empty())
    throw DeviceMissing(fmt::format("no camera gives pictures at {}.", text),
                        "It may be a camera's node for metadata: \"vesk doctor\" tells.");
  return chooseRecord(*records, path, "camera", "--camera");
}

std::shared_ptr<VeskDeviceInfo> findMicrophone(const std::string& text) {
  return chooseRecord(*VeskAudioDevice::getAudioDeviceList(), text, "microphone", "--mic");
}

std::shared_ptr<VeskVideoDevice> chooseCamera(const std::string& text) {
  return VeskVideoDevice::initWithDeviceInfo(findCamera(text));
}

std::shared_ptr<VeskAudioDevice> chooseMicrophone(const std::string& text) {
  return VeskAudioDevice::initWithDeviceInfo(findMicrophone(text));
}

std::shared_ptr<VeskAudioDevice> chooseMicrophoneFor(const VeskVideoDevice* camera, const std::string& text) {
  if (!text.empty()) return chooseMicrophone(text);
  return VeskAudioDevice::initWithDeviceInfo(
      defaultMicrophone(camera ? camera->deviceInfo()->path().value_or("") : ""));
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

void setVideoFormat(VeskVideoDevice& camera, const std::string& text, CapturePurpose purpose) {
  const WantedFormat wanted = readWantedFormat(text);
  const bool isForMovie = purpose == CapturePurpose::kRecord;
  if (isForMovie && wanted.codec && !isRecordable(*CMVideoFormatDescription::create(*wanted.codec, 1, 1)))
    throw notRecordable(*wanted.codec);
  VideoFormatRequest request{.codec = wanted.codec, .size = {}, .rate = wanted.rate};
  if (wanted.width) request.size = CMVideoDimensions{*wanted.width, *wanted.height};
  const VideoFormatChoice choice = chooseVideoFormat(camera, request, purpose);
  if (choice.format) return;
  throw choice.otherRates.empty() ? noFormat(camera, text, purpose) : noRate(camera, text, choice.otherRates);
}

void setSoundFormat(VeskAudioDevice& microphone, const std::string& text) {
  SoundFormatRequest request;
  if (!text.empty()) {
    const auto parts = split(text, ':');
    request.formatID = readSoundCodec(lowerCase(parts[0]), text);
    if (parts.size() > 1) request.sampleRate = readNumber<uint32_t>(parts[1]);
    if (parts.size() > 2) request.channels = readNumber<uint32_t>(parts[2]);
    if (parts.size() > 3 || (parts.size() > 1 && !request.sampleRate) || (parts.size() > 2 && !request.channels))
      readSoundCodec("", text);
  }
  if (chooseSoundFormat(microphone, request).format) return;
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
