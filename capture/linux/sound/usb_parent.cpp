#include "capture/linux/sound/usb_parent.h"

#include <filesystem>
#include <fstream>

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

/// The hexadecimal number in a small file; 0 when there is none.
uint16_t readNumber(const fs::path& path) {
  std::ifstream file(path);
  unsigned number = 0;
  file >> std::hex >> number;
  return file && number <= 0xFFFF ? static_cast<uint16_t>(number) : uint16_t{0};
}

}  // namespace

UsbParent usbParentOfCard(int card, const std::string& sysfs) {
  std::error_code error;
  const fs::path link = fs::path(sysfs) / "class/sound" / ("card" + std::to_string(card)) / "device";
  fs::path folder = fs::canonical(link, error);
  if (error) return {};
  // The card hangs on an interface of the device; hubs above it have identifiers of their own.
  for (int steps = 0; steps < 3 && folder.has_relative_path(); ++steps, folder = folder.parent_path()) {
    if (!fs::exists(folder / "idVendor", error)) continue;
    UsbParent parent{folder.string(), readNumber(folder / "idVendor"), readNumber(folder / "idProduct"),
                     readNumber(folder / "bcdDevice"), ""};
    std::ifstream(folder / "devnum") >> parent.number;
    return parent;
  }
  return {};
}

}  // namespace vesk::capture
