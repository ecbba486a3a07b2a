#include <algorithm>

#include <vesk/log.h>
#include <vesk/video_device.h>

// A preview and recordings use one camera: whose stop takes effect when.

namespace vesk {

void VeskVideoDevice::beginRecording() {
  const MutexLock lock(mRecordingMutex);
  ++mRecordings;
}

void VeskVideoDevice::endRecording() {
  auto action = AfterRecording::kStayOn;
  {
    const MutexLock lock(mRecordingMutex);
    if (--mRecordings == 0) std::swap(action, mAfterRecording);
  }
  if (action == AfterRecording::kClose) closeDevice();
  if (action == AfterRecording::kStop && stopCapture() != kVeskStatusSuccess)
    NSLog("[WARNING]: the camera \"" + mDeviceInfo->name().value_or("") +
          "\" did not stop after the recording; close it or unplug it");
}

int32_t VeskVideoDevice::stopUnlessRecorded() {
  return leaveToRecording(AfterRecording::kStop) ? kVeskStatusSuccess : stopCapture();
}

void VeskVideoDevice::closeUnlessRecorded() {
  if (!leaveToRecording(AfterRecording::kClose)) closeDevice();
}

/// @return whether a recording is under way, which will do it when it ends.
bool VeskVideoDevice::leaveToRecording(AfterRecording action) {
  const MutexLock lock(mRecordingMutex);
  if (mRecordings == 0) return false;
  mAfterRecording = std::max(mAfterRecording, action);
  return true;
}

/// The camera was opened or started anew: at most `action` is left to the recording.
void VeskVideoDevice::leaveAtMost(AfterRecording action) {
  const MutexLock lock(mRecordingMutex);
  mAfterRecording = std::min(mAfterRecording, action);
}

}  // namespace vesk
