#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <optional>

#include <vesk/audio_device.h>
#include <vesk/device_manager.h>
#include <vesk/printable_text.h>
#include <vesk/video_device.h>
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

nlohmann::ordered_json describe(const VeskDeviceList& records) {
  auto list = nlohmann::ordered_json::array();
  for (size_t index = 0; index < records.size(); ++index) {
    const auto& record = *records[index];
    list.push_back({{"index", index},
                    {"name", nameOf(record)},
                    {"path", record.path().value_or("")},
                    {"vendorID", record.vendorID()},
                    {"productID", record.productID()},
                    {"revisionID", record.revisionID()}});
  }
  return list;
}

void printTable(const char* title, const VeskDeviceList& records) {
  printLine("{}", title);
  if (records.empty()) printLine("  none");
  for (size_t index = 0; index < records.size(); ++index) {
    const auto& record = *records[index];
    printLine("  {}  {:<32} {:04x}:{:04x}  {}", index, printableText(nameOf(record)), record.vendorID(),
              record.productID(), record.path().value_or(""));
  }
}

/// Prints devices that come and go once it runs, also of those that did so before.
class Watch {
 public:
  explicit Watch(bool json) : mJson(json) {}

  /// Until a signal, or the reader of the results, ends the program.
  void run() {
    mLoop.endWithReader();
    mLoop.run();
  }

 private:
  // Notifications come on the source's thread; results are written on the main thread only.
  void print(const char* event, std::shared_ptr<VeskDeviceInfo> info) {
    mLoop.post([this, event, info = std::move(info)] {
      if (mJson) {
        printJson(deviceEvent(event, *info));
      } else {
        printLine("{} {}  {}  {}", event, kindOf(*info), nameOf(*info), info->path().value_or(""));
      }
      if (missingResults() != 0) mLoop.stop();
    });
  }

  const bool mJson;
  MainLoop mLoop;
  const DeviceWatch mAdded{KVXDeviceAdded, [this](auto info) { print("added", std::move(info)); }};
  const DeviceWatch mRemoved{KVXDeviceRemoved, [this](auto info) { print("removed", std::move(info)); }};
};

}  // namespace

int runDevices(const GlobalOptions& global, const DevicesOptions& options) {
  const Host host(global);
  std::optional<Watch> watch;
  if (options.watch) watch.emplace(global.json);  // before the list, so that nothing falls in between
  const auto cameras = VeskVideoDevice::getVideoDeviceList();
  const auto microphones = VeskAudioDevice::getAudioDeviceList();
  if (global.json) {
    printJson({{"cameras", describe(*cameras)}, {"microphones", describe(*microphones)}});
  } else {
    printTable("Cameras", *cameras);
    printTable("Microphones", *microphones);
  }
  if (watch) watch->run();
  return kDone;
}

}  // namespace vesk::program
