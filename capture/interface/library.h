#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture/interface/open_device.h"

namespace vesk::capture {

/// What stands behind the C interface: the source in use, the open devices and the subscriptions.
///
/// Threads: every operation from any thread. No lock of the library is held while a source or a
/// callback is called.
class Library {
 public:
  using DeviceHandle = void*;

  static Library& shared();

  void setSource(std::shared_ptr<CaptureSource> source) VESK_EXCLUDES(mMutex);
  std::shared_ptr<CaptureSource> source() VESK_EXCLUDES(mMutex);

  /// Starts a half of the library; as many calls of cleanUp end it. The first start chooses a
  /// source when none has been set: by VESK_CAPTURE, else kDefaultSource.
  int32_t initialise(DeviceKind kind) VESK_EXCLUDES(mMutex, mSelectionMutex);
  /// The last call closes the half's devices and ends all its subscriptions.
  int32_t cleanUp(DeviceKind kind) VESK_EXCLUDES(mMutex);

  std::vector<DeviceDescription> devices(DeviceKind kind) VESK_EXCLUDES(mMutex);
  /// Null when there is no device of the kind at `path` or it cannot be opened: the call's error says why.
  DeviceHandle open(DeviceKind kind, std::u16string_view path) VESK_EXCLUDES(mMutex);
  int32_t close(DeviceHandle handle) VESK_EXCLUDES(mMutex);
  /// The open device; null when the handle is stale or of another kind.
  std::shared_ptr<OpenDevice> find(DeviceKind kind, DeviceHandle handle) VESK_EXCLUDES(mMutex);

  /// Sets or, with an empty callback, ends the subscription to an event: of the half when the
  /// handle is null, else of the device.
  int32_t subscribe(DeviceKind kind, DeviceHandle handle, uint32_t event, EventSlot::Callback callback);

 private:
  struct Half {
    int users = 0;
    EventSlot arrived;
    EventSlot left;
  };

  Half& half(DeviceKind kind) VESK_REQUIRES(mMutex) { return mHalves[kind == DeviceKind::kAudio]; }
  EventSlot& hotplugSlot(DeviceKind kind, bool arrived) {
    Half& of = mHalves[kind == DeviceKind::kAudio];
    return arrived ? of.arrived : of.left;
  }
  bool isInUse() const VESK_REQUIRES(mMutex) { return mHalves[0].users > 0 || mHalves[1].users > 0; }
  void selectByEnvironment() VESK_EXCLUDES(mMutex, mSelectionMutex);
  void watchSource() VESK_EXCLUDES(mMutex);
  void destroy(std::shared_ptr<OpenDevice> open, std::shared_ptr<CaptureDevice> device) VESK_EXCLUDES(mMutex);
  void waitForDestruction() VESK_EXCLUDES(mMutex);

  Mutex mSelectionMutex;  // before mMutex
  bool mHasSelected VESK_GUARDED_BY(mSelectionMutex) = false;
  Error mSelectionError VESK_GUARDED_BY(mSelectionMutex);

  Mutex mMutex;
  Half mHalves[2];  // video, audio; the counts are guarded by mMutex, the slots by themselves
  std::shared_ptr<CaptureSource> mSource VESK_GUARDED_BY(mMutex);
  std::map<uintptr_t, std::shared_ptr<OpenDevice>> mDevices VESK_GUARDED_BY(mMutex);
  uintptr_t mLastHandle VESK_GUARDED_BY(mMutex) = 0;
  std::shared_ptr<CaptureSource> mWatched VESK_GUARDED_BY(mMutex);  // has our hot-plug handler
  bool mIsWatchChanging VESK_GUARDED_BY(mMutex) = false;
  int mDestructions VESK_GUARDED_BY(mMutex) = 0;  // devices going on threads of their own
  std::condition_variable_any mDestroyed;
};

/// The path by which a source knows the device that is shown at `shown` (see shownPath); `shown` itself
/// when there is none.
std::string sourcePathOf(CaptureSource& source, DeviceKind kind, const std::string& shown);

}  // namespace vesk::capture
