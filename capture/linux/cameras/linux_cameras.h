#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/cameras/camera_finder.h"
#include "capture/linux/nodes/v4l2_calls.h"

namespace vesk::capture {

/// The cameras of a Linux machine, through the kernel's video interface (V4L2). It has no microphones.
///
/// Threads: every operation from any thread. The hot-plug handler is called on the finder's thread.
class LinuxCameras : public CaptureSource {
 public:
  LinuxCameras();
  /// With other system calls and another finder than the machine's.
  LinuxCameras(std::shared_ptr<V4L2Calls> calls, std::unique_ptr<CameraFinder> finder);
  ~LinuxCameras() override;

  void setHotplugHandler(HotplugHandler handler) override;
  std::vector<DeviceDescription> devices(DeviceKind kind) override;
  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) override;
  std::string cameraAtNode(const std::string& node) override;
  /// The folder in sysfs of the USB device that the camera at `path` is of; empty when there is none.
  std::string usbPathOf(const std::string& path);

 private:
  class Registry;

  const std::shared_ptr<Registry> mRegistry;
};

}  // namespace vesk::capture
