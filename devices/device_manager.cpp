#include "devices/device_manager.h"

#include <algorithm>
#include <condition_variable>
#include <utility>

#include "Source/Utilities/unistr.h"
#include "capture/aci.h"
#include "capture/vci.h"
#include "devices/enumeration.h"
#include "platform/foundation/bundle.h"
#include "platform/foundation/log.h"
#include "platform/foundation/mutex.h"
#include "platform/foundation/notification_center.h"
#include "platform/foundation/property_list.h"

namespace vesk {

/// What differs between cameras and microphones in the capture library.
struct CaptureLibraryHalf {
  int32_t deviceType;
  bool hasRevision;
  int32_t (*enumDevices)(CaptureDeviceRecord* records, uint32_t* size, uint32_t* count);
};

namespace {

/// Logs a line that the last call did not give; an empty one is not logged. For what is looked at anew
/// for every device.
void logOnce(const std::string& line) {
  static Mutex mutex;
  static std::string last VESK_GUARDED_BY(mutex);
  {
    const MutexLock lock(mutex);
    if (line == last) return;
    last = line;
  }
  if (!line.empty()) NSLog(line);
}

constexpr CaptureLibraryHalf kVideoHalf{kVeskDeviceTypeVideo, true, VCI_Enum_Devices};
constexpr CaptureLibraryHalf kAudioHalf{kVeskDeviceTypeAudio, false, ACI_Enum_Devices};

/// The shared instance. `isStarting` keeps other callers waiting until the library runs;
/// `isStopping` lets them have the old instance until it has stopped, since a handler that an event
/// is waiting for may be among them.
struct Shared {
  Mutex mutex;
  std::condition_variable_any started;
  std::shared_ptr<VeskDeviceManager> instance VESK_GUARDED_BY(mutex);
  bool isStarting VESK_GUARDED_BY(mutex) = false;
  bool isStopping VESK_GUARDED_BY(mutex) = false;
};

// Never destroyed: the library may still call back while the process ends.
Shared& shared() {
  static auto& instance = *new Shared;
  return instance;
}

/// The manager that an event is for, held while the event is handled; null once it is gone.
std::shared_ptr<VeskDeviceManager> managerFor(const void* context) {
  Shared& all = shared();
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
  info->setPath(unistr_createUTF8(unistr_view(record.path)));
  info->setProductID(record.productID);
  info->setVendorID(record.vendorID);
  if (half.hasRevision) info->setRevisionID(record.revisionID);
  info->setDeviceType(half.deviceType);
  return info;
}

VeskDeviceList enumerate(const CaptureLibraryHalf& half) {
  VeskDeviceList devices;
  for (const auto& record : enumerateRecords<CaptureDeviceRecord>(half.enumDevices))
    devices.push_back(infoFrom(record, half));
  return devices;
}

}  // namespace

std::shared_ptr<VeskDeviceManager> VeskDeviceManager::getSharedInstance() {
  Shared& all = shared();
  std::shared_ptr<VeskDeviceManager> manager;
  {
    const MutexLock lock(all.mutex);
    while (all.isStarting) all.started.wait(all.mutex);
    if (all.instance) return all.instance;
    // Events may come as soon as it starts, so it can be found from here on.
    manager.reset(new VeskDeviceManager);
    all.instance = manager;
    all.isStarting = true;
  }
  manager->start();
  {
    const MutexLock lock(all.mutex);
    all.isStarting = false;
  }
  all.started.notify_all();
  return manager;
}

void VeskDeviceManager::destroy() {
  Shared& all = shared();
  std::shared_ptr<VeskDeviceManager> manager;
  {
    const MutexLock lock(all.mutex);
    while (all.isStarting) all.started.wait(all.mutex);
    if (!all.instance || all.isStopping) return;
    manager = all.instance;
    all.isStopping = true;
  }
  manager->stop();
  const MutexLock lock(all.mutex);
  all.instance.reset();
  all.isStopping = false;
}

VeskDeviceManager::~VeskDeviceManager() = default;

void VeskDeviceManager::start() {
  VCI_Init();
  ACI_Init();
  for (const uint32_t event : kVideoEvents) VCI_Subscribe_Event(nullptr, event, PNPVideoDeviceCallback, this);
  for (const uint32_t event : kAudioEvents) ACI_Subscribe_Event(nullptr, event, PNPAudioDeviceCallback, this);
}

void VeskDeviceManager::stop() {
  for (const uint32_t event : kVideoEvents) VCI_UnSubscribe_Event(nullptr, event);
  for (const uint32_t event : kAudioEvents) ACI_UnSubscribe_Event(nullptr, event);
  VCI_Cleanup();
  ACI_Cleanup();
}

std::shared_ptr<const VeskDeviceList> VeskDeviceManager::getVideoDeviceList() {
  return read(mVideoDevices, kVideoHalf);
}

std::shared_ptr<const VeskDeviceList> VeskDeviceManager::getAudioDeviceList() {
  return read(mAudioDevices, kAudioHalf);
}

void VeskDeviceManager::updateVideoDeviceList() {
  update(mVideoDevices, kVideoHalf);
}
void VeskDeviceManager::updateAudioDevicelist() {
  update(mAudioDevices, kAudioHalf);
}

VeskDeviceList VeskDeviceManager::enumarateVideoDevices() const {
  return enumerate(kVideoHalf);
}
VeskDeviceList VeskDeviceManager::enumarateAudioDevices() const {
  return enumerate(kAudioHalf);
}

std::shared_ptr<const VeskDeviceList> VeskDeviceManager::read(Devices& devices, const CaptureLibraryHalf& half) {
  const MutexLock lock(devices.mutex);
  if (!devices.list) devices.list = std::make_shared<const VeskDeviceList>(enumerate(half));
  return devices.list;
}

void VeskDeviceManager::update(Devices& devices, const CaptureLibraryHalf& half) {
  std::shared_ptr<VeskDeviceInfo> changed;
  const char* name = KVXDeviceRemoved;
  {
    const MutexLock lock(devices.mutex);
    const auto before = devices.list ? devices.list : std::make_shared<const VeskDeviceList>();
    const auto now = std::make_shared<const VeskDeviceList>(enumerate(half));
    if (now->size() > before->size()) {
      name = KVXDeviceAdded;
      changed = getOddDevice(*now, *before);
    } else {
      changed = getOddDevice(*before, *now);
    }
    devices.list = now;
  }
  if (changed) NSNotificationCenter::defaultCenter().postNotificationName(name, nullptr, {{name, changed}});
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
  std::string why;
  const auto names = PropertyList::dictionaryWithContentsOfFile(*path, &why);
  logOnce(names ? std::string() : "Cannot read the names of devices in " + *path + ": " + why);
  if (!names) return fallbackName;
  const auto found = names->find(std::to_string(productID));
  if (found == names->end()) return fallbackName;
  const auto* const name = found->second.as<std::string>();
  return name ? *name : fallbackName;
}

}  // namespace vesk
