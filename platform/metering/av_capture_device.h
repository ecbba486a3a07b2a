#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/media_type.h"

namespace vesk {

/// A microphone that can be metered, as the platform lists it.
class AVCaptureDevice {
 public:
  /// The microphones attached now, in the order of the platform; none for pictures, which are not
  /// captured in this way.
  static std::vector<std::shared_ptr<const AVCaptureDevice>> devicesWithMediaType(MediaType type);

  AVCaptureDevice(std::string uniqueID, std::string localizedName)
      : mUniqueID(std::move(uniqueID)), mLocalizedName(std::move(localizedName)) {}
  const std::string& uniqueID() const { return mUniqueID; }
  const std::string& localizedName() const { return mLocalizedName; }

 private:
  std::string mUniqueID;
  std::string mLocalizedName;
};

}  // namespace vesk
