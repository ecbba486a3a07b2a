#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include <vesk/video_device.h>
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

using Json = nlohmann::ordered_json;

int32_t numberIn(const VeskInformation& information, const char* name) {
  const auto found = information.find(name);
  return found == information.end() ? 0 : found->second;
}

}  // namespace

int runInfo(const GlobalOptions& global, const InfoOptions& options) {
  const Host host(global);
  const auto camera = chooseCamera(options.camera);
  openDevice(*camera);
  const VeskDeviceInfo& info = *camera->deviceInfo();
  const auto firmware = camera->getFirmwareVersion();
  const auto checksum = camera->getFirmwareCRCControl();
  const auto sensor = camera->getSensorInfo();
  const VeskInformation eeprom = camera->getEEPROMInfo();

  if (global.json) {
    Json document = {{"name", nameOf(info)},
                     {"path", info.path().value_or("")},
                     {"vendorID", info.vendorID()},
                     {"productID", info.productID()},
                     {"revisionID", info.revisionID()},
                     {"firmware", nullptr},
                     {"firmwareChecksum", checksum ? Json(*checksum) : Json(nullptr)},
                     {"eeprom", {{"major", numberIn(eeprom, "Major")}, {"minor", numberIn(eeprom, "Minor")}}},
                     {"sensor", nullptr}};
    if (firmware)
      document["firmware"] = {{"major", numberIn(*firmware, "Major")},
                              {"minor", numberIn(*firmware, "Minor")},
                              {"build", numberIn(*firmware, "BuildNo")}};
    if (sensor)
      document["sensor"] = {{"technology", numberIn(*sensor, "SensorTech")}, {"type", numberIn(*sensor, "SensorType")}};
    printJson(document);
    return kDone;
  }
  printLine("name      {}", nameOf(info));
  printLine("path      {}", info.path().value_or(""));
  printLine("product   {:04x}:{:04x}, revision {:04x}", info.vendorID(), info.productID(), info.revisionID());
  printLine("firmware  {}{}",
            firmware ? fmt::format("{}.{}, build {}", numberIn(*firmware, "Major"), numberIn(*firmware, "Minor"),
                                   numberIn(*firmware, "BuildNo"))
                     : "not reported",
            checksum ? fmt::format(", checksum {:04x}", *checksum) : "");
  printLine("EEPROM    {}.{}", numberIn(eeprom, "Major"), numberIn(eeprom, "Minor"));
  printLine("sensor    {}", sensor ? fmt::format("technology {}, type {}", numberIn(*sensor, "SensorTech"),
                                                 numberIn(*sensor, "SensorType"))
                                   : "not reported");
  return kDone;
}

}  // namespace vesk::program
