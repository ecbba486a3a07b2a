#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <vector>

#include <vesk/video_device.h>
#include "apps/vesk/camera_settings.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

const CameraControl& controlNamed(const std::string& name) {
  if (const CameraControl* const control = cameraControlNamed(name)) return *control;
  std::vector<std::string_view> names;
  for (const CameraControl& each : cameraControls()) names.push_back(each.name);
  throw Failure(kWrongUse, fmt::format("there is no control \"{}\".", name),
                fmt::format("Controls are: {}.", fmt::join(names, ", ")));
}

ControlState requiredState(const VeskVideoDevice& camera, const CameraControl& control) {
  Error why;
  if (auto state = controlState(camera, control.id, &why)) return *state;
  if (!isControlMissing(why)) throw Failure(kFailed, why);
  throw Failure(kFailed, fmt::format("\"{}\" has no {}.", nameOf(*camera.deviceInfo()), control.name),
                "\"vesk controls list\" shows what it has.");
}

Json describe(const ControlState& state) {
  const auto orNull = [](const auto& value) { return value ? Json(*value) : Json(nullptr); };
  return {{"name", state.control().name}, {"min", orNull(state.minimum)},     {"max", orNull(state.maximum)},
          {"current", state.current},     {"default", orNull(state.initial)}, {"auto", orNull(state.isAutomatic)},
          {"unit", state.control().unit}};
}

std::string currentText(const ControlState& state) {
  if (state.control().isSwitch()) return state.current != 0 ? "on" : "off";
  return fmt::format("{}{}", state.current, state.isAutomatic.value_or(false) ? " (auto)" : "");
}

void printTable(const std::vector<ControlState>& states) {
  if (states.empty()) {
    printLine("This camera has no controls.");
    return;
  }
  std::vector<std::vector<std::string>> rows = {{"control", "current", "range", "default", "unit"}};
  for (const ControlState& state : states)
    rows.push_back({std::string(state.control().name), currentText(state),
                    state.control().isSwitch() ? "off, on" : rangeText(state),
                    !state.initial               ? "?"
                    : state.control().isSwitch() ? (*state.initial != 0 ? "on" : "off")
                                                 : std::to_string(*state.initial),
                    std::string(state.control().unit)});
  std::vector<size_t> widths(rows.front().size());
  for (const auto& row : rows)
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i + 1 < row.size(); ++i) line += fmt::format("{:<{}}  ", row[i], widths[i]);
    line += row.back();
    printLine("{}", line.substr(0, line.find_last_not_of(' ') + 1));
  }
}

void print(const GlobalOptions& global, const std::vector<ControlState>& states) {
  if (!global.json) {
    printTable(states);
    return;
  }
  Json list = Json::array();
  for (const ControlState& state : states) list.push_back(describe(state));
  printJson({{"controls", list}});
}

/// The number that `text` asks a control for.
int64_t readValue(const ControlState& state, const std::string& text) {
  if (text == "default") {
    if (state.initial) return *state.initial;
    throw Failure(kFailed, fmt::format("the camera does not report the default of {}.", state.control().name),
                  "Give a number.");
  }
  if (state.control().isSwitch()) {
    if (text == "on" || text == "1" || text == "yes" || text == "true") return 1;
    if (text == "off" || text == "0" || text == "no" || text == "false") return 0;
    throw Failure(kWrongUse, fmt::format("\"{}\" is not a value of {}.", text, state.control().name),
                  "Write on or off.");
  }
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size())
    throw Failure(kWrongUse, fmt::format("\"{}\" is not a value of {}.", text, state.control().name),
                  fmt::format("Write a whole number, {}{}.", rangeText(state),
                              state.control().automatic ? ", \"default\" or \"auto\"" : " or \"default\""));
  if (!state.takes(value))
    throw Failure(kWrongUse, fmt::format("{} is out of the range of {}.", value, state.control().name),
                  fmt::format("Write a number from {}.", rangeText(state)));
  return value;
}

class Controls {
 public:
  Controls(const GlobalOptions& global, const ControlsOptions& options)
      : mGlobal(global), mOptions(options), mHost(global) {}

  int run() {
    switch (mOptions.action) {
      case ControlsOptions::Action::kList:
        open(chooseCamera(mOptions.camera));
        print(mGlobal, statesOf(*mCamera));
        break;
      case ControlsOptions::Action::kGet:
        open(chooseCamera(mOptions.camera));
        get();
        break;
      case ControlsOptions::Action::kSet:
        set();
        break;
      case ControlsOptions::Action::kReset:
        return reset();
      case ControlsOptions::Action::kSave:
        save();
        break;
      case ControlsOptions::Action::kLoad:
        return load();
      case ControlsOptions::Action::kKeep:
        break;  // a command of its own
    }
    return kDone;
  }

