#include "apps/camera/control_words.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

struct Words {
  ControlID id;
  ControlGroup group;
  const char* title;
  const char* hint;
};

constexpr Words kWords[] = {
    {ControlID::kBrightness, ControlGroup::kPicture, N_("Brightness"), ""},
    {ControlID::kContrast, ControlGroup::kPicture, N_("Contrast"), ""},
    {ControlID::kSaturation, ControlGroup::kPicture, N_("Colour strength"), N_("At the left end the picture is grey")},
    {ControlID::kHue, ControlGroup::kPicture, N_("Colour tint"), N_("Turns all colours round the colour circle")},
    {ControlID::kAutoHue, ControlGroup::kPicture, N_("Automatic tint"), ""},
    {ControlID::kSharpness, ControlGroup::kPicture, N_("Sharpness"), ""},
    {ControlID::kWhiteBalance, ControlGroup::kPicture, N_("Warmth"),
     N_("The light in the room: about 2800 K for lamps, 6500 K for a cloudy sky")},
    {ControlID::kAutoWhiteBalance, ControlGroup::kPicture, N_("Automatic white balance"),
     N_("The camera finds out what is white")},
    {ControlID::kExposure, ControlGroup::kExposure, N_("Exposure time"), N_("Longer is lighter, and blurs what moves")},
    {ControlID::kAutoExposure, ControlGroup::kExposure, N_("Automatic exposure"),
     N_("Turned off, the camera also keeps its rate in the dark")},
    {ControlID::kSunTrim, ControlGroup::kExposure, N_("Tame bright light"), ""},
    {ControlID::kAntiFlicker, ControlGroup::kExposure, N_("Flicker of lamps"),
     N_("Mains where you film: 60 Hz in America, 50 Hz elsewhere")},
    {ControlID::kFocus, ControlGroup::kFocus, N_("Distance in focus"), ""},
    {ControlID::kAutoFocus, ControlGroup::kFocus, N_("Automatic focus"), ""},
    {ControlID::kZoom, ControlGroup::kHead, N_("Zoom"), ""},
    {ControlID::kPan, ControlGroup::kHead, N_("Turned to the side"), ""},
    {ControlID::kTilt, ControlGroup::kHead, N_("Turned up or down"), ""},
    {ControlID::kMirror, ControlGroup::kPicture, N_("Mirrored by the camera"), N_("Films are mirrored too")},
    {ControlID::kRelativeZoom, ControlGroup::kHead, N_("Zoom"), ""},
    {ControlID::kRelativePan, ControlGroup::kHead, N_("Turned to the side"), ""},
    {ControlID::kRelativeTilt, ControlGroup::kHead, N_("Turned up or down"), ""},
};
constexpr bool areOrdered() {
  for (size_t index = 0; index < std::size(kWords); ++index)
    if (kWords[index].id != static_cast<ControlID>(index)) return false;
  return true;
}
static_assert(areOrdered(), "the index of a row is its control");

const Words& wordsOf(ControlID id) {
  return kWords[static_cast<size_t>(id)];
}

std::string exposureText(double seconds) {
  constexpr double kLong = 0.3;  // shutters of cameras are marked in fractions up to there
  if (seconds >= kLong) return filled(_("{:.1f} s"), seconds);
  return seconds > 0 ? filled(_("1/{:.0f} s"), 1 / seconds) : filled(_("{} s"), 0);
}

std::string distanceText(int64_t millimetres) {
  if (millimetres >= 1000) return filled(_("{:.1f} m"), static_cast<double>(millimetres) / 1000);
  if (millimetres >= 100) return filled(_("{:.0f} cm"), static_cast<double>(millimetres) / 10);
  return filled(_("{} mm"), millimetres);
}

/// Twice the time is twice the light: its ends lie too far apart to be even otherwise.
bool isByRatio(const ControlState& state) {
  constexpr int64_t kWide = 20;
  return state.id == ControlID::kExposure && state.minimum > 0 && *state.maximum / *state.minimum >= kWide;
}

}  // namespace

