#include "capture/interface/open_device.h"

#include <exception>
#include <utility>

#include <vesk/capture_host.h>
#include "capture/interface/call_error.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {

OpenDevice::OpenDevice(DeviceKind kind, std::string name, std::shared_ptr<CaptureSource> source,
                       std::unique_ptr<CaptureDevice> device)
    : mKind(kind),
      mName(std::move(name)),
      mSource(std::move(source)),
      mDevice(std::move(device)),
      mControlled(mDevice) {}

int32_t OpenDevice::start(uint32_t substream) {
  const bool isInside = mFrames->isInside();
  {
    MutexLock lock(mStateMutex);
    // A stop on another thread waits for the callback that we are in: do not wait for the stop.
    if (isInside && isChanging()) return kVCIFailed;
    while (isChanging()) mStateChanged.wait(mStateMutex);
    if (mIsClosing) return kVCIInvalidHandle;
    if (mState == State::kRunning) return kVCISuccess;
    mState = State::kStarting;
    mSubstream = substream;
  }
  mFrames->setOpen(true);
  const int32_t status = endCall(startDevice(substream), mKind, mName);
  if (status != kVCISuccess) mFrames->setOpen(false);
  setState(status == kVCISuccess ? State::kRunning : State::kIdle);
  if (status != kVCISuccess) mFrames->settle();  // last: a callback that came may be waiting for the state, to stop
  return status;
}

int32_t OpenDevice::stop() {
  const bool isInside = mFrames->isInside();
  uint32_t substream = 0;
  bool wasIdle = false;
  {
    MutexLock lock(mStateMutex);
    if (isInside && mState == State::kStopping) return kVCISuccess;
    while (isChanging()) mStateChanged.wait(mStateMutex);
    wasIdle = mState == State::kIdle;
    if (!wasIdle) mState = State::kStopping;
    substream = mSubstream;
  }
  if (wasIdle) {
    mFrames->settle();  // the callback that stopped it may be running still
    return kVCISuccess;
  }
  const int32_t status = stopDevice(substream);
  if (status == kVCISuccess) shutOut();
  setState(status == kVCISuccess ? State::kIdle : State::kRunning);
  return status;
}

void OpenDevice::shutOut() {
  mFrames->setOpen(false);
  mFrames->settle();
}

void OpenDevice::setState(State state) {
  MutexLock lock(mStateMutex);
  mState = state;
  mStateChanged.notify_all();
}

int32_t OpenDevice::startDevice(uint32_t substream) try {
  return setUp([&](CaptureDevice& device) {
    return device.start(substream, [frames = mFrames](uint8_t* bytes, uint32_t length, int64_t timestamp) {
      frames->call(Event{bytes, length, timestamp});
    });
  });
} catch (const std::exception& exception) {
  const std::string device = deviceText(mKind, mName);
  return failed(kVCIFailed, errorOf(device + " could not be started", exception));
} catch (...) {
  return kVCIFailed;
}

// Without the mutex: the callback that it waits for may be making a call.
int32_t OpenDevice::stopDevice(uint32_t substream) try {
  std::shared_ptr<CaptureDevice> device;
  {
    MutexLock lock(mStreamingMutex);
    device = mDevice;
  }
  return device ? device->stop(substream) : int32_t{kVCISuccess};
} catch (...) {
  return kVCIFailed;
}

std::shared_ptr<CaptureDevice> OpenDevice::close() {
  {
    MutexLock lock(mStateMutex);
    mIsClosing = true;
  }
  stop();
  mFrames->set({});
  {
    MutexLock lock(mControlMutex);
    mControlled = nullptr;
  }
  MutexLock lock(mStreamingMutex);
  return std::move(mDevice);
}

}  // namespace vesk::capture
