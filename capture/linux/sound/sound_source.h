#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture/linux/sound/sharing.h"
#include "capture/linux/sound/sound_system.h"
#include "capture/sources/hotplug.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// The microphones of a sound system as a source: the sound half of the machine's own devices.
/// Cameras are not among its devices.
///
/// Threads: as CaptureSource demands. Devices may outlive the source.
class SoundSource : public CaptureSource {
 public:
  /// `quiet` is for how long (milliseconds) the system must not report changes before they are
  /// handled: one device makes several reports when it comes.
  explicit SoundSource(std::shared_ptr<SoundSystem> system, int quiet = 250);
  ~SoundSource() override;

  void setHotplugHandler(HotplugHandler handler) override VESK_EXCLUDES(mMutex);
  std::vector<DeviceDescription> devices(DeviceKind kind) override;
  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) override;
  /// Records beside a capture; where a microphone cannot be recorded from twice, it listens to it.
  std::unique_ptr<CaptureDevice> openForMetering(const std::string& path) override;

  /// The microphones with what else is known about them, to pair cameras with; while changes are being
  /// announced, those announced so far.
  std::vector<Microphone> microphones() VESK_EXCLUDES(mMutex);

 private:
  std::unique_ptr<CaptureDevice> openMicrophone(const std::string& path, bool isMeter);
  bool reportTrouble();
  bool waitForChange() VESK_EXCLUDES(mMutex);
  void compare() VESK_EXCLUDES(mMutex);
  void setAnnounced(std::optional<std::vector<Microphone>> announced) VESK_EXCLUDES(mMutex);
  void stopWatching() VESK_EXCLUDES(mMutex);

  const std::shared_ptr<SoundSystem> mSystem;
  const std::shared_ptr<SoundSharing> mSharing;
  const std::chrono::milliseconds mQuiet;
  HotplugCaller mHandler;
  std::vector<Microphone> mKnown;  // of the watching thread once it runs

  Mutex mMutex;
  std::condition_variable_any mChanged;
  uint64_t mChanges VESK_GUARDED_BY(mMutex) = 0;
  uint64_t mSeenChanges VESK_GUARDED_BY(mMutex) = 0;
  bool mIsWatching VESK_GUARDED_BY(mMutex) = false;
  bool mIsEnding VESK_GUARDED_BY(mMutex) = false;
  std::thread mWatcher VESK_GUARDED_BY(mMutex);
  std::optional<std::vector<Microphone>> mAnnounced VESK_GUARDED_BY(mMutex);  // there while changes are being announced
};

}  // namespace vesk::capture
