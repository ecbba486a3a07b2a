#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include <vesk/camera_controls.h>
#include <vesk/property_sets.h>

/// How the numbers of properties lie in their values: the one table of it, for the devices that send them
/// and the sources that take them.

namespace vesk::capture {

struct NumberTraits {
  uint32_t width = 0;  ///< bytes
  int64_t least = 0;
  int64_t most = 0;
};

template <class Number>
constexpr NumberTraits wholeRange() {
  return {sizeof(Number), std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max()};
}

constexpr NumberTraits traitsOf(ControlType type) {
  switch (type) {
    case ControlType::kSwitch:
      return {1, 0, 1};
    case ControlType::kExposureMode:
    case ControlType::kByte:
      return wholeRange<uint8_t>();
    case ControlType::kSigned8:
      return wholeRange<int8_t>();
    case ControlType::kSigned16:
      return wholeRange<int16_t>();
    case ControlType::kUnsigned16:
      return wholeRange<uint16_t>();
    case ControlType::kSigned32:
      return wholeRange<int32_t>();
    case ControlType::kUnsigned32:
      return wholeRange<uint32_t>();
  }
  return {};
}

/// The number at a place of a value, which holds it.
inline int64_t readNumber(ControlType type, std::span<const uint8_t> value, size_t index = 0) {
  const NumberTraits traits = traitsOf(type);
  const auto bytes = value.subspan(index * traits.width, traits.width);
  int64_t number = 0;
  for (size_t i = bytes.size(); i-- > 0;) number = number << 8 | bytes[i];
  const int64_t sign = int64_t{1} << (8 * traits.width - 1);
  return traits.least < 0 && (number & sign) != 0 ? number - 2 * sign : number;
}

/// Puts the low bytes of a number at a place of a value, which has room for it.
inline void writeNumber(ControlType type, int64_t number, std::span<uint8_t> value, size_t index = 0) {
  const auto bytes = value.subspan(index * traitsOf(type).width, traitsOf(type).width);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(number >> (8 * i));
}

/// A property's value: numbers of one type, one after the other, little-endian.
struct PropertyLayout {
  PropertySetIdentifier set;
  uint32_t number;  ///< of the property in its set
  ControlType type;
  uint32_t count = 1;

  constexpr uint32_t size() const { return traitsOf(type).width * count; }
};

inline constexpr PropertyLayout kPropertyLayouts[] = {
    {kCameraControlSet, kAutoExposureMode, ControlType::kExposureMode},
    {kCameraControlSet, kAutoExposurePriority, ControlType::kSwitch},
    {kCameraControlSet, kExposure, ControlType::kUnsigned32},
    {kCameraControlSet, kFocus, ControlType::kUnsigned16},
    {kCameraControlSet, kAutoFocus, ControlType::kSwitch},
    {kCameraControlSet, kZoom, ControlType::kSigned32},
    {kCameraControlSet, kRelativeZoom, ControlType::kSigned32},
    {kCameraControlSet, kPanTilt, ControlType::kSigned32, 2},
    {kCameraControlSet, kRelativePanTilt, ControlType::kSigned8, 4},  // each a direction and a speed
    {kImageControlSet, kBrightness, ControlType::kSigned16},
    {kImageControlSet, kContrast, ControlType::kUnsigned16},
    {kImageControlSet, kAntiFlicker, ControlType::kByte},
    {kImageControlSet, kHue, ControlType::kSigned16},
    {kImageControlSet, kSaturation, ControlType::kUnsigned16},
    {kImageControlSet, kSharpness, ControlType::kUnsigned16},
    {kImageControlSet, kWhiteBalance, ControlType::kUnsigned16},
    {kImageControlSet, kAutoWhiteBalance, ControlType::kSwitch},
    {kImageControlSet, kAutoHue, ControlType::kSwitch},
    {kMirrorSet, kMirror, ControlType::kByte},
    {kSunTrimSet, kSunTrim, ControlType::kSwitch},
    {kRelativeMotionSet, kMotionPanTilt, ControlType::kSigned16, 2},
    {kRelativeMotionSet, kMotionReset, ControlType::kByte},  // a bit for each direction
    {kDeviceInformationSet, kFirmwareVersion, ControlType::kByte, 4},
    {kDeviceInformationSet, kFirmwareCRCControl, ControlType::kByte, 2},
    {kDeviceInformationSet, kEEPROMInfo, ControlType::kByte, 4},
    {kDeviceInformationSet, kSensorInfo, ControlType::kByte, 2},
    {kAlternateInformationSet, kFirmwareVersion, ControlType::kByte, 4},
    {kAlternateInformationSet, kFirmwareCRCControl, ControlType::kByte, 2},
    {kAlternateInformationSet, kEEPROMInfo, ControlType::kByte, 4},
    {kAlternateInformationSet, kSensorInfo, ControlType::kByte, 2},
};

/// The layout of a property. Properties that have none do not compile.
consteval const PropertyLayout& layoutOf(const PropertySetIdentifier& set, uint32_t number) {
  for (const PropertyLayout& layout : kPropertyLayouts)
    if (layout.number == number && layout.set == set) return layout;
  throw "no such property";
}

}  // namespace vesk::capture
