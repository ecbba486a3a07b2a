#include <vesk/device_manager.h>

#include <algorithm>
#include <condition_variable>
#include <utility>

#include <vesk/aci.h>
#include <vesk/bundle.h>
#include <vesk/log.h>
#include <vesk/notification_center.h>
#include <vesk/property_list.h>
#include <vesk/unistr.h>
#include <vesk/vci.h>
#include "capture/interface/callback_slot.h"
#include "devices/enumeration.h"
#include "devices/nudge_gate.h"
#include "platform/foundation/mutex.h"

namespace vesk {

namespace {

/// What differs between cameras and microphones in the capture library.
struct CaptureLibraryHalf {
  int32_t deviceType;
  bool hasRevision;
  int32_t (*enumDevices)(CaptureDeviceRecord* records, uint32_t* size, uint32_t* count);
};

/// Logs a line that the last call did not give; an empty one is not logged. For what is looked at anew
/// for every device.
void logOnce(const std::string& line) {
  static Mutex mutex;
  static auto& last VESK_GUARDED_BY(mutex) = *new std::string;
  {
    const MutexLock lock(mutex);
    if (line == last) return;
    last = line;
  }
  if (!line.empty()) NSLog(LogLevel::kWarning, line);
}

constexpr CaptureLibraryHalf kVideoHalf{kVeskDeviceTypeVideo, true, VCI_Enum_Devices};
constexpr CaptureLibraryHalf kAudioHalf{kVeskDeviceTypeAudio, false, ACI_Enum_Devices};

/// The shared instance. `isStarting` keeps other callers waiting until the library runs;
/// `isStopping` lets them have the old instance until it has stopped, since a handler that an event
/// is waiting for may be among them. For the same reason a handler does not wait for a start: the
/// thread that starts may be waiting for the handler to return.
struct SharedManager {
  Mutex mutex;
  std::condition_variable_any started;

  void waitForStart() VESK_REQUIRES(mutex) {
    while (isStarting && !capture::isInsideCallback()) started.wait(mutex);
  }

  std::shared_ptr<VeskDeviceManager> instance VESK_GUARDED_BY(mutex);
  bool isStarting VESK_GUARDED_BY(mutex) = false;
  bool isStopping VESK_GUARDED_BY(mutex) = false;
};

// Never destroyed: the library may still call back while the process ends.
SharedManager& shared() {
  static auto& instance = *new SharedManager;
  return instance;
}

/// The manager that an event is for, held while the event is handled; null once it is gone.
std::shared_ptr<VeskDeviceManager> managerFor(const void* context) {
  SharedManager& all = shared();
  const MutexLock lock(all.mutex);
  return all.instance.get() == context ? all.instance : nullptr;
}

void PNPVideoDeviceCallback(void*, VCI_EVENT_INFO* info) {
  if (const auto manager = managerFor(info->context)) manager->updateVideoDeviceList();
}

void PNPAudioDeviceCallback(void*, ACI_EVENT_INFO* info) {
  if (const auto manager = managerFor(info->context)) manager->updateAudioDevicelist();
}

constexpr uint32_t kVideoEvents[] = {kVCIEventDeviceLeft, kVCIEventDeviceArrived};
constexpr uint32_t kAudioEvents[] = {kACIEventDeviceLeft, kACIEventDeviceArrived};

std::shared_ptr<VeskDeviceInfo> infoFrom(const CaptureDeviceRecord& record, const CaptureLibraryHalf& half) {
  auto info = std::make_shared<VeskDeviceInfo>();
  info->setName(
      VeskDeviceManager::getDeviceFriendlyName(record.productID, unistr_createUTF8(unistr_view(record.name))));
  info->setPathUnits(unistr_view(record.path));
  info->setProductID(record.productID);
  info->setVendorID(record.vendorID);
  if (half.hasRevision) info->setRevisionID(record.revisionID);
  info->setDeviceType(half.deviceType);
  return info;
}

VeskDeviceList recordsOf(const CaptureLibraryHalf& half) {
  VeskDeviceList devices;
  for (const auto& record : enumerateRecords<CaptureDeviceRecord>(half.enumDevices))
    devices.push_back(infoFrom(record, half));
  return devices;
}

/// The list of one half.
class Devices {
 public:
  explicit Devices(const CaptureLibraryHalf& half) : mHalf(half) {}

  /// The list; enumerates when there is none yet.
  std::shared_ptr<const VeskDeviceList> get() VESK_EXCLUDES(mUpdating, mMutex);
  /// Enumerates anew and posts what changed.
  void update() VESK_EXCLUDES(mUpdating, mMutex);

 private:
  std::shared_ptr<const VeskDeviceList> current() const VESK_EXCLUDES(mMutex);
  std::shared_ptr<const VeskDeviceList> enumerate() VESK_REQUIRES(mUpdating) VESK_EXCLUDES(mMutex);