ControlGroup groupOf(ControlID id) {
  return wordsOf(id).group;
}

std::string titleOf(ControlGroup group) {
  switch (group) {
    case ControlGroup::kPicture:
      return _("Picture");
    case ControlGroup::kExposure:
      return _("Exposure");
    case ControlGroup::kFocus:
      return _("Focus");
    case ControlGroup::kHead:
      return _("Zoom and movement");
  }
  return "";
}

std::string titleOf(ControlID id) {
  return _(wordsOf(id).title);
}

std::string hintOf(ControlID id) {
  const char* const hint = wordsOf(id).hint;
  return *hint ? _(hint) : "";
}

std::string valueText(ControlID id, int64_t value) {
  constexpr double kExposureUnit = 1e-4;
  switch (id) {
    case ControlID::kExposure:
      return exposureText(static_cast<double>(value) * kExposureUnit);
    case ControlID::kWhiteBalance:
      return filled(_("{} K"), value);
    case ControlID::kFocus:
      return distanceText(value);
    case ControlID::kPan:
    case ControlID::kTilt:
      return filled(_("{:.1f}°"), static_cast<double>(value) / 3600);
    case ControlID::kHue:
      return filled(_("{:.0f}°"), static_cast<double>(value) / 100);
    case ControlID::kAntiFlicker:
      switch (value) {
        case 0:
          return _("Left as it is");
        case 1:
          return _("50 Hz");
        case 2:
          return _("60 Hz");
        case 3:
          return _("Automatic");
        default:
          break;
      }
      break;
    case ControlID::kBrightness:
    case ControlID::kContrast:
    case ControlID::kSaturation:
    case ControlID::kAutoHue:
    case ControlID::kSharpness:
    case ControlID::kAutoWhiteBalance:
    case ControlID::kAutoExposure:
    case ControlID::kSunTrim:
    case ControlID::kAutoFocus:
    case ControlID::kZoom:
    case ControlID::kMirror:
    case ControlID::kRelativeZoom:
    case ControlID::kRelativePan:
    case ControlID::kRelativeTilt:
      break;
  }
  return std::to_string(value);
}

std::string refusalText(const ControlOutcome& outcome) {
  std::string each;
  for (const auto& [name, reason] : outcome.refused) {
    const CameraControl* const control = cameraControlNamed(name);
    each += (each.empty() ? "" : ", ") + (control ? titleOf(control->id) : name) + " (" + reason + ")";
  }
  const auto count = static_cast<unsigned long>(outcome.refused.size());
  return filled(ngettext("a setting was not applied: {1}", "{0} settings were not applied: {1}", count), count, each);
}

ControlLook lookOf(const ControlState& state) {
  if (state.control().isSwitch() || (state.minimum == 0 && state.maximum == 1)) return ControlLook::kSwitch;
  return state.id == ControlID::kAntiFlicker ? ControlLook::kChoice : ControlLook::kSlider;
}

double placeOnSlider(const ControlState& state, int64_t value) {
  if (!state.takes(value)) value = value < *state.minimum ? *state.minimum : *state.maximum;
  const auto least = static_cast<double>(state.minimum.value_or(0)),
             most = static_cast<double>(state.maximum.value_or(0));
  if (most <= least) return 0;
  if (isByRatio(state)) return std::log(static_cast<double>(value) / least) / std::log(most / least);
  return (static_cast<double>(value) - least) / (most - least);
}

int64_t valueOnSlider(const ControlState& state, double place) {
  const auto least = static_cast<double>(state.minimum.value_or(0)),
             most = static_cast<double>(state.maximum.value_or(0));
  place = std::clamp(place, 0.0, 1.0);
  return std::llround(isByRatio(state) ? least * std::pow(most / least, place) : least + (most - least) * place);
}

}  // namespace vesk::camera
