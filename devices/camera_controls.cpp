#include <vesk/camera_controls.h>

#include <algorithm>

#include "capture/interface/property_layouts.h"

namespace vesk {
namespace {

using namespace capture;
using enum ControlPlace;
using ID = ControlID;

constexpr auto kNone = std::nullopt;

constexpr CameraControl row(ID id, std::string_view name, const PropertyLayout& layout, ControlPlace place,
                            std::string_view unit, std::optional<ID> automatic, std::string_view meaning, int32_t least,
                            int32_t most) {
  return {id,    name, layout.set, layout.number, layout.size(), layout.type,
          place, unit, automatic,  meaning,       least,         most};
}

// clang-format off
constexpr CameraControl kControls[] = {
    row(ID::kBrightness, "brightness", layoutOf(kImageControlSet, kBrightness), kAlone, "", kNone,
     "how light the picture is", 0, 0),
    row(ID::kContrast, "contrast", layoutOf(kImageControlSet, kContrast), kAlone, "", kNone,
     "how far light and dark lie apart", 0, 0),
    row(ID::kSaturation, "saturation", layoutOf(kImageControlSet, kSaturation), kAlone, "", kNone,
     "how strong colours are; at the minimum the picture is grey", 0, 0),
    row(ID::kHue, "hue", layoutOf(kImageControlSet, kHue), kAlone, "1/100 degree", ID::kAutoHue,
     "turns the colours round the colour circle", 0, 0),
    row(ID::kAutoHue, "autoHue", layoutOf(kImageControlSet, kAutoHue), kAlone, "", kNone,
     "the camera sets the hue", 0, 1),
    row(ID::kSharpness, "sharpness", layoutOf(kImageControlSet, kSharpness), kAlone, "", kNone,
     "how much edges are brought out", 0, 0),
    row(ID::kWhiteBalance, "whiteBalance", layoutOf(kImageControlSet, kWhiteBalance), kAlone, "kelvin", ID::kAutoWhiteBalance,
     "the colour temperature of the light that is to look white", 0, 0),
    row(ID::kAutoWhiteBalance, "autoWhiteBalance", layoutOf(kImageControlSet, kAutoWhiteBalance), kAlone, "", kNone,
     "the camera sets the white balance", 0, 1),
    row(ID::kExposure, "exposure", layoutOf(kCameraControlSet, kExposure), kAlone, "100 µs", ID::kAutoExposure,
     "how long each picture is exposed", 0, 0),
    row(ID::kAutoExposure, "autoExposure", layoutOf(kCameraControlSet, kAutoExposureMode), kAlone, "", kNone,
     "the camera sets the exposure; turned off, it also keeps its picture rate in the dark", 0, 1),
    row(ID::kSunTrim, "sunTrim", layoutOf(kSunTrimSet, kSunTrim), kAlone, "", kNone,
     "tames very bright light", 0, 1),
    row(ID::kAntiFlicker, "antiFlicker", layoutOf(kImageControlSet, kAntiFlicker), kAlone, "", kNone,
     "the mains frequency of the lamps: 0 none, 1 50 Hz, 2 60 Hz, 3 found out by the camera", 0, 3),
    row(ID::kFocus, "focus", layoutOf(kCameraControlSet, kFocus), kAlone, "mm", ID::kAutoFocus,
     "the distance that is sharp", 0, 0),
    row(ID::kAutoFocus, "autoFocus", layoutOf(kCameraControlSet, kAutoFocus), kAlone, "", kNone,
     "the camera sets the focus", 0, 1),
    row(ID::kZoom, "zoom", layoutOf(kCameraControlSet, kZoom), kAlone, "", kNone,
     "magnification; the steps are the camera's own", 0, 0),
    row(ID::kPan, "pan", layoutOf(kCameraControlSet, kPanTilt), kFirstOfPosition, "arc seconds", kNone,
     "where the head points, to the right above 0 (as the camera looks: clockwise from above)", 0, 0),
    row(ID::kTilt, "tilt", layoutOf(kCameraControlSet, kPanTilt), kSecondOfPosition, "arc seconds", kNone,
     "where the head points, up above 0", 0, 0),
    row(ID::kMirror, "mirror", layoutOf(kMirrorSet, kMirror), kAlone, "", kNone,
     "1 shows the picture as a mirror would", 0, 1),
    row(ID::kRelativeZoom, "relativeZoom", layoutOf(kCameraControlSet, kRelativeZoom), kAlone, "", kNone,
     "zooms in above 0 and out below", 0, 0),
    row(ID::kRelativePan, "relativePan", layoutOf(kRelativeMotionSet, kMotionPanTilt), kFirstOfMove, "", kNone,
     "turns the head sideways from where it is, to the right above 0; the steps are the camera's own", 0, 0),
    row(ID::kRelativeTilt, "relativeTilt", layoutOf(kRelativeMotionSet, kMotionPanTilt), kSecondOfMove, "", kNone,
     "turns the head up above 0 and down below, from where it is; the steps are the camera's own", 0, 0),
};
// clang-format on

constexpr bool isOrdered() {
  for (size_t index = 0; index < std::size(kControls); ++index)
    if (kControls[index].id != static_cast<ControlID>(index)) return false;
  return true;
}
static_assert(isOrdered(), "the index of a row is its identifier");

constexpr bool haveTheirPlaces() {
  return std::all_of(std::begin(kControls), std::end(kControls), [](const CameraControl& control) {
    return control.size == traitsOf(control.type).width * (control.place == kAlone ? 1U : 2U);
  });
}
static_assert(haveTheirPlaces(), "a control is alone in its property's value, or one of two");

}  // namespace

std::span<const CameraControl> cameraControls() {
  return kControls;
}

const CameraControl& cameraControl(ControlID id) {
  return kControls[static_cast<size_t>(id)];
}

const CameraControl* cameraControlNamed(std::string_view name) {
  const auto found = std::find_if(std::begin(kControls), std::end(kControls),
                                  [name](const CameraControl& control) { return control.name == name; });
  return found == std::end(kControls) ? nullptr : found;
}

}  // namespace vesk
