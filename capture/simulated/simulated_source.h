#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/capture_host.h>
#include <vesk/capture_source.h>
#include "capture/simulated/simulated_model.h"
#include "capture/sources/hotplug.h"
#include "platform/foundation/mutex.h"

namespace vesk {
class DispatchQueue;
}

namespace vesk::capture {

class PacedScheduler;
class SimulatedCommands;
class SimulatedUnit;

/// Cameras and microphones that need no hardware and behave the same every time: numbered frames
/// with a flash on every whole second, and a beep at the same instant. Two cameras (one with all
/// formats and sizes, one plain) and two microphones (stereo, mono) are plugged in at first. What
/// can go wrong with devices goes wrong on command. Cameras forget what their controls were set to
/// with the source, unless the environment variable VESK_SIMULATED_STATE names a file to keep it in.
/// Commands come from outside the process too: see SimulatedCommands.
///
/// Threads: every operation from any thread.
class SimulatedSource : public CaptureSource {
 public:
  static constexpr const char* kCameraPath = "simulated:camera";
  static constexpr const char* kPlainCameraPath = "simulated:camera:plain";
  static constexpr const char* kMicrophonePath = "simulated:microphone";
  static constexpr const char* kMonoMicrophonePath = "simulated:microphone:mono";

  explicit SimulatedSource(const SourceOptions& options = {}, Transport& transport = Transport::shared());
  ~SimulatedSource() override;

  void setHotplugHandler(HotplugHandler handler) override;
  std::vector<DeviceDescription> devices(DeviceKind kind) override;
  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) override;

  /// Plugs a device in, after those that are there: one of the four that was unplugged, or one
  /// more of the full model of its kind. It can be opened at once, and is listed as soon as the handler is called.
  /// False when its path is taken or empty.
  bool plugIn(const DeviceDescription& description);
  /// Plugs one of the four in again, with its controls at their defaults.
  bool plugIn(const std::string& path);
  /// Unplugs a device: what captures from it gets nothing more, starts fail, and it leaves the list as soon as
  /// the handler is called. False when it is not there.
  bool unplug(const std::string& path);
  /// Waits until the handler has been called for everything so far. Not from inside the handler.
  void waitForHotplug();

  /// What goes wrong with a device from now on, until it is unplugged. False when it is not there.
  bool setFaults(const std::string& path, const SimulatedFaults& faults);
  /// The faults that are left; the counts have counted down.
  SimulatedFaults faults(const std::string& path);

  /// Makes a camera another model, all its controls at their defaults. False when it is not there.
  bool setModel(const std::string& path, const SimulatedModel& model);
  /// The last moves of a camera's head.
  std::vector<HeadMove> headMoves(const std::string& path);

 private:
  std::shared_ptr<SimulatedUnit> find(const std::string& path) VESK_EXCLUDES(mMutex);
  std::shared_ptr<SimulatedUnit> findUnit(const std::string& path) const VESK_REQUIRES(mMutex);
  void announce(const DeviceDescription& description, bool arrived);
  void recallSettings();
  static void keepSettings(SimulatedUnit& unit, const std::string& file);

  /// What is listed: each change comes into it just before it is announced, so that whoever compares lists finds one.
  struct Listing {
    Mutex mutex;
    std::vector<DeviceDescription> devices VESK_GUARDED_BY(mutex);
  };

  const std::shared_ptr<PacedScheduler> mScheduler;
  const std::shared_ptr<HotplugCaller> mHotplug = std::make_shared<HotplugCaller>();
  const std::shared_ptr<Listing> mListing = std::make_shared<Listing>();
  Mutex mMutex;
  std::vector<std::shared_ptr<SimulatedUnit>> mUnits VESK_GUARDED_BY(mMutex);
  std::shared_ptr<DispatchQueue> mEvents;        // arrivals and departures
  std::unique_ptr<SimulatedCommands> mCommands;  // uses all of the above
};

}  // namespace vesk::capture
