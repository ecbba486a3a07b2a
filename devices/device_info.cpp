#include <vesk/device_info.h>

#include <utility>

#include <vesk/unistr.h>
#include "platform/foundation/mutex.h"

namespace vesk {

struct VeskDeviceInfo::State {
  Mutex mutex;
  std::optional<std::string> mName VESK_GUARDED_BY(mutex);
  std::optional<std::string> mPath VESK_GUARDED_BY(mutex);
  std::optional<std::u16string> mPathUnits VESK_GUARDED_BY(mutex);
};

VeskDeviceInfo::VeskDeviceInfo() : mState(std::make_unique<State>()) {}
VeskDeviceInfo::~VeskDeviceInfo() = default;

std::optional<std::string> VeskDeviceInfo::name() const {
  const MutexLock lock(mState->mutex);
  return mState->mName;
}

void VeskDeviceInfo::setName(std::optional<std::string> name) {
  const MutexLock lock(mState->mutex);
  mState->mName = std::move(name);
}

std::optional<std::string> VeskDeviceInfo::path() const {
  const MutexLock lock(mState->mutex);
  return mState->mPath;
}

void VeskDeviceInfo::setPath(std::optional<std::string> path) {
  auto units = path ? unistr_createFromUTF8(*path) : std::nullopt;
  const MutexLock lock(mState->mutex);
  mState->mPath = std::move(path);
  mState->mPathUnits = std::move(units);
}

std::optional<std::u16string> VeskDeviceInfo::pathUnits() const {
  const MutexLock lock(mState->mutex);
  return mState->mPathUnits;
}

void VeskDeviceInfo::setPathUnits(std::u16string_view units) {
  auto path = unistr_createUTF8(units);
  const MutexLock lock(mState->mutex);
  mState->mPath = std::move(path);
  mState->mPathUnits = units;
}

bool VeskDeviceInfo::isEqualToDevice(const VeskDeviceInfo& other) const {
  const auto own = path();
  return own && own == other.path() && pathUnits() == other.pathUnits();
}

}  // namespace vesk
