#pragma once

#include <cstdint>
#include <string>

#include <vesk/control_settings.h>

namespace vesk::camera {

// The camera's controls in words for people who film.

/// Where a control is shown.
enum class ControlGroup { kPicture, kExposure, kFocus, kHead };

ControlGroup groupOf(ControlID id);
std::string titleOf(ControlGroup group);
/// "Warmth", "Automatic exposure".
std::string titleOf(ControlID id);
/// What it is good for, in a line; may be empty.
std::string hintOf(ControlID id);
/// "4600 K", "1/50 s", "25 cm"; a scale of the camera's own has numbers only.
std::string valueText(ControlID id, int64_t value);
/// "2 settings were not applied: Warmth (automatic white balance is on)", from names and reasons.
std::string refusalText(const ControlOutcome& outcome);

/// What a control is shown as.
enum class ControlLook { kSwitch, kChoice, kSlider };
ControlLook lookOf(const ControlState& state);

/// Where a value lies on a slider from 0 to 1, and the way back. Times lie evenly by their ratio, all else by its
/// difference.
double placeOnSlider(const ControlState& state, int64_t value);
int64_t valueOnSlider(const ControlState& state, double place);

}  // namespace vesk::camera
