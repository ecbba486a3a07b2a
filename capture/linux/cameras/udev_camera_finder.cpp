#include <libudev.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <system_error>
#include <thread>

#include <vesk/log.h>
#include "capture/linux/cameras/camera_finder.h"

namespace vesk::capture {
namespace {

struct UdevFree {
  void operator()(udev* context) const noexcept { udev_unref(context); }
  void operator()(udev_device* device) const noexcept { udev_device_unref(device); }
  void operator()(udev_enumerate* enumeration) const noexcept { udev_enumerate_unref(enumeration); }
  void operator()(udev_monitor* monitor) const noexcept { udev_monitor_unref(monitor); }
};
template <class T>
using UdevPtr = std::unique_ptr<T, UdevFree>;

constexpr const char* kSubsystem = "video4linux";

std::string text(const char* value) {
  return value ? value : "";
}

uint16_t number(const char* value, int base) {
  const std::string digits = text(value);
  uint16_t result = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), result, base);
  return result;
}

VideoNode nodeOf(udev_device* device) {
  VideoNode node;
  node.node = text(udev_device_get_devnode(device));
  node.systemPath = text(udev_device_get_syspath(device));
  node.place = text(udev_device_get_property_value(device, "ID_PATH"));
  node.product = text(udev_device_get_property_value(device, "ID_V4L_PRODUCT"));
  if (node.product.empty()) node.product = text(udev_device_get_sysattr_value(device, "name"));
  node.capabilities = text(udev_device_get_property_value(device, "ID_V4L_CAPABILITIES"));
  node.index = number(udev_device_get_sysattr_value(device, "index"), 10);
  node.attachment = node.systemPath;
  // The parent belongs to the device: it is not to be released.
  if (udev_device* const usb = udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device")) {
    node.usbPath = text(udev_device_get_syspath(usb));
    node.attachment = node.usbPath + "#" + text(udev_device_get_sysattr_value(usb, "devnum"));
    node.vendorID = number(udev_device_get_sysattr_value(usb, "idVendor"), 16);
    node.productID = number(udev_device_get_sysattr_value(usb, "idProduct"), 16);
    node.revisionID = number(udev_device_get_sysattr_value(usb, "bcdDevice"), 16);
  }
  return node;
}

/// The thread that waits for nodes to come and go. It keeps itself alive, so that its owner may be
/// destroyed from inside the call that it makes.
class Watch {
 public:
  static std::shared_ptr<Watch> begin(std::function<void()> changed) {
    auto watch = std::make_shared<Watch>(std::move(changed));
    if (watch->mWake < 0 || !watch->listen()) return nullptr;
    try {
      watch->mThread = std::thread([watch] { watch->run(); });
    } catch (const std::system_error&) {
      return nullptr;
    }
    return watch;
  }

  explicit Watch(std::function<void()> changed) : mChanged(std::move(changed)) {}
  ~Watch() {
    if (mThread.joinable()) mThread.detach();  // only the thread itself can come here with it
    if (mWake >= 0) ::close(mWake);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void end() {
    eventfd_write(mWake, 1);
    if (tCurrent != this) mThread.join();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr auto kQuiet = std::chrono::milliseconds(250);
  static constexpr auto kLongest = std::chrono::milliseconds(1000);
  static constexpr int kMostBroken = 3;

  bool listen() {
    mUdev.reset(udev_new());
    if (!mUdev) return false;
    // Not the kernel's own events: rights are set only when the rules have been applied.
    mMonitor.reset(udev_monitor_new_from_netlink(mUdev.get(), "udev"));
    return mMonitor && udev_monitor_filter_add_match_subsystem_devtype(mMonitor.get(), kSubsystem, nullptr) >= 0 &&
           udev_monitor_enable_receiving(mMonitor.get()) >= 0;
  }

  void run() {
    pthread_setname_np(pthread_self(), "vesk cameras");
    tCurrent = this;
    while (waitForEvent(-1)) {
      const auto latest = Clock::now() + kLongest;
      while (mHasEvent && Clock::now() < latest) {
        if (!waitForEvent(static_cast<int>(kQuiet.count()))) return;
      }
      mChanged();
    }
  }

  /// Waits for an event, or for `timeout` milliseconds; says in mHasEvent which it was.
  /// @return false when all is to end
  bool waitForEvent(int timeout) {
    pollfd descriptors[] = {{udev_monitor_get_fd(mMonitor.get()), POLLIN, 0}, {mWake, POLLIN, 0}};
    const int count = ::poll(descriptors, std::size(descriptors), timeout);
    if (descriptors[1].revents != 0) return false;
    mHasEvent = count > 0;
    if (!mHasEvent) return true;
    const UdevPtr<udev_device> device(udev_monitor_receive_device(mMonitor.get()));
    const bool isBroken = !device && (descriptors[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    mBroken = isBroken ? mBroken + 1 : 0;
    if (mBroken < kMostBroken) return true;
    NSLog(LogLevel::kWarning,
          "Cameras that come and go will not be noticed any more: the device monitor has failed. Start this program "
          "again.");
    return false;
  }

  static thread_local const Watch* tCurrent;

  const std::function<void()> mChanged;
  const int mWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  UdevPtr<udev> mUdev;
  UdevPtr<udev_monitor> mMonitor;
  std::thread mThread;
  bool mHasEvent = false;
  int mBroken = 0;  // an overrun shows itself once as an error; what stays broken is given up
};
thread_local const Watch* Watch::tCurrent = nullptr;

class UdevCameraFinder : public CameraFinder {
 public:
  ~UdevCameraFinder() override {
    if (mWatch) mWatch->end();
  }

  std::vector<VideoNode> nodes() override {
    std::vector<VideoNode> nodes;
    // A context belongs to one thread at a time; a new one costs nothing.
    const UdevPtr<udev> context(udev_new());
    const UdevPtr<udev_enumerate> enumeration(context ? udev_enumerate_new(context.get()) : nullptr);
    if (!enumeration) return nodes;
    udev_enumerate_add_match_subsystem(enumeration.get(), kSubsystem);
    if (udev_enumerate_scan_devices(enumeration.get()) < 0) return nodes;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumeration.get())) {
      const UdevPtr<udev_device> device(udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
      if (device && udev_device_get_devnode(device.get())) nodes.push_back(nodeOf(device.get()));
    }
    return nodes;
  }

  void watch(std::function<void()> changed) override {
    mWatch = Watch::begin(std::move(changed));
    if (!mWatch)
      NSLog(LogLevel::kWarning,
            "Cameras that come and go will not be noticed: the device monitor could not be started.");
  }

 private:
  std::shared_ptr<Watch> mWatch;
};

}  // namespace

std::unique_ptr<CameraFinder> CameraFinder::system() {
  return std::make_unique<UdevCameraFinder>();
}

}  // namespace vesk::capture
