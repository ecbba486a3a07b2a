#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/control_settings.h>
#include <vesk/video_device.h>
#include "apps/vesk/program.h"

namespace vesk::program {

/// Settings from a file. @throws Failure when it holds none.
ControlSettings loadSettings(const std::string& path);
/// All that the camera has; standard error names those that it did not answer for.
/// @throws Failure when it answers for none
std::vector<ControlState> statesOf(const VeskVideoDevice& camera);
/// "-64 to 64", or "?" where nobody reports it.
std::string rangeText(const ControlState& state);

/// "; left to automatic modes: exposure, focus", or nothing for none.
std::string leftToAutomatic(const std::vector<std::string>& names);
/// Prints what was applied and what was left to automatic modes and, a line each, what was not and why. `event` is for
/// scripts, null for none.
void printOutcome(const GlobalOptions& global, const VeskDeviceInfo& camera, const ControlOutcome& outcome,
                  const char* event);

/// The camera that `text` names; where it names none, the one that the settings were saved from: plugged
/// in elsewhere it has another path, and is the only one of its vendor and product.
/// @throws Failure; DeviceMissing when it is not attached
std::shared_ptr<VeskVideoDevice> cameraFor(const ControlSettings& settings, const std::string& text);

}  // namespace vesk::program
