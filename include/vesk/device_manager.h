#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <vesk/device_info.h>
#include <vesk/export.h>

namespace vesk {

/// Notifications of the default centre, without an object: a device came or went. The user information
/// holds the device's record, a std::shared_ptr<VeskDeviceInfo>, under the notification's own name.
/// Posted on the capture library's event thread.
inline constexpr const char* KVXDeviceAdded = "kKVXDeviceAdded";
inline constexpr const char* KVXDeviceRemoved = "kKVXDeviceRemoved";

/// Knows which cameras and microphones are attached. The first getSharedInstance starts the capture
/// library; from then on the manager follows arrivals and departures, and posts KVXDeviceAdded and
/// KVXDeviceRemoved.
///
/// Lists are never changed but replaced as a whole, with new records: compare records by path
/// (VeskDeviceInfo::isEqualToDevice). A list that a caller holds stays as it is; one that nobody holds
/// goes with the next event, its records with it, so keep no reference into it.
///
/// Threads: every operation from any thread, also from inside a notification's handler.
class VESK_EXPORT VeskDeviceManager {
 public:
  /// The manager of the process, made and started at the first call and after destroy.
  static std::shared_ptr<VeskDeviceManager> getSharedInstance();
  /// Stops the manager: events end (one being handled on another thread is waited for), motorised heads
  /// that are being nudged get their stop, and the capture library is shut down. Lists already handed
  /// out stay. While this runs, others still get the old manager; a second destroy meanwhile does nothing.
  /// Not from inside a frame, nor from inside a level while a notification's handler on another thread may
  /// remove a delegate: each would wait for the other.
  static void destroy();

  /// The devices attached, as of the first request or the last event: never null. Only the first request
  /// waits for the devices.
  VeskDeviceListPtr getVideoDeviceList();
  VeskDeviceListPtr getAudioDeviceList();

  /// Enumerates anew, replaces the list, and posts what changed: one device that came when there
  /// are more than before, else one that went.
  void updateVideoDeviceList();
  void updateAudioDevicelist();

  /// Fresh records of what is attached now, in the library's order; empty when the library fails.
  VeskDeviceList enumarateVideoDevices() const;
  VeskDeviceList enumarateAudioDevices() const;

  /// The first record of `list` whose path is in none of `newList`; null when there is none.
  static std::shared_ptr<VeskDeviceInfo> getOddDevice(const VeskDeviceList& list, const VeskDeviceList& newList);

  /// The name for a product in the host's DeviceNames.plist, whose keys are product identifiers in
  /// decimal; `fallbackName` when there is none. The file is read at every call.
  static std::string getDeviceFriendlyName(uint32_t productID, const std::string& fallbackName);

  ~VeskDeviceManager();
  VeskDeviceManager(const VeskDeviceManager&) = delete;
  VeskDeviceManager& operator=(const VeskDeviceManager&) = delete;

 private:
  VeskDeviceManager();

  void start();
  void stop();
  static void stopShared();

  struct VESK_LOCAL State;
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
