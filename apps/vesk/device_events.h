#pragma once

#include <nlohmann/json_fwd.hpp>

#include <vesk/device_info.h>

namespace vesk::program {

/// "camera" or "microphone".
const char* kindOf(const VeskDeviceInfo& info);

/// {"event", "kind", "name", "path"}: the event of a device that came or went, for scripts.
nlohmann::ordered_json deviceEvent(const char* event, const VeskDeviceInfo& info);

}  // namespace vesk::program
