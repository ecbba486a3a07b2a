#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vesk/camera_controls.h>
#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

class VeskVideoDevice;

// What a camera is set to: read, kept in files and set again.
//
// Threads: those that are given a camera ask it, and take as long as it takes (a motor, tens of milliseconds); from any
// thread while the camera is open, those that write from one at a time. The others from any thread.

/// A control as an open camera has it.
struct ControlState {
  ControlID id = ControlID::kBrightness;
  std::optional<int64_t> minimum;  ///< with the maximum; none when nobody reports the range
  std::optional<int64_t> maximum;
  int64_t current = 0;
  std::optional<int64_t> initial;   ///< the camera's default
  std::optional<bool> isAutomatic;  ///< whether the camera sets it itself at present; none when it has no such mode

  const CameraControl& control() const { return cameraControl(id); }
  /// Whether the number lies in the range, where there is one.
  bool takes(int64_t value) const { return !minimum || (value >= *minimum && value <= *maximum); }
  bool operator==(const ControlState&) const = default;
};

/// What an open camera answered for one control; none when it does not have it, or does not answer: `why` (may be
/// null) says, and isControlMissing tells them apart.
VESK_EXPORT std::optional<ControlState> controlState(const VeskVideoDevice& camera, ControlID id, Error* why = nullptr);
/// Whether the camera does not have the control that it was asked for, rather than not answering.
VESK_EXPORT bool isControlMissing(const Error& why);
/// Asks again for what changes of a control: its number and its mode. @return whether the camera answered
VESK_EXPORT bool updateControlState(const VeskVideoDevice& camera, ControlState& state);

/// The controls that an open camera has, in the order of the table.
struct ControlStates {
  std::vector<ControlState> states;
  std::vector<ControlID> silent;  ///< those that it did not answer for
  Error error;                    ///< why, of the last of them
};
VESK_EXPORT ControlStates controlStates(const VeskVideoDevice& camera);

/// Whether the control is the automatic mode of another.
VESK_EXPORT bool isAutomaticMode(const CameraControl& control);

/// Numbers of controls by the control's name.
using ControlValues = std::map<std::string, int64_t>;

/// What of the states lasts: all but moves.
VESK_EXPORT ControlValues lastingValues(const std::vector<ControlState>& states);
/// The defaults of what lasts and has one.
VESK_EXPORT ControlValues initialValues(const std::vector<ControlState>& states);

/// What becomes of values that are set together.
struct ControlOutcome {
  std::vector<std::string> applied;
  std::vector<std::pair<std::string, std::string>> refused;  ///< name and reason, for a person
  std::vector<std::string> automatic;                        ///< left to a mode that is on
};

/// Sets many controls of an open camera. Automatic modes go off before the controls that they rule are set, and on
/// after that; what a mode rules that is to be on is left to it. What cannot be set does not keep the rest from it.
VESK_EXPORT ControlOutcome applyControlValues(VeskVideoDevice& camera, const ControlValues& values);
/// Why a camera did not take a value, after "brightness was not set: ". `state` as it was before.
VESK_EXPORT std::string refusalReason(const Error& error, const ControlState& state);

/// What a camera was set to, as a file keeps it.
struct ControlSettings {
  std::string cameraName;
  std::string cameraPath;
  uint16_t vendorID = 0;
  uint16_t productID = 0;
  ControlValues values;
};

/// Writes settings whole or not at all: as a property list when the file's name ends in ".plist", else as JSON.
/// @return no error when they are on disk
VESK_EXPORT Error saveControlSettings(const std::string& path, const ControlSettings& settings);
/// Reads settings of either kind, whatever the file's name; names that no control has are among them, and applying says
/// so. Nothing when the file cannot be read (kNoFile, kNoPermission, kFileError) or holds none (kUnreadable): `why`
/// (may be null) tells.
VESK_EXPORT std::optional<ControlSettings> loadControlSettings(const std::string& path, Error* why = nullptr);

}  // namespace vesk
