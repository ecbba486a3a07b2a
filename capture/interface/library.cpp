#include "capture/interface/library.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <thread>
#include <utility>

#include <vesk/aci.h>
#include <vesk/capture_host.h>
#include <vesk/log.h>
#include "capture/interface/call_error.h"
#include "capture/interface/microphone_taps.h"
#include "capture/interface/wide_text.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

constexpr uintptr_t kHandleStep = 16;  // never near null, never an address

/// Nothing that a source throws may end the watch of the others.
void setHandler(CaptureSource& source, CaptureSource::HotplugHandler handler) {
  std::string reason;
  try {
    return source.setHotplugHandler(std::move(handler));
  } catch (const std::exception& exception) {
    reason = std::string(": ") + exception.what();
  } catch (...) {
  }
  NSLog(LogLevel::kWarning, "devices that come and go will not be noticed" + reason);
}

}  // namespace

Library& Library::shared() {
  // Outlives every thread that may call in. Meters find its microphones from the first call on.
  static Library* const library = [] {
    AudioTapProvider::setShared(std::make_shared<MicrophoneTaps>());
    return new Library;
  }();
  return *library;
}

void Library::setSource(std::shared_ptr<CaptureSource> source) {
  {
    MutexLock lock(mMutex);
    mSource.swap(source);
  }
  watchSource();
}

std::shared_ptr<CaptureSource> Library::source() {
  MutexLock lock(mMutex);
  return mSource;
}

int32_t Library::initialise(DeviceKind kind) {
  selectByEnvironment();
  {
    MutexLock lock(mMutex);
    ++half(kind).users;
  }
  watchSource();
  if (source()) return kVCISuccess;
  MutexLock lock(mSelectionMutex);
  return failedUnlessExplained(kVCIFailed, mSelectionError);
}

/// Chooses a source unless there is one. What cannot be chosen is logged once.
void Library::selectByEnvironment() {
  MutexLock lock(mSelectionMutex);
  if (source() || mHasSelected) return;
  mHasSelected = true;
  const char* const wanted = std::getenv("VESK_CAPTURE");
  mSelectionError = selectSource(wanted && *wanted ? wanted : kDefaultSource, SourceOptions{});
  logError(mSelectionError);
}

int32_t Library::cleanUp(DeviceKind kind) {
  std::vector<uintptr_t> handles;
  bool isLast = false;
  {
    MutexLock lock(mMutex);
    Half& of = half(kind);
    if (of.users == 0 || --of.users > 0) return kVCISuccess;
    isLast = !isInUse();
    for (const auto& [handle, device] : mDevices) {
      if (device->kind() == kind) handles.push_back(handle);
    }
  }
  hotplugSlot(kind, true).set({});
  hotplugSlot(kind, false).set({});
  for (const uintptr_t handle : handles) close(reinterpret_cast<DeviceHandle>(handle));
  watchSource();
  waitForDestruction();
  if (isLast) {
    MutexLock lock(mSelectionMutex);
    mHasSelected = false;
  }
  return kVCISuccess;
}

std::vector<DeviceDescription> Library::devices(DeviceKind kind) {
  const auto from = source();
  return from ? from->devices(kind) : std::vector<DeviceDescription>();
}

Library::DeviceHandle Library::open(DeviceKind kind, std::u16string_view path) {
  const auto from = source();
  const auto descriptions = from ? from->devices(kind) : std::vector<DeviceDescription>();
  const auto description = std::find_if(descriptions.begin(), descriptions.end(),
                                        [&](const auto& each) { return recordPath(each.path) == path; });
  if (description == descriptions.end()) {
    failedUnlessExplained(kVCIFailed, {Cause::kNoDevice, deviceText(kind, "") + " is not there", "Plug it in again."});
    return nullptr;
  }
  auto device = from->open(kind, description->path);
  if (!device) {
    failedUnlessExplained(kVCIFailed, {Cause::kOther, deviceText(kind, description->name) + " could not be opened",
                                       "Close other programs that use it, or plug it in again."});
    endCall(kVCIFailed, kind, description->name);
    logError(lastError());
    return nullptr;
  }
  auto opened = std::make_shared<OpenDevice>(kind, description->name, from, std::move(device));
  MutexLock lock(mMutex);
  do {
    mLastHandle += kHandleStep;
  } while (mLastHandle == 0 || mDevices.contains(mLastHandle));
  mDevices.emplace(mLastHandle, std::move(opened));
  return reinterpret_cast<DeviceHandle>(mLastHandle);
}

