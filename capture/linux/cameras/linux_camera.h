#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/cameras/camera_modes.h"
#include "capture/linux/cameras/frame_stream.h"
#include "capture/linux/controls/control_properties.h"
#include "capture/linux/controls/extension_units.h"
#include "capture/linux/nodes/open_node.h"
#include "capture/sources/device_streams.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A camera of the machine's.
///
/// Threads: as CaptureDevice. Properties and formats never wait for a start or stop.
class LinuxCamera : public CaptureDevice {
 public:
  /// `nodes` are all of the camera's, at least one; `units` those that its nodes belong to.
  LinuxCamera(std::string name, std::vector<std::shared_ptr<OpenNode>> nodes, std::vector<ExtensionUnit> units = {});
  ~LinuxCamera() override;

  int32_t start(uint32_t substream, FrameCallback callback) override VESK_EXCLUDES(mMutex);
  int32_t stop(uint32_t substream) override;
  std::vector<VideoFormat> videoFormats() override;
  /// Refuses what is not among the formats, and takes the nearest interval; takes effect at the next start.
  int32_t setVideoParameters(const VideoParameters& parameters) override VESK_EXCLUDES(mMutex);
  /// Properties are asked of the camera each time. What an extension unit has goes before a control.
  int32_t getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t property, std::span<uint8_t> value,
                      uint32_t& valueSize) override;
  int32_t setProperty(const PropertySetIdentifier& set, uint32_t property, std::span<const uint8_t> value) override;
  std::vector<PropertySetIdentifier> propertySets() override;
  std::vector<uint32_t> propertyItems(const PropertySetIdentifier& set) override;
  void requestKeyFrame() override;

  /// Of the present or last stream.
  StreamCounts counts();

 private:
  const std::string mName;
  const std::vector<std::shared_ptr<OpenNode>> mNodes;
  const UnitProperties mUnits;
  const ControlProperties mControls;
  const std::vector<CameraMode> mModes;
  Mutex mMutex;
  VideoParameters mParameters VESK_GUARDED_BY(mMutex);
  DeviceStreams<FrameStream> mStreams;
};

}  // namespace vesk::capture
