#include "devices/device_info.h"

#include <utility>

namespace vesk {

std::optional<std::string> VeskDeviceInfo::name() const {
  const MutexLock lock(mMutex);
  return mName;
}

void VeskDeviceInfo::setName(std::optional<std::string> name) {
  const MutexLock lock(mMutex);
  mName = std::move(name);
}

std::optional<std::string> VeskDeviceInfo::path() const {
  const MutexLock lock(mMutex);
  return mPath;
}

void VeskDeviceInfo::setPath(std::optional<std::string> path) {
  const MutexLock lock(mMutex);
  mPath = std::move(path);
}

bool VeskDeviceInfo::isEqualToDevice(const VeskDeviceInfo& other) const {
  const auto own = path();
  return own && own == other.path();
}

}  // namespace vesk