int32_t Library::close(DeviceHandle handle) {
  std::shared_ptr<OpenDevice> open;
  {
    MutexLock lock(mMutex);
    const auto found = mDevices.find(reinterpret_cast<uintptr_t>(handle));
    if (found == mDevices.end()) return kVCIInvalidHandle;
    open = found->second;
  }
  const bool isInside = open->frames().isInside();
  auto device = open->close();
  {
    MutexLock lock(mMutex);
    mDevices.erase(reinterpret_cast<uintptr_t>(handle));  // last: who closes it meanwhile waits for callbacks too
  }
  if (isInside && device) destroy(std::move(open), std::move(device));
  return kVCISuccess;
}

/// Destroys a closed device when its callbacks have returned, one of which the caller is inside of.
void Library::destroy(std::shared_ptr<OpenDevice> open, std::shared_ptr<CaptureDevice> device) {
  {
    MutexLock lock(mMutex);
    ++mDestructions;
  }
  std::thread([this, open = std::move(open), device = std::move(device)]() mutable {
    open->frames().settle();
    device.reset();
    open.reset();
    MutexLock lock(mMutex);
    --mDestructions;
    mDestroyed.notify_all();
  }).detach();
}

void Library::waitForDestruction() {
  if (isInsideCallback()) return;
  MutexLock lock(mMutex);
  while (mDestructions > 0) mDestroyed.wait(mMutex);
}

std::shared_ptr<OpenDevice> Library::find(DeviceKind kind, DeviceHandle handle) {
  MutexLock lock(mMutex);
  const auto found = mDevices.find(reinterpret_cast<uintptr_t>(handle));
  return found != mDevices.end() && found->second->kind() == kind ? found->second : nullptr;
}

int32_t Library::subscribe(DeviceKind kind, DeviceHandle handle, uint32_t event, EventSlot::Callback callback) {
  const bool isVideo = kind == DeviceKind::kVideo;
  if (!handle) {
    const uint32_t arrival = isVideo ? uint32_t{kVCIEventDeviceArrived} : uint32_t{kACIEventDeviceArrived};
    const uint32_t departure = isVideo ? uint32_t{kVCIEventDeviceLeft} : uint32_t{kACIEventDeviceLeft};
    if (event != arrival && event != departure) return kVCIInvalidArgument;
    hotplugSlot(kind, event == arrival).set(std::move(callback));
    return kVCISuccess;
  }
  const auto device = find(kind, handle);
  if (!device) return kVCIInvalidHandle;
  if (event != (isVideo ? uint32_t{kVCIEventFrame} : uint32_t{kACIEventPacket})) return kVCIInvalidArgument;
  device->frames().set(std::move(callback));
  return kVCISuccess;
}

/// Brings our hot-plug handler to where it belongs: the source in use while a half is started.
/// Waits for no other thread that does the same, since that one may wait for our callback.
void Library::watchSource() {
  {
    MutexLock lock(mMutex);
    if (mIsWatchChanging) return;  // the other thread looks again when it is done
    mIsWatchChanging = true;
  }
  for (;;) {
    std::shared_ptr<CaptureSource> before, now;
    {
      MutexLock lock(mMutex);
      now = isInUse() ? mSource : nullptr;
      if (now == mWatched) {
        mIsWatchChanging = false;
        return;
      }
      before = std::exchange(mWatched, now);
    }
    if (before) setHandler(*before, {});
    if (now) setHandler(*now, [this](DeviceKind kind, bool arrived) { hotplugSlot(kind, arrived).call({}); });
  }
}

std::string sourcePathOf(CaptureSource& source, DeviceKind kind, const std::string& shown) {
  for (DeviceDescription& device : source.devices(kind)) {
    if (shownPath(device.path) == shown) return std::move(device.path);
  }
  return shown;
}

}  // namespace vesk::capture
