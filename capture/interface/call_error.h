#pragma once

#include <string>
#include <string_view>

#include <vesk/capture_source.h>

namespace vesk::capture {

/// A device in an error's text: `the camera "NAME"`; "the camera" where the name is empty.
std::string deviceText(DeviceKind kind, std::string_view name);

/// What setting a control answers that the camera sets itself at the moment. `camera` as deviceText has it.
int32_t refusedByMode(const std::string& camera);

/// Begins a call: no reason for a failure is known yet.
void forgetError();
/// `status`, with `why` unless the call has been given a reason already.
int32_t failedUnlessExplained(int32_t status, const Error& why);
/// Ends a call to the device of that name: one that succeeds has no error, one that fails without a reason has the
/// general error of its status. An error that does not say what it is about is about the device.
int32_t endCall(int32_t status, DeviceKind kind, std::string_view name);

}  // namespace vesk::capture
