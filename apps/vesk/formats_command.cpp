#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <optional>

#include <vesk/four_char_code.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

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

/// In the words that --format takes.
void printVideo(VeskVideoDevice& camera) {
  const auto formats = camera.getSupportedFormats();
  for (const auto& format : *formats) {
    std::string rates;
    for (const uint32_t interval : camera.getSupportedFrameIntervals(format))
      if (interval != 0) rates += fmt::format("  {:.4g}/s", 1e7 / interval);
    const auto size = format->dimensions();
    printLine("  {:<5}  {:>5} x {:<5}{}", codecName(format->mediaSubType()), size.width, size.height, rates);
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
  const std::shared_ptr<VeskAudioDevice> microphone = chooseMicrophoneFor(camera.get(), options.microphone);
  if (!camera && !microphone) camera = chooseCamera("");

  if (camera) openDevice(*camera);
  nlohmann::ordered_json sound = nlohmann::ordered_json::array();
  if (microphone) {
    openDevice(*microphone);
    sound = soundFormats(*microphone);
    microphone->closeDevice();
  }
  if (global.json) {
    printJson({{"video", camera ? videoFormats(*camera) : nlohmann::ordered_json::array()}, {"sound", sound}});
    return kDone;
  }
  printLine("{}", camera ? nameOf(*camera->deviceInfo()) : "No camera");
  if (camera) printVideo(*camera);
  printLine("{}", microphone ? nameOf(*microphone->deviceInfo()) : "No microphone");
  printSound(sound);
  return kDone;
}

}  // namespace vesk::program
