// Keeps the picture settings of the first camera in a text file, and sets them again.
//
//   control_presets save FILE
//   control_presets load FILE
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include <vesk/camera_controls.h>
#include <vesk/device_manager.h>
#include <vesk/video_device.h>

namespace {

using vesk::CameraControl;
using vesk::ControlRequest;

/// Moves of a motorised head are no settings, and neither is what an automatic mode sets by itself.
bool isToBeKept(const vesk::VeskVideoDevice& camera, const CameraControl& control) {
  if (control.isMomentary()) return false;
  if (!control.automatic) return true;
  return camera.readControl(vesk::cameraControl(*control.automatic), ControlRequest::kCurrent).value_or(0) == 0;
}

bool save(const vesk::VeskVideoDevice& camera, const char* path) {
  std::ofstream file(path);
  for (const CameraControl& control : vesk::cameraControls()) {
    const auto value = camera.readControl(control, ControlRequest::kCurrent);
    if (!value || !isToBeKept(camera, control)) continue;
    file << control.name << ' ' << *value << '\n';
    std::printf("%-20s %" PRId64 "\n", std::string(control.name).c_str(), *value);
  }
  return static_cast<bool>(file.flush());
}

/// Automatic modes first: a camera refuses a setting that a mode still holds.
bool load(vesk::VeskVideoDevice& camera, const char* path) {
  for (const bool switches : {true, false}) {
    std::ifstream file(path);
    if (!file) return false;
    std::string name;
    for (int64_t value = 0; file >> name >> value;) {
      const CameraControl* control = vesk::cameraControlNamed(name);
      if (!control || control->isSwitch() != switches) continue;
      const bool taken = camera.writeControl(*control, value) == 0;
      std::printf("%-20s %" PRId64 "%s\n", name.c_str(), value, taken ? "" : ": refused");
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: control_presets save|load FILE\n"), 2;
  const auto cameras = vesk::VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
  if (cameras->empty()) return std::fprintf(stderr, "no camera was found\n"), 1;
  const auto camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->front());
  if (camera->openDevice() != 0) return std::fprintf(stderr, "%s\n", camera->lastError().what.c_str()), 1;

  const bool done = std::string_view(argv[1]) == "save" ? save(*camera, argv[2]) : load(*camera, argv[2]);
  if (!done) std::perror(argv[2]);
  camera->closeDevice();
  vesk::VeskDeviceManager::destroy();
  return done ? 0 : 1;
}
