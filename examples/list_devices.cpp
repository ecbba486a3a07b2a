// Lists cameras and microphones, then follows them as they come and go for some seconds.
//
//   list_devices [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/notification_center.h>
#include <vesk/run_loop.h>

namespace {

void print(const char* what, const vesk::VeskDeviceInfo& device) {
  const char* kind = device.deviceType() == vesk::kVeskDeviceTypeVideo ? "camera" : "microphone";
  std::printf("%s %s: %s (%s)\n", what, kind, device.name().value_or("?").c_str(), device.path().value_or("?").c_str());
}

/// Prints the devices that a notification reports, for as long as the answer is kept. Notifications come on the
/// source's thread, so the work is handed to the main thread.
[[nodiscard]] vesk::NSNotificationObserver follow(const char* notification, const char* what) {
  return vesk::NSNotificationCenter::defaultCenter().addObserver(
      notification, [notification, what](const vesk::NSNotification& event) {
        const auto* device = event.value<std::shared_ptr<vesk::VeskDeviceInfo>>(notification);
        if (!device) return;
        vesk::DispatchQueue::mainQueue()->async([what, device = *device] { print(what, *device); });
      });
}

}  // namespace

int main(int argc, char** argv) {
  const auto manager = vesk::VeskDeviceManager::getSharedInstance();
  for (const auto& camera : *manager->getVideoDeviceList()) print("found", *camera);
  for (const auto& microphone : *manager->getAudioDeviceList()) print("found", *microphone);

  const auto added = follow(vesk::KVXDeviceAdded, "added");
  const auto removed = follow(vesk::KVXDeviceRemoved, "removed");
  const std::chrono::seconds time(argc > 1 ? std::atoi(argv[1]) : 10);
  vesk::NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + time);

  vesk::VeskDeviceManager::destroy();
}
