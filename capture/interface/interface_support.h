#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <vesk/capture_records.h>
#include <vesk/log.h>
#include "capture/interface/library.h"
#include "capture/interface/wide_text.h"

/// What the two halves of the C interface share.

namespace vesk::capture {

/// Runs the body of an interface function; whatever it throws becomes kVCIFailed.
template <class Body>
int32_t guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return kVCIFailed;
  }
}

/// Answers an enumeration in two calls, see vci.h: fills `records` from `items` with `fill`.
template <class Item, class Record, class Fill>
int32_t enumerate(const std::vector<Item>& items, Record* records, uint32_t* count, Fill fill) {
  if (!count) return kVCIInvalidArgument;
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
  if (!count) return kVCIInvalidArgument;
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
  return guarded([&]() -> int32_t {
    const auto device = Library::shared().find(kind, handle);
    if (!device) return kVCIInvalidHandle;
    return function(*device);
  });
}

/// The same with the source's device, to ask it and to set properties.
template <class Function>
int32_t withDevice(DeviceKind kind, void* handle, Function&& function) {
  return withOpenDevice(kind, handle, [&](OpenDevice& device) { return device.control(function); });
}

/// Opens the device at `path`; null when that cannot be, or `path` is null or has no end.
inline void* openDevice(DeviceKind kind, const char16_t* path) {
  void* handle = nullptr;
  guarded([&]() -> int32_t {
    if (const auto text = readText(path, std::size(CaptureDeviceRecord{}.path))) {
      handle = Library::shared().open(kind, *text);
    }
    return kVCISuccess;
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
      NSLog(std::string("A capture callback has thrown: ") + exception.what());
    } catch (...) {
      NSLog("A capture callback has thrown.");
    }
  };
}

}  // namespace vesk::capture
