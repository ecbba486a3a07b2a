#include "apps/vesk/camera_settings.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <nlohmann/json.hpp>

#include "apps/vesk/choices.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

using Json = nlohmann::ordered_json;

std::shared_ptr<VeskVideoDevice> cameraOf(const ControlSettings& settings) {
  VeskDeviceList same;
  const auto records = VeskVideoDevice::getVideoDeviceList();
  for (const auto& record : *records) {
    if (record->vendorID() != settings.vendorID || record->productID() != settings.productID) continue;
    if (record->path() == settings.cameraPath) return VeskVideoDevice::initWithDeviceInfo(record);
    same.push_back(record);
  }
  if (same.size() == 1) return VeskVideoDevice::initWithDeviceInfo(same.front());
  const std::string camera =
      fmt::format("\"{}\" ({:04x}:{:04x})", settings.cameraName, settings.vendorID, settings.productID);
  if (same.empty())
    throw DeviceMissing(fmt::format("the settings are of {}, which is not attached.", camera),
                        "Plug it in, or name another camera with --camera.");
  throw Failure(
      kNoSuchDevice,
      fmt::format("the settings are of {}, and {} such cameras are attached, all elsewhere.", camera, same.size()),
      "Name one with --camera.");
}

}  // namespace

ControlSettings loadSettings(const std::string& path) {
  Error why;
  if (auto settings = loadControlSettings(path, &why)) return *settings;
  Failure failure(kFailed, why);
  failure.hint = why.cause == Cause::kUnreadable ? "Name a file that \"vesk controls save\" has made."
                                                 : "Name a file of settings.";
  throw failure;
}

std::vector<ControlState> statesOf(const VeskVideoDevice& camera) {
  auto [states, silent, error] = controlStates(camera);
  if (silent.empty()) return states;
  if (states.empty()) throw Failure(kFailed, error);
  std::vector<std::string_view> names;
  names.reserve(silent.size());
  for (const ControlID id : silent) names.push_back(cameraControl(id).name);
  reportLine("vesk: \"{}\" did not answer when asked for {}.", nameOf(*camera.deviceInfo()), fmt::join(names, ", "));
  return states;
}

std::string rangeText(const ControlState& state) {
  return state.minimum ? fmt::format("{} to {}", *state.minimum, *state.maximum) : "?";
}

std::string leftToAutomatic(const std::vector<std::string>& names) {
  return names.empty() ? "" : fmt::format("; left to automatic modes: {}", fmt::join(names, ", "));
}

void printOutcome(const GlobalOptions& global, const VeskDeviceInfo& camera, const ControlOutcome& outcome,
                  const char* event) {
  if (global.json) {
    Json refused = Json::array();
    for (const auto& [name, reason] : outcome.refused) refused.push_back({{"name", name}, {"reason", reason}});
    Json document = event ? deviceEvent(event, camera) : Json::object();
    document["camera"] = nameOf(camera);
    document["applied"] = outcome.applied;
    document["notApplied"] = refused;
    document["automatic"] = outcome.automatic;
    printJson(document);
  } else {
    printLine("{}: {} settings applied{}", nameOf(camera), outcome.applied.size(), leftToAutomatic(outcome.automatic));
  }
  for (const auto& [name, reason] : outcome.refused) reportLine("vesk: {} was not applied: {}.", name, reason);
}

std::shared_ptr<VeskVideoDevice> cameraFor(const ControlSettings& settings, const std::string& text) {
  return text.empty() ? cameraOf(settings) : chooseCamera(text);
}

}  // namespace vesk::program
