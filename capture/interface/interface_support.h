#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <vesk/capture_host.h>
#include <vesk/capture_records.h>
#include <vesk/log.h>
#include "capture/interface/call_error.h"
#include "capture/interface/library.h"
#include "capture/interface/wide_text.h"
#include "platform/foundation/errors.h"

/// What the two halves of the C interface share.

namespace vesk::capture {

/// Runs the body of an interface function, whose error lastError answers from then on; whatever it throws
/// becomes kVCIFailed.
template <class Body>
int32_t guarded(DeviceKind kind, Body&& body) noexcept try {
  forgetError();
  int32_t status = kVCIFailed;
  try {
    status = body();
  } catch (const std::exception& exception) {
    status =
        failedUnlessExplained(kVCIFailed, {Cause::kOther, deviceText(kind, "") + " failed: " + exception.what(), ""});
  } catch (...) {  // which carries no text
  }
  return endCall(status, kind, "");
} catch (...) {
  return kVCIFailed;
}

/// What a call without one of its arguments answers.
inline int32_t missingArgument() {
  return failed(kVCIInvalidArgument, {Cause::kWrongUse, "an argument of the call is missing or makes no sense", ""});
}

/// Answers an enumeration in two calls, see vci.h: fills `records` from `items` with `fill`.
template <class Item, class Record, class Fill>
int32_t enumerate(const std::vector<Item>& items, Record* records, uint32_t* count, Fill fill) {
  if (!count) return missingArgument();
  const auto available = static_cast<uint32_t>(items.size());
  if (!records) {
    *count = available;
    return available > 0 ? kVCIMoreData : kVCISuccess;
  }
  *count = std::min(*count, available);
  for (uint32_t i = 0; i < *count; ++i) {
    std::memset(&records[i], 0, sizeof(Record));
    fill(items[i], records[i]);
  }
  return kVCISuccess;
}

/// The enumeration of a half's devices.
inline int32_t enumerateDevices(DeviceKind kind, CaptureDeviceRecord* records, uint32_t* count) {
  if (!count) return missingArgument();
  return enumerate(Library::shared().devices(kind), records, count,
                   [&](const DeviceDescription& device, CaptureDeviceRecord& record) {
                     copyText(recordPath(device.path), record.path);
                     copyText(toUtf16(device.name), record.name);
                     record.vendorID = device.vendorID;
                     record.productID = device.productID;
                     record.revisionID = kind == DeviceKind::kVideo ? device.revisionID : uint16_t{0};
                   });
}

/// Calls `function` with the open device behind a handle; kVCIInvalidHandle when there is none of
/// the kind, kVCIFailed when it throws.
template <class Function>
int32_t withOpenDevice(DeviceKind kind, void* handle, Function&& function) {
  return guarded(kind, [&]() -> int32_t {
    const auto device = Library::shared().find(kind, handle);
    if (!device) return kVCIInvalidHandle;
    return endCall(function(*device), kind, device->name());
  });
}

/// The same with the source's device, to ask it and to set properties.
template <class Function>
int32_t withDevice(DeviceKind kind, void* handle, Function&& function) {
  return withOpenDevice(kind, handle, [&](OpenDevice& device) { return device.control(function); });
}

/// Starts a device, and logs why it cannot be.
inline int32_t startDevice(OpenDevice& device, uint32_t substream) {
  const int32_t status = device.start(substream);
  logError(lastError());
  return status;
}

/// What becomes of a format that a device is set to.
inline int32_t checkedFormat(int32_t status, DeviceKind kind, const OpenDevice& device) {
  if (status == kVCISuccess || status == kVCIInvalidHandle) return status;
  return failedUnlessExplained(status,
                               {Cause::kNoFormat, deviceText(kind, device.name()) + " does not offer this format",
                                "Choose one of its own formats."});
}

/// Opens the device at `path`; null when that cannot be, or `path` is null or has no end.
inline void* openDevice(DeviceKind kind, const char16_t* path) {
  void* handle = nullptr;
  guarded(kind, [&]() -> int32_t {
    const auto text = readText(path, std::size(CaptureDeviceRecord{}.path));
    if (!text) return failed(kVCIInvalidArgument, {Cause::kWrongUse, "there is no path, or it has no end", ""});
    handle = Library::shared().open(kind, *text);
    return handle ? kVCISuccess : kVCIFailed;
  });
  return handle;
}

/// A subscription as the library keeps it: fills the half's event record and calls the host. A host
/// written in C++ may throw from its callback; the source's thread must not see that.
template <class Info, class Function, class Fill>
EventSlot::Callback eventCallback(uint32_t event, Function callback, void* context, Fill fill) {
  return [=](const Event& what) {
    Info info = {};
    info.event = event;
    info.context = context;
    info.length = what.length;
    info.timestamp = what.timestamp;
    fill(info, what.bytes);
    try {
      callback(nullptr, &info);
    } catch (const std::exception& exception) {
      NSLog(LogLevel::kError, std::string("A capture callback has thrown: ") + exception.what());
    } catch (...) {
      NSLog(LogLevel::kError, "A capture callback has thrown.");
    }
  };
}

}  // namespace vesk::capture
