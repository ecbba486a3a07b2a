#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vesk::program {

/// What a camera's controls were set to, as a file keeps it.
struct ControlSettings {
  std::string cameraName;
  std::string cameraPath;
  uint16_t vendorID = 0;
  uint16_t productID = 0;
  std::map<std::string, int64_t> values;  ///< by the control's name
};

/// Writes settings whole or not at all: as a property list when the file's name ends in ".plist", else
/// as JSON. @throws Failure when that cannot be.
void saveSettings(const std::string& path, const ControlSettings& settings);

/// Reads settings of either kind, whatever the file's name. @throws Failure when there are none.
ControlSettings loadSettings(const std::string& path);

}  // namespace vesk::program
