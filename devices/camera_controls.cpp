#include <vesk/camera_controls.h>

#include <algorithm>

namespace vesk {
namespace {

using namespace capture;
using enum ControlPlace;
using enum ControlType;
using ID = ControlID;

constexpr auto kNone = std::nullopt;

// clang-format off
constexpr CameraControl kControls[] = {
    {ID::kBrightness, "brightness", kImageControlSet, kBrightness, 2, kSigned16, kAlone, "", kNone,
     "how light the picture is", 0, 0},
    {ID::kContrast, "contrast", kImageControlSet, kContrast, 2, kUnsigned16, kAlone, "", kNone,
     "how far light and dark lie apart", 0, 0},
    {ID::kSaturation, "saturation", kImageControlSet, kSaturation, 2, kUnsigned16, kAlone, "", kNone,
     "how strong colours are; at the minimum the picture is grey", 0, 0},
    {ID::kHue, "hue", kImageControlSet, kHue, 2, kSigned16, kAlone, "1/100 degree", ID::kAutoHue,
     "turns the colours round the colour circle", 0, 0},
    {ID::kAutoHue, "autoHue", kImageControlSet, kAutoHue, 1, kSwitch, kAlone, "", kNone,
     "the camera sets the hue", 0, 1},
    {ID::kSharpness, "sharpness", kImageControlSet, kSharpness, 2, kUnsigned16, kAlone, "", kNone,
     "how much edges are brought out", 0, 0},
    {ID::kWhiteBalance, "whiteBalance", kImageControlSet, kWhiteBalance, 2, kUnsigned16, kAlone, "kelvin", ID::kAutoWhiteBalance,
     "the colour temperature of the light that is to look white", 0, 0},
    {ID::kAutoWhiteBalance, "autoWhiteBalance", kImageControlSet, kAutoWhiteBalance, 1, kSwitch, kAlone, "", kNone,
     "the camera sets the white balance", 0, 1},
    {ID::kExposure, "exposure", kCameraControlSet, kExposure, 4, kUnsigned32, kAlone, "100 µs", ID::kAutoExposure,
     "how long each picture is exposed", 0, 0},
    {ID::kAutoExposure, "autoExposure", kCameraControlSet, kAutoExposureMode, 1, kExposureMode, kAlone, "", kNone,
     "the camera sets the exposure; turned off, it also keeps its picture rate in the dark", 0, 1},
    {ID::kSunTrim, "sunTrim", kSunTrimSet, kSunTrim, 1, kSwitch, kAlone, "", kNone,
     "tames very bright light", 0, 1},
    {ID::kAntiFlicker, "antiFlicker", kImageControlSet, kAntiFlicker, 1, kByte, kAlone, "", kNone,
     "the mains frequency of the lamps: 0 none, 1 50 Hz, 2 60 Hz, 3 found out by the camera", 0, 3},
    {ID::kFocus, "focus", kCameraControlSet, kFocus, 2, kUnsigned16, kAlone, "mm", ID::kAutoFocus,
     "the distance that is sharp", 0, 0},
    {ID::kAutoFocus, "autoFocus", kCameraControlSet, kAutoFocus, 1, kSwitch, kAlone, "", kNone,
     "the camera sets the focus", 0, 1},
    {ID::kZoom, "zoom", kCameraControlSet, kZoom, 4, kSigned32, kAlone, "", kNone,
     "magnification; the steps are the camera's own", 0, 0},
    {ID::kPan, "pan", kCameraControlSet, kPanTilt, 8, kSigned32, kFirstOfPosition, "arc seconds", kNone,
     "where the head points, to the right above 0 (as the camera looks: clockwise from above)", 0, 0},
    {ID::kTilt, "tilt", kCameraControlSet, kPanTilt, 8, kSigned32, kSecondOfPosition, "arc seconds", kNone,
     "where the head points, up above 0", 0, 0},
    {ID::kMirror, "mirror", kMirrorSet, kMirror, 1, kByte, kAlone, "", kNone,
     "1 shows the picture as a mirror would", 0, 1},
    {ID::kRelativeZoom, "relativeZoom", kCameraControlSet, kRelativeZoom, 4, kSigned32, kAlone, "", kNone,
     "zooms in above 0 and out below", 0, 0},
    {ID::kRelativePan, "relativePan", kRelativeMotionSet, kMotionPanTilt, 4, kSigned16, kFirstOfMove, "", kNone,
     "turns the head sideways from where it is, to the right above 0; the steps are the camera's own", 0, 0},
    {ID::kRelativeTilt, "relativeTilt", kRelativeMotionSet, kMotionPanTilt, 4, kSigned16, kSecondOfMove, "", kNone,
     "turns the head up above 0 and down below, from where it is; the steps are the camera's own", 0, 0},
};
// clang-format on

constexpr bool isOrdered() {
  for (size_t index = 0; index < std::size(kControls); ++index)
    if (kControls[index].id != static_cast<ControlID>(index)) return false;
  return true;
}
static_assert(isOrdered(), "the index of a row is its identifier");

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