  const CaptureLibraryHalf& mHalf;
  /// Held while enumerating, so that two updates see each other's list; never while calling out to
  /// observers. Taken before mMutex.
  Mutex mUpdating;
  /// Held only to look at or exchange the pointer: a list in hand is given without waiting for devices.
  mutable Mutex mMutex;
  std::shared_ptr<const VeskDeviceList> mList VESK_GUARDED_BY(mMutex);
};

std::shared_ptr<const VeskDeviceList> Devices::current() const {
  const MutexLock lock(mMutex);
  return mList;
}

/// Makes the list anew and keeps it.
std::shared_ptr<const VeskDeviceList> Devices::enumerate() {
  const auto list = std::make_shared<const VeskDeviceList>(recordsOf(mHalf));
  const MutexLock lock(mMutex);
  return mList = list;
}

std::shared_ptr<const VeskDeviceList> Devices::get() {
  if (auto list = current()) return list;
  const MutexLock updating(mUpdating);
  if (auto list = current()) return list;  // made while we waited
  return enumerate();
}

void Devices::update() {
  std::shared_ptr<VeskDeviceInfo> changed;
  const char* name = KVXDeviceRemoved;
  {
    const MutexLock updating(mUpdating);
    auto before = current();
    if (!before) before = std::make_shared<const VeskDeviceList>();
    const auto now = enumerate();
    if (now->size() > before->size()) {
      name = KVXDeviceAdded;
      changed = VeskDeviceManager::getOddDevice(*now, *before);
    } else {
      changed = VeskDeviceManager::getOddDevice(*before, *now);
    }
  }
  if (changed) NSNotificationCenter::defaultCenter().postNotificationName(name, nullptr, {{name, changed}});
}

}  // namespace

struct VeskDeviceManager::State {
  Devices mVideoDevices{kVideoHalf};
  Devices mAudioDevices{kAudioHalf};
};

std::shared_ptr<VeskDeviceManager> VeskDeviceManager::getSharedInstance() {
  SharedManager& all = shared();
  std::shared_ptr<VeskDeviceManager> manager;
  {
    const MutexLock lock(all.mutex);
    all.waitForStart();
    if (all.instance) return all.instance;
    // Events may come as soon as it starts, so it can be found from here on.
    manager.reset(new VeskDeviceManager);
    all.instance = manager;
    all.isStarting = true;
  }
  manager->start();
  bool isUnwanted = false;
  {
    const MutexLock lock(all.mutex);
    all.isStarting = false;
    isUnwanted = all.isStopping;
  }
  all.started.notify_all();
  if (isUnwanted) stopShared();
  return manager;
}

void VeskDeviceManager::destroy() {
  SharedManager& all = shared();
  {
    const MutexLock lock(all.mutex);
    all.waitForStart();
    if (!all.instance || all.isStopping) return;
    all.isStopping = true;
    if (all.isStarting) return;  // a handler destroys it: the thread that starts it stops it again
  }
  stopShared();
}

/// Stops the instance and forgets it; isStopping has been set.
void VeskDeviceManager::stopShared() {
  SharedManager& all = shared();
  std::shared_ptr<VeskDeviceManager> manager;
  {
    const MutexLock lock(all.mutex);
    manager = all.instance;
  }
  manager->stop();
  const MutexLock lock(all.mutex);
  all.instance.reset();
  all.isStopping = false;
}

VeskDeviceManager::VeskDeviceManager() : mState(std::make_unique<State>()) {}
VeskDeviceManager::~VeskDeviceManager() = default;

void VeskDeviceManager::start() {
  VCI_Init();
  ACI_Init();
  for (const uint32_t event : kVideoEvents) VCI_Subscribe_Event(nullptr, event, PNPVideoDeviceCallback, this);
  for (const uint32_t event : kAudioEvents) ACI_Subscribe_Event(nullptr, event, PNPAudioDeviceCallback, this);
}

void VeskDeviceManager::stop() {
  // The library closes every camera: a head that is turning gets its stop before.
  const NudgeGate::Closing closing(NudgeGate::ofAllCameras());
  for (const uint32_t event : kVideoEvents) VCI_UnSubscribe_Event(nullptr, event);
  for (const uint32_t event : kAudioEvents) ACI_UnSubscribe_Event(nullptr, event);
  VCI_Cleanup();
  ACI_Cleanup();
}

VeskDeviceListPtr VeskDeviceManager::getVideoDeviceList() {
  return mState->mVideoDevices.get();
}

VeskDeviceListPtr VeskDeviceManager::getAudioDeviceList() {
  return mState->mAudioDevices.get();
}

void VeskDeviceManager::updateVideoDeviceList() {
  mState->mVideoDevices.update();
}
void VeskDeviceManager::updateAudioDevicelist() {
  mState->mAudioDevices.update();
}

VeskDeviceList VeskDeviceManager::enumarateVideoDevices() const {
  return recordsOf(kVideoHalf);
}
VeskDeviceList VeskDeviceManager::enumarateAudioDevices() const {
  return recordsOf(kAudioHalf);
}

std::shared_ptr<VeskDeviceInfo> VeskDeviceManager::getOddDevice(const VeskDeviceList& list,
                                                                const VeskDeviceList& newList) {
  const auto isMissing = [&newList](const auto& device) {
    return std::none_of(newList.begin(), newList.end(),
                        [&device](const auto& other) { return device->isEqualToDevice(*other); });
  };
  const auto found = std::find_if(list.begin(), list.end(), isMissing);
  return found == list.end() ? nullptr : *found;
}

std::string VeskDeviceManager::getDeviceFriendlyName(uint32_t productID, const std::string& fallbackName) {
  const auto path = NSBundle::mainBundle().pathForResource("DeviceNames", "plist");
  if (!path) return fallbackName;
  Error why;
  const auto names = PropertyList::dictionaryWithContentsOfFile(*path, &why);
  logOnce(names ? std::string() : "The names of devices are unknown: " + why.what);
  if (!names) return fallbackName;
  const auto found = names->find(std::to_string(productID));
  if (found == names->end()) return fallbackName;
  const auto* const name = found->second.as<std::string>();
  return name ? *name : fallbackName;
}

}  // namespace vesk
