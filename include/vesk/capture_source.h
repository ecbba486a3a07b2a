#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/property_sets.h>

namespace vesk::capture {

enum class DeviceKind { kVideo, kAudio };

/// A device as a source reports it. Texts are UTF-8; name and path are cut to 1023 UTF-16 units in
/// the records made from this.
struct DeviceDescription {
  DeviceKind kind = DeviceKind::kVideo;
  std::string path;  ///< identity, the same for as long as the device is attached
  std::string name;
  uint16_t vendorID = 0;
  uint16_t productID = 0;
  uint16_t revisionID = 0;
};

struct FrameSize {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint32_t> intervals;  ///< ten-millionths of a second
};

struct VideoFormat {
  uint32_t codec = 0;  ///< four-character code
  std::vector<FrameSize> sizes;
};

struct VideoParameters {
  uint32_t codec = 0;
  int32_t width = 0;
  int32_t height = 0;
  uint32_t intervalNumerator = 0;  ///< seconds from picture to picture: numerator / denominator
  uint32_t intervalDenominator = 0;
  uint32_t bitRate = 0;  ///< bits per second; H.264 only
};

struct WaveFormat {
  uint16_t formatCode = 0;  ///< 0x636D linear PCM, 0x6320 AAC
  uint16_t channels = 0;
  uint32_t samplesPerSecond = 0;
  uint16_t bitsPerSample = 0;
  bool operator==(const WaveFormat&) const = default;
};

/// Receives one frame or packet: its bytes (valid during the call, which may rewrite them), their
/// count, and the time stamp in microseconds of the source's monotonic clock.
using FrameCallback = std::function<void(uint8_t* bytes, uint32_t length, int64_t timestamp)>;

/// Says why the call that this thread is in, of a device's or a source's, does not succeed, and answers `status`
/// for it: `return failed(kVCIBusy, {Cause::kBusy, "the microscope is in use", "Close its own program."});`. What
/// fails without a word is given the general error of its status. What is said last counts; nothing does where the
/// call succeeds after all.
VESK_EXPORT int32_t failed(int32_t status, Error why);

/// An open device of a source. Calls come from any thread, for each device at most one at a time of
/// those that set it up and start it, and at most one of those that ask it or set a property (formats,
/// properties, mute and volume): one of either kind may run beside one of the other. Stop may come while
/// a callback or a property call runs, also from inside the callback. Answers are the status values of vci.h;
/// `failed` says why beside them. Destroying the device, which happens when no call and no callback runs, stops it.
class VESK_EXPORT CaptureDevice {
 public:
  virtual ~CaptureDevice();

  /// Starts delivery on a thread of the source's. 19 when the device is in use elsewhere.
  virtual int32_t start(uint32_t substream, FrameCallback callback) = 0;
  /// Ends delivery. The device may be started anew from then on. A callback that is under way, or comes late,
  /// does no harm: the library sees to it that nobody is called after the end.
  virtual int32_t stop(uint32_t substream) = 0;

  // Cameras.
  virtual std::vector<VideoFormat> videoFormats();
  virtual int32_t setVideoParameters(const VideoParameters& parameters);
  virtual int32_t getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t property,
                              std::span<uint8_t> value, uint32_t& valueSize);
  virtual int32_t setProperty(const PropertySetIdentifier& set, uint32_t property, std::span<const uint8_t> value);
  virtual std::vector<PropertySetIdentifier> propertySets();
  virtual std::vector<uint32_t> propertyItems(const PropertySetIdentifier& set);
  /// Asks a running H.264 camera for an IDR frame soon, with its parameter sets, since somebody who joins can use
  /// nothing before one. Counts as a call that sets a property. What this is not possible for need not say so, and
  /// does nothing, as here.
  virtual void requestKeyFrame();

  // Microphones.
  virtual std::vector<WaveFormat> waveFormats();
  virtual int32_t setWaveFormat(const WaveFormat& format);
  virtual int32_t getMute(bool& mute);
  virtual int32_t setMute(bool mute);
  virtual int32_t getVolume(uint32_t& volume);  ///< 0 to 255
  virtual int32_t setVolume(uint8_t volume);
};

/// Where devices come from: one source stands below the capture interface at a time (see
/// capture_host.h); several are combined by CombinedSource.
class VESK_EXPORT CaptureSource {
 public:
  /// Tells that a device of the kind came (`arrived`) or went. Called on a thread of the source's.
  using HotplugHandler = std::function<void(DeviceKind kind, bool arrived)>;

  virtual ~CaptureSource();

  /// Begins watching for devices that come and go; an empty handler ends it. A call of the old handler that
  /// is under way may go on after that: the library's own does no harm then.
  virtual void setHotplugHandler(HotplugHandler handler) = 0;
  /// The devices attached now, in a stable order.
  virtual std::vector<DeviceDescription> devices(DeviceKind kind) = 0;
  /// Opens the device at `path`; null, with the reason given to `failed`, when there is none or it cannot be
  /// opened.
  virtual std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) = 0;
  /// Opens the microphone at `path` for its level only: it captures beside whoever else captures
  /// from it, and does not count as a use of it.
  virtual std::unique_ptr<CaptureDevice> openForMetering(const std::string& path);
  /// The path of the microphone that is built into the camera at `path`; empty when there is none.
  virtual std::string microphoneOf(const std::string& cameraPath);
  /// The path of the camera whose pictures come from the device node ("/dev/video0", or a link to it);
  /// empty when there is none.
  virtual std::string cameraAtNode(const std::string& node);
};

}  // namespace vesk::capture
