#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include <vesk/control_settings.h>
#include <vesk/video_device.h>
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

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
  Error why;
  if (!controlState(*camera, ControlID::kRelativePan, &why) && !isControlMissing(why)) throw Failure(kFailed, why);
  const Failure failure(kFailed, fmt::format("\"{}\" has no head that can be nudged.", nameOf(*camera->deviceInfo())),
                        camera->getPanCur() ? "Its head is sent to positions: vesk controls set pan 36000."
                                            : "Name a camera that has one with --camera.");
  if (!text.empty()) throw failure;
  const auto records = VeskVideoDevice::getVideoDeviceList();  // held: devices may come and go
  for (const auto& record : *records) {
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

/// Nudges the head one time after the other, so that the one under way has its stop before anything ends.
/// @return how often; less than `times` when a signal asked for the end
int nudge(VeskVideoDevice& camera, const std::string& name, int times) {
  const auto direction = std::find_if(std::begin(kDirections), std::end(kDirections),
                                      [&](const Direction& each) { return name == each.name; });
  int done = 0;
  for (; done < times && !isEndAsked(); ++done) {
    (camera.*direction->move)();
    camera.waitForNudges();
  }
  return done;
}

}  // namespace

int runNudge(const GlobalOptions& global, const NudgeOptions& options) {
  const Host host(global);
  const SignalAttendant attendant({});
  const auto camera = chooseHead(options.camera);
  const std::string name = nameOf(*camera->deviceInfo());
  if (options.direction == "reset") {
    if (!isReset(*camera))
      throw Failure(kBusy, fmt::format("the head of \"{}\" did not go back to its middle.", name),
                    "Wait until it stands still and try again, or nudge it there.");
  } else if (const int done = nudge(*camera, options.direction, options.times); done < options.times) {
    throw Failure(kInterrupted, fmt::format("stopped after {} of {} nudges.", done, options.times),
                  "The head stands still.");
  }
  const int times = options.direction == "reset" ? 1 : options.times;
  if (global.json)
    printJson({{"camera", name}, {"direction", options.direction}, {"times", times}});
  else
    printLine("{}: {}{}", name, options.direction, times > 1 ? fmt::format(", {} times", times) : "");
  return kDone;
}

}  // namespace vesk::program
