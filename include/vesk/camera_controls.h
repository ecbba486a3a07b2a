#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include <vesk/export.h>
#include <vesk/property_sets.h>

namespace vesk {

/// The image, lens and motion controls of cameras, in the order in which they are listed.
enum class ControlID : uint8_t {
  kBrightness,
  kContrast,
  kSaturation,
  kHue,
  kAutoHue,
  kSharpness,
  kWhiteBalance,
  kAutoWhiteBalance,
  kExposure,
  kAutoExposure,
  kSunTrim,
  kAntiFlicker,
  kFocus,
  kAutoFocus,
  kZoom,
  kPan,
  kTilt,
  kMirror,
  kRelativeZoom,
  kRelativePan,
  kRelativeTilt,
};

/// What is asked of a control.
enum class ControlRequest : uint32_t {
  kCurrent = capture::kRequestCurrent,
  kDefault = capture::kRequestDefault,
  kMinimum = capture::kRequestMinimum,
  kMaximum = capture::kRequestMaximum,
};

/// How a control's number lies in its property's value; integers are little-endian.
enum class ControlType : uint8_t {
  kSwitch,        ///< a byte, 1 or 0
  kExposureMode,  ///< a byte: 1 and 0 stand for capture::kAperturePriority and kManualExposure
  kByte,
  kSigned8,
  kSigned16,
  kUnsigned16,
  kSigned32,
  kUnsigned32,
};

/// Where a control's number stands in its property's value, which may hold two.
enum class ControlPlace : uint8_t {
  kAlone,
  kFirstOfPosition,  ///< with another number, which stays when this one is set
  kSecondOfPosition,
  kFirstOfMove,  ///< with another number, which is 0 when this one is set
  kSecondOfMove,
};

/// A row of the table of controls.
struct CameraControl {
  ControlID id;
  std::string_view name;
  capture::PropertySetIdentifier set;
  uint32_t number;  ///< of the property in its set
  uint32_t size;    ///< of the property's value in bytes
  ControlType type;
  ControlPlace place;
  std::string_view unit;               ///< empty: none that is defined
  std::optional<ControlID> automatic;  ///< the mode that sets this control itself while it is on
  std::string_view meaning;            ///< one line for a person
  int32_t least;                       ///< the range where the camera does not tell one
  int32_t most;

  /// A move, and not a setting that lasts.
  bool isMomentary() const {
    return place == ControlPlace::kFirstOfMove || place == ControlPlace::kSecondOfMove ||
           id == ControlID::kRelativeZoom;
  }
  /// Either on or off.
  bool isSwitch() const { return type == ControlType::kSwitch || type == ControlType::kExposureMode; }
};

/// All controls that there are, whatever a camera has of them; the index is the identifier.
VESK_EXPORT std::span<const CameraControl> cameraControls();
VESK_EXPORT const CameraControl& cameraControl(ControlID id);
/// The control called `name`; null when there is none.
VESK_EXPORT const CameraControl* cameraControlNamed(std::string_view name);

}  // namespace vesk
