#include <fmt/core.h>

#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>

#include <vesk/device_manager.h>
#include "apps/vesk/camera_settings.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

/// A camera that has just come may refuse to be opened for a moment.
constexpr std::chrono::milliseconds kRetry{500};
constexpr int kMostTries = 5;

/// Applies kept settings to a camera now and each time that it comes, until a signal ends the program.
class KeepCommand {
 public:
  KeepCommand(const GlobalOptions& global, const ControlsOptions& options)
      : mGlobal(global), mOptions(options), mHost(global), mSettings(loadSettings(options.file)) {}

  int run() {
    const DeviceWatch added(KVXDeviceAdded, [this](auto info) {
      if (info->deviceType() != 0) return;
      mLoop.post([this, info] { mArrived.push_back(info); });
      mLoop.stop();
    });
    mLoop.endWithReader();
    apply(nullptr);
    while (mLoop.runUntil([this] { return !mArrived.empty(); })) {
      const auto arrived = mArrived.front();
      mArrived.pop_front();
      apply(arrived);
    }
    return kDone;
  }

 private:
  /// Applies them if the camera is the one that has arrived; any for null.
  void apply(const std::shared_ptr<VeskDeviceInfo>& arrived) {
    for (int tries = 1;; ++tries) {
      try {
        const auto camera = cameraFor(mSettings, mOptions.camera);
        if (arrived && !camera->deviceInfo()->isEqualToDevice(*arrived)) return;
        openDevice(*camera);
        readAnew();
        printOutcome(mGlobal, *camera->deviceInfo(), applyControlValues(*camera, mSettings.values), "applied");
        return;  // letting the camera go closes it
      } catch (const DeviceMissing&) {
        return arrived ? void() : printWaiting();
      } catch (const Failure& failure) {
        if (failure.status == kBusy && tries < kMostTries) {
          mLoop.runUntil([] { return false; }, kRetry);
          continue;
        }
        reportLine("vesk: {} {}", failure.what(), failure.hint);
        return;
      }
    }
  }

  /// The file may have been saved anew since.
  void readAnew() {
    try {
      mSettings = loadSettings(mOptions.file);
    } catch (const Failure& failure) {
      reportLine("vesk: {} The settings read before are applied.", failure.what());
    }
  }

  void printWaiting() const {
    if (mGlobal.json) printJson({{"event", "waiting"}, {"kind", "camera"}, {"name", mSettings.cameraName}});
    reportLine("vesk: the camera is not there; its settings are applied when it comes.");
  }

  const GlobalOptions& mGlobal;
  const ControlsOptions& mOptions;
  const Host mHost;
  MainLoop mLoop;
  ControlSettings mSettings;
  std::deque<std::shared_ptr<VeskDeviceInfo>> mArrived;  ///< a hub brings several at once
};

}  // namespace

int runKeep(const GlobalOptions& global, const ControlsOptions& options) {
  return KeepCommand(global, options).run();
}

}  // namespace vesk::program
