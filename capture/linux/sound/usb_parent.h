#pragma once

#include <cstdint>
#include <string>

namespace vesk::capture {

/// The USB device that a sound card is part of.
struct UsbParent {
  std::string folder;  ///< its folder in sysfs, links resolved; empty when there is none
  uint16_t vendorID = 0;
  uint16_t productID = 0;
  uint16_t revisionID = 0;
  std::string number;  ///< of the device on its bus: another one each time that it is plugged in
};

/// Looks the card's USB device up in `sysfs` (usually /sys).
UsbParent usbParentOfCard(int card, const std::string& sysfs = "/sys");

}  // namespace vesk::capture
