#include "capture/simulated/simulated_source.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

#include <vesk/atomic_file.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/simulated/simulated_commands.h"
#include "capture/simulated/simulated_device.h"
#include "capture/sources/paced_scheduler.h"

namespace vesk::capture {
namespace {

constexpr uint16_t kVendor = 0xFFF0;  // no maker's

const auto& kFirstDevices = *new std::array<DeviceDescription, 4>{{
    // stays while the process ends
    {DeviceKind::kVideo, SimulatedSource::kCameraPath, "Simulated Camera", kVendor, 0x0001, 0x0100},
    {DeviceKind::kVideo, SimulatedSource::kPlainCameraPath, "Simulated Plain Camera", kVendor, 0x0002, 0x0100},
    {DeviceKind::kAudio, SimulatedSource::kMicrophonePath, "Simulated Microphone", kVendor, 0x0011, 0x0100},
    {DeviceKind::kAudio, SimulatedSource::kMonoMicrophonePath, "Simulated Mono Microphone", kVendor, 0x0012, 0x0100},
}};

/// Where a camera's settings are kept; empty when they are not.
std::string placeOfSettings(const SimulatedUnit& unit) {
  const char* const place = std::getenv("VESK_SIMULATED_STATE");
  const bool isKept = place && *place && unit.description().kind == DeviceKind::kVideo;
  return isKept ? std::string(place) + (unit.isPlain() ? ".plain" : "") : "";
}

std::shared_ptr<SimulatedUnit> makeUnit(const DeviceDescription& description) {
  const bool isPlain =
      description.path == SimulatedSource::kPlainCameraPath || description.path == SimulatedSource::kMonoMicrophonePath;
  return std::make_shared<SimulatedUnit>(description, isPlain);
}

}  // namespace

SimulatedSource::SimulatedSource(const SourceOptions& options, Transport& transport)
    : mScheduler(std::make_shared<PacedScheduler>(options.pace, transport)),
      mEvents(DispatchQueue::createSerial("vesk hot-plug")) {
  for (const DeviceDescription& description : kFirstDevices) mUnits.push_back(makeUnit(description));
  {
    MutexLock lock(mListing->mutex);
    mListing->devices.assign(std::begin(kFirstDevices), std::end(kFirstDevices));
  }
  recallSettings();
  mCommands = std::make_unique<SimulatedCommands>(*this);
}

SimulatedSource::~SimulatedSource() = default;

void SimulatedSource::setHotplugHandler(HotplugHandler handler) {
  mHotplug->set(std::move(handler));
}

std::vector<DeviceDescription> SimulatedSource::devices(DeviceKind kind) {
  std::vector<DeviceDescription> descriptions;
  MutexLock lock(mListing->mutex);
  std::copy_if(mListing->devices.begin(), mListing->devices.end(), std::back_inserter(descriptions),
               [kind](const DeviceDescription& description) { return description.kind == kind; });
  return descriptions;
}

std::unique_ptr<CaptureDevice> SimulatedSource::open(DeviceKind kind, const std::string& path) {
  auto unit = find(path);
  if (!unit || unit->description().kind != kind) {
    failed(kVCIFailed, {Cause::kUnplugged, deviceText(kind, "") + " is not there any more", "Plug it in again."});
    return nullptr;
  }
  if (const SimulatedFaults faults = unit->faults(); faults.openFails) {
    if (faults.error) failed(kVCIFailed, faults.error);
    return nullptr;
  }
  if (kind == DeviceKind::kVideo) return std::make_unique<SimulatedCamera>(std::move(unit), mScheduler);
  return std::make_unique<SimulatedMicrophone>(std::move(unit), mScheduler);
}

bool SimulatedSource::plugIn(const DeviceDescription& description) {
  {
    MutexLock lock(mMutex);
    if (description.path.empty() || findUnit(description.path)) return false;
    const auto unit = makeUnit(description);
    if (const std::string file = placeOfSettings(*unit); !file.empty()) keepSettings(*unit, file);
    mUnits.push_back(unit);
    announce(description, true);
  }
  return true;
}

bool SimulatedSource::plugIn(const std::string& path) {
  for (const DeviceDescription& description : kFirstDevices)
    if (description.path == path) return plugIn(description);
  return false;
}

bool SimulatedSource::unplug(const std::string& path) {
  std::shared_ptr<SimulatedUnit> unit;
  {
    MutexLock lock(mMutex);
    unit = findUnit(path);
    if (!unit) return false;
    std::erase(mUnits, unit);
    unit->detach();
    announce(unit->description(), false);
    // Its last frames still come, until its departure has been told: at a fast pace the other devices would go on for
    // minutes without it before anybody could know.
    mEvents->async([unit] { unit->endStreams(); });
  }
  return true;
}

/// On the queue, which may outlive the source; in the order in which the devices come and go.
void SimulatedSource::announce(const DeviceDescription& description, bool arrived) {
  mEvents->async([slot = mHotplug, listing = mListing, description, arrived] {
    {
      MutexLock lock(listing->mutex);
      if (arrived)
        listing->devices.push_back(description);
      else
        std::erase_if(listing->devices, [&](const auto& each) { return each.path == description.path; });
    }
    slot->call(description.kind, arrived);
  });
}

void SimulatedSource::waitForHotplug() {
  mEvents->sync([] {});
}

bool SimulatedSource::setFaults(const std::string& path, const SimulatedFaults& faults) {
  const auto unit = find(path);
  if (unit) unit->setFaults(faults);
  return unit != nullptr;
}

SimulatedFaults SimulatedSource::faults(const std::string& path) {
  const auto unit = find(path);
  return unit ? unit->faults() : SimulatedFaults{};
}

bool SimulatedSource::setModel(const std::string& path, const SimulatedModel& model) {
  const auto unit = find(path);
  if (unit) unit->properties().setModel(model);
  return unit != nullptr;
}

std::vector<HeadMove> SimulatedSource::headMoves(const std::string& path) {
  const auto unit = find(path);
  return unit ? unit->properties().moves() : std::vector<HeadMove>();
}

/// Real cameras keep their settings from program to program: these do so in a file for each camera,
/// where a user wants it.
void SimulatedSource::recallSettings() {
  MutexLock lock(mMutex);
  for (const auto& unit : mUnits) {
    const std::string file = placeOfSettings(*unit);
    if (file.empty()) continue;
    std::ifstream stream(file);
    unit->properties().applySettings({std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()});
    keepSettings(*unit, file);
  }
}

void SimulatedSource::keepSettings(SimulatedUnit& unit, const std::string& file) {
  SimulatedProperties& properties = unit.properties();
  // Nudges and settings may come from different threads: the file written last is the newest.
  properties.setChangeHandler([&properties, file, mutex = std::make_shared<Mutex>()] {
    MutexLock writing(*mutex);
    const std::string text = properties.settings();
    NSError error;
    if (!writeToFileAtomically(file, {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, &error))
      NSLog(LogLevel::kError, "The simulated camera's settings were not kept: " + error.description);
  });
}

std::shared_ptr<SimulatedUnit> SimulatedSource::find(const std::string& path) {
  MutexLock lock(mMutex);
  return findUnit(path);
}

std::shared_ptr<SimulatedUnit> SimulatedSource::findUnit(const std::string& path) const {
  const auto found =
      std::find_if(mUnits.begin(), mUnits.end(), [&](const auto& unit) { return unit->description().path == path; });
  return found == mUnits.end() ? nullptr : *found;
}

}  // namespace vesk::capture
