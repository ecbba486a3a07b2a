#include <vesk/device_info.h>

#include <utility>

#include <vesk/unistr.h>

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
  auto units = path ? unistr_createFromUTF8(*path) : std::nullopt;
  const MutexLock lock(mMutex);
  mPath = std::move(path);
  mPathUnits = std::move(units);
}

std::optional<std::u16string> VeskDeviceInfo::pathUnits() const {
  const MutexLock lock(mMutex);
  return mPathUnits;
}

void VeskDeviceInfo::setPathUnits(std::u16string_view units) {
  auto path = unistr_createUTF8(units);
  const MutexLock lock(mMutex);
  mPath = std::move(path);
  mPathUnits = units;
}

bool VeskDeviceInfo::isEqualToDevice(const VeskDeviceInfo& other) const {
  const auto own = path();
  return own && own == other.path() && pathUnits() == other.pathUnits();
}

}  // namespace vesk
