#pragma once

#include <optional>
#include <string>
#include <vector>

#include <vesk/capture_choices.h>
#include <vesk/control_settings.h>
#include <vesk/device_info.h>

namespace vesk::camera {

/// What the application keeps for a camera, in files of their own: what a person has set, presets by name, the format.
/// A camera is known by vendor, product and name, so that it may be plugged in anywhere; two of the same kind share
/// all. The files of settings are those of `vesk controls save`.
///
/// Threads: one at a time. Calls read and write the disk.
class CameraMemory {
 public:
  /// @param folder the application's, for all cameras; made when something is kept
  CameraMemory(const std::string& folder, const VeskDeviceInfo& camera);

  /// What a person has set; nothing when nothing is kept or it cannot be read.
  ControlValues settings() const;
  /// Keeps it; no file for none.
  Error keepSettings(const ControlValues& values) const;

  /// The names of the presets, sorted as the user's language does.
  std::vector<std::string> presets() const;
  std::optional<ControlValues> preset(const std::string& name, Error* why) const;
  /// Also replaces one of that name.
  Error savePreset(const std::string& name, const ControlValues& values) const;
  /// Refused where one has the new name already.
  Error renamePreset(const std::string& name, const std::string& newName) const;
  Error removePreset(const std::string& name) const;

  /// The format that a person has chosen; none: the best is chosen for them.
  std::optional<VideoFormatRequest> format() const;
  Error keepFormat(const std::optional<VideoFormatRequest>& format) const;

 private:
  std::string settingsFile() const { return mFolder + "/settings.json"; }
  std::string formatFile() const { return mFolder + "/format.ini"; }
  std::string presetsFolder() const { return mFolder + "/presets"; }
  std::string presetFile(const std::string& name) const;
  Error save(const std::string& folder, const std::string& file, const ControlValues& values) const;

  std::string mFolder;
  ControlSettings mCamera;  ///< whose values are empty
};

}  // namespace vesk::camera
