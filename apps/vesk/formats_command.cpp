#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "platform/media/four_char_code.h"

namespace vesk::program {
namespace {

nlohmann::ordered_json videoFormats(VeskVideoDevice& camera) {
  auto list = nlohmann::ordered_json::array();
  const auto formats = camera.getSupportedFormats();
  for (const auto& format : *formats) {
    const auto size = format->dimensions();
    list.push_back({{"codec", fourCharString(format->mediaSubType())},
                    {"width", size.width},
                    {"height", size.height},
                    {"intervals", camera.getSupportedFrameIntervals(format)}});
  }
  return list;
}

nlohmann::ordered_json soundFormats(VeskAudioDevice& microphone) {
  auto list = nlohmann::ordered_json::array();
  const auto formats = microphone.getSupportedFormats();
  if (!formats) return list;
  for (const auto& format : *formats) {
    const auto& description = format->streamBasicDescription();
    list.push_back({{"codec", soundCodecName(description.mFormatID)},
                    {"sampleRate", static_cast<uint32_t>(description.mSampleRate)},
                    {"channels", description.mChannelsPerFrame},
                    {"bits", description.mBitsPerChannel}});
  }
  return list;
}

void printVideo(const nlohmann::ordered_json& formats) {
  for (const auto& format : formats) {
    std::string rates;
    for (const auto& interval : format["intervals"]) {
      const auto units = interval.get<uint32_t>();
      if (units != 0) rates += fmt::format("  {:.4g}/s", 1e7 / units);
    }
    printLine("  {}  {:>5} x {:<5}{}", format["codec"].get<std::string>(), format["width"].get<int>(),
              format["height"].get<int>(), rates);
  }
}

void printSound(const nlohmann::ordered_json& formats) {
  for (const auto& format : formats)
    printLine("  {}  {} Hz  {} channel{}", format["codec"].get<std::string>(), format["sampleRate"].get<int>(),
              format["channels"].get<int>(), format["channels"].get<int>() == 1 ? "" : "s");
}

}  // namespace

int runFormats(const GlobalOptions& global, const FormatsOptions& options) {
  const Host host(global);
  // Each of the two may be missing, unless it was asked for by name.
  std::shared_ptr<VeskVideoDevice> camera;
  if (!options.camera.empty() || !VeskVideoDevice::getVideoDeviceList()->empty()) camera = chooseCamera(options.camera);
  const std::shared_ptr<VeskAudioDevice> microphone =
      options.microphone.empty() ? defaultMicrophone(camera) : chooseMicrophone(options.microphone);
  if (!camera && !microphone) camera = chooseCamera("");

  nlohmann::ordered_json video = nlohmann::ordered_json::array();
  nlohmann::ordered_json sound = nlohmann::ordered_json::array();
  if (camera) {
    openDevice(*camera);
    video = videoFormats(*camera);
  }
  if (microphone) {
    openDevice(*microphone);
    sound = soundFormats(*microphone);
    microphone->closeDevice();
  }
  if (global.json) {
    printJson({{"video", video}, {"sound", sound}});
    return kDone;
  }
  printLine("{}", camera ? nameOf(*camera->deviceInfo()) : "No camera");
  printVideo(video);
  printLine("{}", microphone ? nameOf(*microphone->deviceInfo()) : "No microphone");
  printSound(sound);
  return kDone;
}

}  // namespace vesk::program
