#pragma once

#include <string>

#include <vesk/device_info.h>

namespace vesk {

/// What a person is told of a device: its name, its path when it has none.
inline std::string displayName(const VeskDeviceInfo& info) {
  if (auto name = info.name(); name && !name->empty()) return *std::move(name);
  return info.path().value_or("unnamed device");
}

}  // namespace vesk
