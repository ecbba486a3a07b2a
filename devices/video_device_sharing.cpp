#include <vesk/log.h>
#include <vesk/video_device.h>
#include "devices/video_device_state.h"

// A preview and recordings use one camera: whose stop takes effect when.

namespace vesk {

void VeskVideoDevice::beginRecording() {
  mState->recordings.begin();
}

void VeskVideoDevice::endRecording() {
  const AfterRecording action = mState->recordings.end();
  if (action == AfterRecording::kClose) closeDevice();
  if (action == AfterRecording::kStop && stopCapture() != kVeskStatusSuccess)
    NSLog(LogLevel::kWarning, "the camera \"" + mDeviceInfo->name().value_or("") +
                                  "\" did not stop after the recording; close it or unplug it");
}

int32_t VeskVideoDevice::stopUnlessRecorded() {
  return mState->recordings.leave(AfterRecording::kStop) ? kVeskStatusSuccess : stopCapture();
}

void VeskVideoDevice::closeUnlessRecorded() {
  if (!mState->recordings.leave(AfterRecording::kClose)) closeDevice();
}

}  // namespace vesk
