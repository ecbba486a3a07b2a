#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/device_delegate.h>
#include <vesk/device_info.h>
#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/status.h>

namespace vesk {

class DelegateList;
class LastError;

/// What cameras and microphones have in common: the record, the delegates, whether the device is
/// open and capturing. A device starts closed and idle.
///
/// Threads: delegates from any thread, see addDelegate; opening, closing, formats, starting and
/// stopping from the host's thread, one at a time for each device. isOpen and isCapturing may be
/// read from any thread.
class VESK_EXPORT VeskAVDevice {
 public:
  /// A new device for the record: a VeskVideoDevice for type 0, a VeskAudioDevice for every other.
  /// Null for no record.
  static std::shared_ptr<VeskAVDevice> newDevice(std::shared_ptr<VeskDeviceInfo> info);

  virtual ~VeskAVDevice();
  VeskAVDevice(const VeskAVDevice&) = delete;
  VeskAVDevice& operator=(const VeskAVDevice&) = delete;

  /// Adds a receiver of what the device captures; nothing for null. The device holds its delegates
  /// until they are removed or it goes itself, and calls them in the order in which they were
  /// added; one that is added twice receives everything twice. Waits for a delivery in progress.
  void addDelegate(std::shared_ptr<VeskAVDeviceDelegate> delegate);
  /// Removes a delegate however often it was added; nothing for null. Waits for a delivery in
  /// progress on another thread: once it has returned, the delegate receives nothing more.
  void removeDelegate(const std::shared_ptr<VeskAVDeviceDelegate>& delegate);
  /// The delegates themselves, not a copy, for as long as the device is there: walk them under their lock.
  const VeskDeviceDelegates& delegates() const;

  const std::shared_ptr<VeskDeviceInfo>& deviceInfo() const { return mDeviceInfo; }
  bool isCapturing() const { return mIsCapturing; }
  bool isOpen() const { return mIsOpen; }

  /// Why the last operation failed that opened, started, stopped or metered the device, set its format, or read
  /// or set a control; no error after one that succeeded. From any thread.
  Error lastError() const;

 protected:
  explicit VeskAVDevice(std::shared_ptr<VeskDeviceInfo> info);

  /// Opens the record's path with the capture library's `open`, once.
  /// @return 0 open; 7 not opened, or the path is missing or longer than the library's records hold.
  int32_t openHandle(void* (*open)(const char16_t* path));
  /// Closes what openHandle opened, which ends capture.
  void closeHandle();

  /// The device in an error's text: `the camera "NAME"`.
  std::string inText() const;
  int32_t notOpen() const;
  int32_t noFormatChosen() const;
  /// Ends an operation: `status`, with its error where it failed.
  int32_t failed(int32_t status, Error why) const;
  /// The same for a call of the capture library's, whose error is taken over; `status` may be the device's own.
  int32_t answered(int32_t status) const;

  /// What the capture library is given as a callback's context: the delegates, which outlive a device that
  /// goes inside one of their callbacks. A device ends its subscription before it goes.
  void* captureContext() const;

  const std::shared_ptr<VeskDeviceInfo> mDeviceInfo;
  const std::shared_ptr<DelegateList> mDelegates;
  std::atomic<bool> mIsCapturing{false};
  std::atomic<bool> mIsOpen{false};
  std::atomic<void*> mHandle{nullptr};  ///< the capture library's, null while closed; nudges read it on their queue

 private:
  const std::unique_ptr<LastError> mLastError;
};

}  // namespace vesk
