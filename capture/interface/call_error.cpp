#include "capture/interface/call_error.h"

#include <utility>

#include <vesk/capture_host.h>
#include <vesk/vci.h>

namespace vesk::capture {
namespace {

// Of each thread: two calls to one device may run side by side, and each has its own reason.
thread_local Error tError;

Error generalError(int32_t status, const std::string& device) {
  switch (status) {
    case kVCIBusy:
      return {Cause::kBusy, device + " is in use elsewhere", "Close other programs that use it."};
    case kVCIPropertyNotSupported:
      return {Cause::kNotSupported, device + " does not have this control", ""};
    case kVCIInvalidArgument:
      return {Cause::kRefused, device + " refused the value", ""};
    case kVCIInvalidHandle:
      return {Cause::kWrongUse, device + " is not open", ""};
    default:
      return {Cause::kOther, device + " does not do what it was asked for", "Plug it in again."};
  }
}

}  // namespace

int32_t failed(int32_t status, Error why) {
  tError = std::move(why);
  return status;
}

Error lastError() {
  return tError;
}

std::string deviceText(DeviceKind kind, std::string_view name) {
  std::string text = kind == DeviceKind::kVideo ? "the camera" : "the microphone";
  if (!name.empty()) text += " \"" + std::string(name) + "\"";
  return text;
}

int32_t refusedByMode(const std::string& camera) {
  return failed(kVCIFailed, {Cause::kRefused, camera + " does not let this control be set now",
                             "Turn off the automatic mode that sets it."});
}

void forgetError() {
  if (tError) tError = {};
}

int32_t failedUnlessExplained(int32_t status, const Error& why) {
  return tError ? status : failed(status, why);
}

int32_t endCall(int32_t status, DeviceKind kind, std::string_view name) {
  if (status == kVCISuccess || status == kVCIMoreData) {
    forgetError();
    return status;
  }
  if (!tError) tError = generalError(status, deviceText(kind, name));
  if (tError.subject.empty()) tError.subject = name;
  return status;
}

}  // namespace vesk::capture
