#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "apps/vesk/camera_settings.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "capture/vci.h"
#include "devices/video_device.h"

namespace vesk::program {
namespace {

struct Direction {
  const char* name;
  void (VeskVideoDevice::*move)();
};
constexpr Direction kDirections[] = {{"left", &VeskVideoDevice::panRelativeLeft},
                                     {"right", &VeskVideoDevice::panRelativeRight},
                                     {"up", &VeskVideoDevice::tiltRelativeUp},
                                     {"down", &VeskVideoDevice::tiltRelativeDown}};

/// An open camera whose head is nudged: the one asked for, or the first that has one.
std::shared_ptr<VeskVideoDevice> chooseHead(const std::string& text) {
  std::shared_ptr<VeskVideoDevice> camera = chooseCamera(text);
  openDevice(*camera);
  if (camera->isNudgeSupported()) return camera;
  int32_t status = kVCISuccess;
  stateOf(*camera, cameraControl(ControlID::kRelativePan), &status);
  if (status == kVCIFailed) throw noAnswer(nameOf(*camera->deviceInfo()));
  const Failure failure(kFailed, fmt::format("\"{}\" has no head that can be nudged.", nameOf(*camera->deviceInfo())),
                        camera->getPanCur() ? "Its head is sent to positions: vesk controls set pan 36000."
                                            : "Name a camera that has one with --camera.");
  if (!text.empty()) throw failure;
  for (const auto& record : *VeskVideoDevice::getVideoDeviceList()) {
    auto other = VeskVideoDevice::initWithDeviceInfo(record);
    if (other->openDevice() == 0 && other->isNudgeSupported()) return other;
  }
  throw failure;
}

/// Back to its middle, which a head that takes positions is sent to.
bool isReset(VeskVideoDevice& camera) {
  const auto pan = camera.getPanDef();
  const auto tilt = camera.getTiltDef();
  if (!pan || !tilt) return camera.resetPanTiltRel() == 0;
  return camera.writeControl(cameraControl(ControlID::kPan), *pan) == 0 &&
         camera.writeControl(cameraControl(ControlID::kTilt), *tilt) == 0;
}

}  // namespace

int runNudge(const GlobalOptions& global, const NudgeOptions& options) {
  const Host host(global);
  const auto camera = chooseHead(options.camera);
  const std::string name = nameOf(*camera->deviceInfo());
  if (options.direction == "reset") {
    if (!isReset(*camera))
      throw Failure(kBusy, fmt::format("the head of \"{}\" did not go back to its middle.", name),
                    "Wait until it stands still and try again, or nudge it there.");
  } else {
    for (const Direction& direction : kDirections)
      for (int i = 0; options.direction == direction.name && i < options.times; ++i) (*camera.*direction.move)();
    camera->waitForNudges();
  }
  const int times = options.direction == "reset" ? 1 : options.times;
  if (global.json)
    printJson({{"camera", name}, {"direction", options.direction}, {"times", times}});
  else
    fmt::print("{}: {}{}\n", name, options.direction, times > 1 ? fmt::format(", {} times", times) : "");
  return kDone;
}

}  // namespace vesk::program
