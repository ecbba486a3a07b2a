#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <vesk/device_info.h>
#include <vesk/export.h>

namespace vesk {

/// Receives what a device captures.
class VESK_EXPORT VeskAVDeviceDelegate {
 public:
  virtual ~VeskAVDeviceDelegate() = default;

  /// One video frame or one audio packet; the record's device type tells which.
  ///
  /// Called on the capture library's thread while the device's delegate list is locked. The bytes
  /// belong to the library: they are valid during the call, and a delegate may have rewritten them
  /// before the next one sees them. `timestamp` is in microseconds of the library's clock. Do not
  /// block, and do not add or remove delegates of the same device: a delegate whose list changes
  /// under it may miss this frame.
  virtual void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                               const std::shared_ptr<VeskDeviceInfo>& device) = 0;
};

/// What a delegate may offer besides: it takes the levels of a microphone that is being metered.
class VESK_EXPORT VeskMicLevelDelegate {
 public:
  virtual ~VeskMicLevelDelegate() = default;

  /// The microphone's level in decibels, 0 at full scale, kSilenceLevel at the least; negative infinity when
  /// metering stops.
  virtual void didMicLevelEventOccured(float level) = 0;
};

/// The delegates of one device in the order in which they were added, and the lock under which they
/// are called. Whoever walks them holds the lock:
///
///     const std::lock_guard lock(camera->delegates());
///     for (const auto& delegate : camera->delegates()) …
///
/// Threads: every operation from any thread. The lock is recursive, so it may be taken again, also
/// inside a delivery; while it is held nothing is delivered, so hold it briefly.
class VESK_EXPORT VeskDeviceDelegates {
 public:
  using Delegates = std::vector<std::shared_ptr<VeskAVDeviceDelegate>>;

  VeskDeviceDelegates(const VeskDeviceDelegates&) = delete;
  VeskDeviceDelegates& operator=(const VeskDeviceDelegates&) = delete;

  virtual void lock() const = 0;
  virtual void unlock() const = 0;

  /// The caller holds the lock for as long as it uses the iterators.
  virtual Delegates::const_iterator begin() const = 0;
  virtual Delegates::const_iterator end() const = 0;

  virtual size_t size() const = 0;
  bool empty() const { return size() == 0; }

 protected:
  VeskDeviceDelegates() = default;
  virtual ~VeskDeviceDelegates();
};

}  // namespace vesk
