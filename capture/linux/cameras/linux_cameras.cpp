#include "capture/linux/cameras/linux_cameras.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/encoding/encoded_camera.h"
#include "capture/interface/call_error.h"
#include "capture/linux/cameras/camera_records.h"
#include "capture/linux/cameras/linux_camera.h"
#include "capture/linux/controls/extension_units.h"
#include "capture/linux/nodes/node_error.h"
#include "capture/sources/hotplug.h"
#include "platform/foundation/errors.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// The cameras that are attached, and those when the handler was last called. The finder's thread holds on to it.
class LinuxCameras::Registry : public std::enable_shared_from_this<Registry> {
 public:
  Registry(std::shared_ptr<V4L2Calls> calls, std::unique_ptr<CameraFinder> finder)
      : mCalls(std::move(calls)), mFinder(std::move(finder)) {}

  /// The cameras to list: while changes are being reported, those reported so far.
  std::vector<CameraRecord> records() VESK_EXCLUDES(mMutex) {
    {
      MutexLock lock(mMutex);
      if (mReported) return *mReported;
    }
    return attached();
  }

  /// Asks each node once as long as it is attached: asking wakes a sleeping camera.
  std::vector<CameraRecord> attached() VESK_EXCLUDES(mMutex) {
    std::vector<KnownNode> known;
    MutexLock lock(mMutex);
    std::map<std::string, NodeIdentity> identities;
    for (VideoNode& node : mFinder->nodes()) {
      const std::string key = node.attachment + " " + node.systemPath;
      const auto old = mIdentities.find(key);
      auto identity = old != mIdentities.end() ? std::optional(old->second) : identify(*mCalls, node.node);
      if (identity) identities[key] = *identity;
      known.push_back({std::move(node), std::move(identity)});
    }
    mIdentities = std::move(identities);
    return makeRecords(known);
  }

  /// The camera that is attached at `path`, reported or not.
  std::optional<CameraRecord> record(const std::string& path) {
    for (CameraRecord& record : attached()) {
      if (record.description.path == path) return std::move(record);
    }
    return std::nullopt;
  }

  void setHandler(HotplugHandler handler) VESK_EXCLUDES(mListMutex) {
    const bool isSet = handler != nullptr;
    mHandler.set(std::move(handler));
    if (!isSet) return;
    MutexLock lock(mListMutex);
    if (!std::exchange(mIsWatching, true))
      mFinder->watch([registry = weak_from_this()] {
        if (const auto self = registry.lock()) self->look();
      });
    mPresent = attached();
  }

  std::shared_ptr<V4L2Calls> sharedCalls() { return mCalls; }

 private:
  using Records = std::vector<CameraRecord>;

  /// One that was away so shortly that it is there again has another attachment, and counts as another.
  static bool isSame(const CameraRecord& one, const CameraRecord& other) {
    return one.description.path == other.description.path && one.attachment == other.attachment;
  }

  /// Announces what has changed: comparing lists, not counting events, announces everything once.
  void look() noexcept VESK_EXCLUDES(mListMutex, mMutex) try {
    const EndOfReport end{*this};
    const Records now = attached();
    Records before;
    {
      MutexLock lock(mListMutex);
      before = std::exchange(mPresent, now);
    }
    setReported(before);
    announceOneByOne(before, now, isSame, [this](const Records& reported, bool arrived) {
      setReported(reported);
      mHandler.call(DeviceKind::kVideo, arrived);
    });
  } catch (const std::exception& exception) {
    NSLog(LogLevel::kError, std::string("The cameras could not be looked for: ") + exception.what());
  } catch (...) {
    NSLog(LogLevel::kError, "The cameras could not be looked for.");
  }

  struct EndOfReport {
    Registry& registry;
    ~EndOfReport() { registry.setReported(std::nullopt); }
  };

  void setReported(std::optional<Records> reported) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mReported = std::move(reported);
  }

  const std::shared_ptr<V4L2Calls> mCalls;
  HotplugCaller mHandler;
  Mutex mListMutex;                              // taken before mMutex
  Records mPresent VESK_GUARDED_BY(mListMutex);  // when was last looked
  bool mIsWatching VESK_GUARDED_BY(mListMutex) = false;
  Mutex mMutex;
  std::map<std::string, NodeIdentity> mIdentities VESK_GUARDED_BY(mMutex);
  std::optional<Records> mReported VESK_GUARDED_BY(mMutex);  // there while changes are being reported
  const std::unique_ptr<CameraFinder> mFinder;               // ends its thread before the rest goes
};

LinuxCameras::LinuxCameras() : LinuxCameras(V4L2Calls::system(), CameraFinder::system()) {}

LinuxCameras::LinuxCameras(std::shared_ptr<V4L2Calls> calls, std::unique_ptr<CameraFinder> finder)
    : mRegistry(std::make_shared<Registry>(std::move(calls), std::move(finder))) {}

LinuxCameras::~LinuxCameras() {
  mRegistry->setHandler({});
}

void LinuxCameras::setHotplugHandler(HotplugHandler handler) {
  mRegistry->setHandler(std::move(handler));
}

std::vector<DeviceDescription> LinuxCameras::devices(DeviceKind kind) {
  std::vector<DeviceDescription> descriptions;
  if (kind != DeviceKind::kVideo) return descriptions;
  for (CameraRecord& record : mRegistry->records()) descriptions.push_back(std::move(record.description));
  return descriptions;
}

std::string LinuxCameras::usbPathOf(const std::string& path) {
  const auto record = mRegistry->record(path);
  return record ? record->usbPath : std::string();
}

std::string LinuxCameras::cameraAtNode(const std::string& node) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::canonical(node, error);
  const std::string name = error ? node : target.string();
  for (const CameraRecord& record : mRegistry->records()) {
    if (std::find(record.nodes.begin(), record.nodes.end(), name) != record.nodes.end()) return record.description.path;
  }
  return {};
}

std::unique_ptr<CaptureDevice> LinuxCameras::open(DeviceKind kind, const std::string& path) {
  const auto record = kind == DeviceKind::kVideo ? mRegistry->record(path) : std::nullopt;
  if (!record) {
    failed(kVCIFailed, {Cause::kUnplugged, deviceText(kind, "") + " is not there any more", "Plug it in again."});
    return nullptr;
  }
  std::vector<std::shared_ptr<OpenNode>> nodes;
  std::vector<ExtensionUnit> units;
  Error refused;
  for (size_t at = 0; at < record->nodes.size(); ++at) {
    const std::string& name = record->nodes[at];
    int error = 0;
    auto node = OpenNode::open(mRegistry->sharedCalls(), name, error, record->description.name);
    if (node) {
      addExtensionUnits(record->systemPaths[at], nodes.size(), units);
      nodes.push_back(std::move(node));
    } else {
      refused = nodeError(deviceText(kind, record->description.name) + " could not be opened", name, error);
    }
  }
  if (nodes.empty()) {
    failed(kVCIFailed, std::move(refused));
    return nullptr;
  }
  logError(refused);  // of one of several nodes: the camera lacks what that gives
  const std::string& name = record->description.name;
  return EncodedCamera::wrap(std::make_unique<LinuxCamera>(name, std::move(nodes), std::move(units)), name);
}

}  // namespace vesk::capture
