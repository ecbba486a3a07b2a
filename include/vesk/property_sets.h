#pragma once

#include <array>
#include <cstdint>
#include <string_view>

/// The property sets of cameras, and the numbers of the properties in them. The camera control set
/// and the image control set hold what UVC 1.1 calls the controls of a camera terminal (4.2.2.1) and
/// of a processing unit (4.2.2.3), numbered as there; the others are the makers' own.

namespace vesk::capture {

/// The bytes of a set's identifier, in the order of its text.
using PropertySetIdentifier = std::array<uint8_t, 16>;

/// The identifier that a text such as "EEACD05B-1930-487F-80EA-A91A94B64F51" stands for. Texts that
/// are no identifier do not compile.
consteval PropertySetIdentifier propertySetIdentifier(std::string_view text) {
  constexpr size_t kLength = 36;
  if (text.size() != kLength) throw "an identifier has 36 characters";
  const auto digit = [](char character) -> unsigned {
    if (character >= '0' && character <= '9') return static_cast<unsigned>(character - '0');
    if (character >= 'A' && character <= 'F') return static_cast<unsigned>(character - 'A' + 10);
    throw "an identifier is made of hexadecimal digits";
  };
  PropertySetIdentifier identifier{};
  size_t at = 0;
  for (size_t place = 0; place < kLength;) {
    if (place == 8 || place == 13 || place == 18 || place == 23) {
      if (text[place++] != '-') throw "an identifier's groups are separated by hyphens";
      continue;
    }
    identifier[at++] = static_cast<uint8_t>(digit(text[place]) << 4 | digit(text[place + 1]));
    place += 2;
  }
  return identifier;
}

inline constexpr auto kCameraControlSet = propertySetIdentifier("EEACD05B-1930-487F-80EA-A91A94B64F51");
inline constexpr auto kImageControlSet = propertySetIdentifier("B4A4D54F-45FD-4890-8CC8-3B4D807EB23A");
inline constexpr auto kRelativeMotionSet = propertySetIdentifier("FFE52D21-8030-4E2C-82D9-F587D00540BD");
inline constexpr auto kDeviceInformationSet = propertySetIdentifier("69678EE4-410F-40DB-A850-7420D7D8240E");
inline constexpr auto kAlternateInformationSet = propertySetIdentifier("63610682-5070-49AB-B8CC-B3855E8D221E");
inline constexpr auto kMirrorSet = propertySetIdentifier("49E40215-F434-47FE-B158-0E885023E51B");
inline constexpr auto kSunTrimSet = propertySetIdentifier("F7544996-0819-4EC2-997E-AA41887964EA");

/// Properties of the camera control set.
enum CameraProperty : uint32_t {
  kAutoExposureMode = 2,  ///< one byte, one bit of ExposureMode
  kAutoExposurePriority = 3,
  kExposure = 4,
  kFocus = 6,
  kAutoFocus = 8,
  kZoom = 11,
  kRelativeZoom = 12,
  kPanTilt = 13,
  kRelativePanTilt = 14,
};
enum ExposureMode : uint8_t {
  kManualExposure = 1,
  kAutomaticExposure = 2,  ///< the camera chooses the time and the aperture
  kShutterPriority = 4,    ///< the aperture
  kAperturePriority = 8,   ///< the time
};

/// Properties of the image control set.
enum ImageProperty : uint32_t {
  kBrightness = 2,
  kContrast = 3,
  kAntiFlicker = 5,
  kHue = 6,
  kSaturation = 7,
  kSharpness = 8,
  kWhiteBalance = 10,
  kAutoWhiteBalance = 11,
  kAutoHue = 16,
};

/// Properties of the relative motion set.
enum MotionProperty : uint32_t {
  kMotionPanTilt = 1,
  kMotionReset = 2,
};
constexpr uint8_t kResetPanAndTilt = 3;

/// Properties of the information sets.
enum InformationProperty : uint32_t {
  kFirmwareVersion = 1,
  kFirmwareCRCControl = 2,
  kEEPROMInfo = 3,
  kSensorInfo = 4,
};

constexpr uint32_t kMirror = 13;  ///< of the mirror set
constexpr uint32_t kSunTrim = 6;  ///< of the SunTrim set

/// What is asked of a property.
enum PropertyRequest : uint32_t {
  kRequestCurrent = 0,
  kRequestDefault = 1,
  kRequestMinimum = 2,
  kRequestMaximum = 3,
};

}  // namespace vesk::capture