 private:
  void open(std::shared_ptr<VeskVideoDevice> camera) {
    mCamera = std::move(camera);
    openDevice(*mCamera);
  }

  void get() {
    const ControlState state = requiredState(*mCamera, controlNamed(mOptions.name));
    if (mGlobal.json)
      print(mGlobal, {state});
    else
      printLine("{}", state.control().isSwitch() ? currentText(state) : std::to_string(state.current));
  }

  void set() {
    const CameraControl& named = controlNamed(mOptions.name);
    open(chooseCamera(mOptions.camera));
    const bool isAuto = mOptions.value == "auto" && named.automatic;
    const CameraControl& control = isAuto ? cameraControl(*named.automatic) : named;
    const ControlState before = requiredState(*mCamera, control);
    write(before, isAuto ? 1 : readValue(before, mOptions.value));
  }

  void write(const ControlState& before, int64_t value) {
    const std::string name(before.control().name);
    if (mCamera->writeControl(before.control(), value) != 0) {
      const bool isRuled = before.isAutomatic.value_or(false);
      throw Failure(kBusy, fmt::format("{} was not set: {}.", name, refusalReason(mCamera->lastError(), before)),
                    isRuled ? fmt::format("Turn it off first: vesk controls set {} off.",
                                          cameraControl(*before.control().automatic).name)
                            : "\"vesk controls list\" shows what it takes.");
    }
    const ControlState after = controlState(*mCamera, before.id).value_or(before);
    if (after.current != value && !after.control().isMomentary())
      reportLine("vesk: the camera rounded it to {}.", after.current);
    print(mGlobal, {after});
  }

  int reset() {
    if (!mOptions.name.empty()) {
      const CameraControl& control = controlNamed(mOptions.name);
      open(chooseCamera(mOptions.camera));
      const ControlState state = requiredState(*mCamera, control);
      write(state, readValue(state, "default"));
      return kDone;
    }
    open(chooseCamera(mOptions.camera));
    return finish(applyControlValues(*mCamera, initialValues(statesOf(*mCamera))));
  }

  void save() {
    std::error_code ignored;
    if (!mOptions.force && fs::exists(fs::symlink_status(mOptions.file, ignored)))
      throw Failure(kFailed, fmt::format("\"{}\" exists already.", mOptions.file),
                    "Choose another name, or replace it with --force.");
    open(chooseCamera(mOptions.camera));
    const VeskDeviceInfo& info = *mCamera->deviceInfo();
    const std::vector<ControlState> states = statesOf(*mCamera);
    const ControlSettings settings{nameOf(info), info.path().value_or(""), info.vendorID(), info.productID(),
                                   lastingValues(states)};
    std::vector<std::string> automatic;
    for (const ControlState& state : states)
      if (state.isAutomatic.value_or(false)) automatic.emplace_back(state.control().name);
    if (const Error error = saveControlSettings(mOptions.file, settings))
      throw Failure(kFailed, fmt::format("the settings could not be written: {}.", error.what),
                    "Choose another place.");
    if (mGlobal.json)
      printJson({{"file", mOptions.file}, {"settings", settings.values.size()}, {"automatic", automatic}});
    else
      printLine("{}: {} settings of {}{}", mOptions.file, settings.values.size(), settings.cameraName,
                leftToAutomatic(automatic));
  }

  int load() {
    const ControlSettings settings = loadSettings(mOptions.file);
    open(cameraFor(settings, mOptions.camera));
    return finish(applyControlValues(*mCamera, settings.values));
  }

  int finish(const ControlOutcome& outcome) const {
    printOutcome(mGlobal, *mCamera->deviceInfo(), outcome, nullptr);
    return outcome.refused.empty() ? kDone : kFailed;
  }

  const GlobalOptions& mGlobal;
  const ControlsOptions& mOptions;
  const Host mHost;
  std::shared_ptr<VeskVideoDevice> mCamera;
};

}  // namespace

int runControls(const GlobalOptions& global, const ControlsOptions& options) {
  if (options.action == ControlsOptions::Action::kKeep) return runKeep(global, options);
  return Controls(global, options).run();
}

}  // namespace vesk::program
