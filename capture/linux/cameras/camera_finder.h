#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vesk::capture {

/// A video node as the machine's device database knows it. Any text may be empty.
struct VideoNode {
  std::string node;          ///< "/dev/video0"
  std::string systemPath;    ///< of the node in sysfs
  std::string usbPath;       ///< of the USB device that it belongs to
  std::string place;         ///< where it is attached, the same after a restart ("pci-0000:00:14.0-usb-0:3:1.0")
  std::string attachment;    ///< another one each time that the device is plugged in
  std::string product;       ///< its name
  std::string capabilities;  ///< what it was found to be able to do when it came (":capture:")
  int index = 0;             ///< among the nodes of its place
  uint16_t vendorID = 0;
  uint16_t productID = 0;
  uint16_t revisionID = 0;
};

/// Knows the video nodes of the machine, and when they come and go.
class CameraFinder {
 public:
  virtual ~CameraFinder() = default;

  /// The finder of the machine.
  static std::unique_ptr<CameraFinder> system();

  /// The nodes that are there now. From any thread.
  virtual std::vector<VideoNode> nodes() = 0;
  /// Calls `changed` from now on, on a thread of the finder's, when nodes have come or gone; the
  /// changes of one device, which come in a burst, are reported once. To be called once. After the
  /// finder has been destroyed nothing is called any more, unless that happens inside a call.
  virtual void watch(std::function<void()> changed) = 0;
};

}  // namespace vesk::capture
