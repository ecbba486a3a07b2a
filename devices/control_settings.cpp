#include <vesk/control_settings.h>

#include <fmt/core.h>

#include <algorithm>

#include <vesk/video_device.h>

namespace vesk {
namespace {

std::string rangeText(const ControlState& state) {
  return state.minimum ? fmt::format("{} to {}", *state.minimum, *state.maximum) : "?";
}

void applyOne(VeskVideoDevice& camera, const ControlValues& values, const std::string& name,
              const CameraControl* control, int64_t value, ControlOutcome& outcome) {
  const auto refuse = [&](const std::string& reason) { outcome.refused.emplace_back(name, reason); };
  if (!control || control->isMomentary()) return refuse("there is no such setting");
  Error why;
  const auto state = controlState(camera, control->id, &why);
  if (!state) return refuse(isControlMissing(why) ? "the camera does not have it" : why.what);
  if (!state->takes(value)) return refuse(fmt::format("{} is out of its range, {}", value, rangeText(*state)));
  if (state->isAutomatic.value_or(false)) {
    const auto mode = values.find(std::string(cameraControl(*control->automatic).name));
    if (mode != values.end() && mode->second != 0) {
      outcome.automatic.push_back(name);
      return;
    }
  }
  if (camera.writeControl(*control, value) != 0) return refuse(refusalReason(camera.lastError(), *state));
  outcome.applied.push_back(name);
}

template <class NumberOf>
ControlValues valuesOf(const std::vector<ControlState>& states, NumberOf&& numberOf) {
  ControlValues values;
  for (const ControlState& state : states) {
    const std::optional<int64_t> number = numberOf(state);
    if (number && !state.control().isMomentary()) values[std::string(state.control().name)] = *number;
  }
  return values;
}

}  // namespace

std::optional<ControlState> controlState(const VeskVideoDevice& camera, ControlID id, Error* why) {
  const CameraControl& control = cameraControl(id);
  const auto current = camera.readControl(control, ControlRequest::kCurrent);
  if (why) *why = current ? Error() : camera.lastError();
  if (!current) return std::nullopt;
  ControlState state{id, {}, {}, *current, camera.readControl(control, ControlRequest::kDefault), {}};
  if (!control.isSwitch()) {
    state.minimum = camera.readControl(control, ControlRequest::kMinimum);
    state.maximum = camera.readControl(control, ControlRequest::kMaximum);
    if (id == ControlID::kZoom) state.maximum = camera.getZoomMax();  // which knows some products better
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

bool isControlMissing(const Error& why) {
  return why.cause == Cause::kNotSupported || why.cause == Cause::kRefused;
}

bool updateControlState(const VeskVideoDevice& camera, ControlState& state) {
  const auto current = camera.readControl(state.control(), ControlRequest::kCurrent);
  if (!current) return false;
  state.current = *current;
  if (!state.isAutomatic) return true;
  const auto mode = camera.readControl(cameraControl(*state.control().automatic), ControlRequest::kCurrent);
  if (mode) state.isAutomatic = *mode == 1;
  return mode.has_value();
}

ControlStates controlStates(const VeskVideoDevice& camera) {
  ControlStates answer;
  for (const CameraControl& control : cameraControls()) {
    Error why;
    if (const auto state = controlState(camera, control.id, &why)) {
      answer.states.push_back(*state);
    } else if (!isControlMissing(why)) {
      answer.silent.push_back(control.id);
      answer.error = why;
    }
  }
  return answer;
}

bool isAutomaticMode(const CameraControl& control) {
  const auto all = cameraControls();
  return std::any_of(all.begin(), all.end(), [&](const CameraControl& each) { return each.automatic == control.id; });
}

ControlValues lastingValues(const std::vector<ControlState>& states) {
  return valuesOf(states, [](const ControlState& state) { return std::optional(state.current); });
}

ControlValues initialValues(const std::vector<ControlState>& states) {
  return valuesOf(states, [](const ControlState& state) { return state.initial; });
}

ControlOutcome applyControlValues(VeskVideoDevice& camera, const ControlValues& values) {
  ControlOutcome outcome;
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

std::string refusalReason(const Error& error, const ControlState& state) {
  if (state.isAutomatic.value_or(false)) return fmt::format("{} is on", cameraControl(*state.control().automatic).name);
  return error.what;
}

}  // namespace vesk
