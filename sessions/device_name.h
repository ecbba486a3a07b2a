#pragma once

#include <string>

#include <vesk/av_device.h>
#include <vesk/device_info.h>
#include <vesk/error.h>

namespace vesk {

/// How a device is called in messages: its name, its path when it has none.
inline std::string displayName(const VeskDeviceInfo& info) {
  if (auto name = info.name(); name && !name->empty()) return *std::move(name);
  return info.path().value_or("unnamed device");
}

/// Why a device did not open or start: `general` where it does not say so itself.
inline Error refusalOf(const VeskAVDevice& device, Error general) {
  if (Error own = device.lastError()) return own;
  general.subject = displayName(*device.deviceInfo());
  return general;
}

}  // namespace vesk
