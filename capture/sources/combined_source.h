#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/capture_source.h>

namespace vesk::capture {

/// Several sources as one: their devices in the order of the sources. Where two have a device of
/// the same path, the first one's is opened.
class CombinedSource : public CaptureSource {
 public:
  explicit CombinedSource(std::vector<std::shared_ptr<CaptureSource>> sources) : mSources(std::move(sources)) {}

  void setHotplugHandler(HotplugHandler handler) override {
    for (const auto& source : mSources) source->setHotplugHandler(handler);
  }

  std::vector<DeviceDescription> devices(DeviceKind kind) override {
    std::vector<DeviceDescription> all;
    for (const auto& source : mSources) {
      auto some = source->devices(kind);
      all.insert(all.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
    }
    return all;
  }

  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) override {
    CaptureSource* const owner = ownerOf(kind, path);
    return owner ? owner->open(kind, path) : nullptr;
  }

  std::unique_ptr<CaptureDevice> openForMetering(const std::string& path) override {
    CaptureSource* const owner = ownerOf(DeviceKind::kAudio, path);
    return owner ? owner->openForMetering(path) : nullptr;
  }

  std::string microphoneOf(const std::string& path) override {
    CaptureSource* const owner = ownerOf(DeviceKind::kVideo, path);
    return owner ? owner->microphoneOf(path) : std::string();
  }

  std::string cameraAtNode(const std::string& node) override {
    for (const auto& source : mSources) {
      if (std::string path = source->cameraAtNode(node); !path.empty()) return path;
    }
    return {};
  }

 private:
  CaptureSource* ownerOf(DeviceKind kind, const std::string& path) const {
    for (const auto& source : mSources) {
      for (const DeviceDescription& device : source->devices(kind)) {
        if (device.path == path) return source.get();
      }
    }
    return nullptr;
  }

  const std::vector<std::shared_ptr<CaptureSource>> mSources;
};

}  // namespace vesk::capture
