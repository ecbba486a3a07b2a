#include "apps/vesk/device_events.h"

#include <nlohmann/json.hpp>

#include "apps/vesk/choices.h"

namespace vesk::program {

const char* kindOf(const VeskDeviceInfo& info) {
  return info.deviceType() == 0 ? "camera" : "microphone";
}

nlohmann::ordered_json deviceEvent(const char* event, const VeskDeviceInfo& info) {
  return {{"event", event}, {"kind", kindOf(info)}, {"name", nameOf(info)}, {"path", info.path().value_or("")}};
}

}  // namespace vesk::program
