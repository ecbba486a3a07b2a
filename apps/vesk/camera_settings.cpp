#include "apps/vesk/camera_settings.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "apps/vesk/choices.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

using Json = nlohmann::ordered_json;

bool isAutomaticMode(const CameraControl& control) {
  const auto all = cameraControls();
  return std::any_of(all.begin(), all.end(), [&](const CameraControl& each) { return each.automatic == control.id; });
}

void applyOne(VeskVideoDevice& camera, const std::map<std::string, int64_t>& values, const std::string& name,
              const CameraControl* control, int64_t value, Outcome& outcome) {
  const auto refuse = [&](const std::string& reason) { outcome.refused.emplace_back(name, reason); };
  if (!control || control->isMomentary()) return refuse("there is no such setting");
  const auto state = stateOf(camera, *control);
  if (!state) return refuse(isMissing(camera.lastError()) ? "the camera does not have it" : camera.lastError().what);
  if (!state->takes(value)) return refuse(fmt::format("{} is out of its range, {}", value, rangeText(*state)));
  if (state->isAutomatic.value_or(false)) {
    const auto mode = values.find(std::string(cameraControl(*control->automatic).name));
    if (mode != values.end() && mode->second != 0) {
      outcome.automatic.push_back(name);
      return;
    }
  }
  if (camera.writeControl(*control, value) != 0) return refuse(reasonOf(camera.lastError(), *state));
  outcome.applied.push_back(name);
}

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

std::optional<ControlState> stateOf(const VeskVideoDevice& camera, const CameraControl& control) {
  const auto current = camera.readControl(control, ControlRequest::kCurrent);
  if (!current) return std::nullopt;
  ControlState state{control, {}, {}, *current, camera.readControl(control, ControlRequest::kDefault), {}};
  if (!control.isSwitch()) {
    state.minimum = camera.readControl(control, ControlRequest::kMinimum);
    state.maximum = camera.readControl(control, ControlRequest::kMaximum);
    if (control.id == ControlID::kZoom) state.maximum = camera.getZoomMax();  // which knows some products better
  }
  if (!state.minimum || !state.maximum) {
    const bool isKnown = control.least < control.most;
    state.minimum = isKnown ? std::optional<int64_t>(control.least) : std::nullopt;
    state.maximum = isKnown ? std::optional<int64_t>(control.most) : std::nullopt;
  }
  if (control.automatic) {
    const auto mode = camera.readControl(cameraControl(*control.automatic), ControlRequest::kCurrent);
    if (mode) state.isAutomatic = *mode == 1;
  }
  return state;
}

std::vector<ControlState> statesOf(const VeskVideoDevice& camera) {
  std::vector<ControlState> states;
  std::vector<std::string_view> silent;
  Error why;
  for (const CameraControl& control : cameraControls()) {
    if (auto state = stateOf(camera, control)) {
      states.push_back(*state);
    } else if (const Error error = camera.lastError(); !isMissing(error)) {
      silent.push_back(control.name);
      why = error;
    }
  }
  if (silent.empty()) return states;
  if (states.empty()) throw Failure(kFailed, why);
  reportLine("vesk: \"{}\" did not answer when asked for {}.", nameOf(*camera.deviceInfo()), fmt::join(silent, ", "));
  return states;
}

bool isMissing(const Error& error) {
  return error.cause == Cause::kNotSupported || error.cause == Cause::kRefused;
}

std::string rangeText(const ControlState& state) {
  return state.minimum ? fmt::format("{} to {}", *state.minimum, *state.maximum) : "?";
}

std::string reasonOf(const Error& error, const ControlState& state) {
  if (state.isAutomatic.value_or(false)) return fmt::format("{} is on", cameraControl(*state.control.automatic).name);
  return error.what;
}

Outcome applySettings(VeskVideoDevice& camera, const std::map<std::string, int64_t>& values) {
  Outcome outcome;
  const auto applyAll = [&](auto isTurn) {
    for (const auto& [name, value] : values) {
      const CameraControl* const control = cameraControlNamed(name);
      const bool isMode = control && isAutomaticMode(*control);
      if (isTurn(isMode, value)) applyOne(camera, values, name, control, value, outcome);
    }
  };
  applyAll([](bool isMode, int64_t value) { return isMode && value == 0; });
  applyAll([](bool isMode, int64_t) { return !isMode; });
  applyAll([](bool isMode, int64_t value) { return isMode && value != 0; });
  return outcome;
}

std::string leftToAutomatic(const std::vector<std::string>& names) {
  return names.empty() ? "" : fmt::format("; left to automatic modes: {}", fmt::join(names, ", "));
}

void printOutcome(const GlobalOptions& global, const VeskDeviceInfo& camera, const Outcome& outcome,
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
