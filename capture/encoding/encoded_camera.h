#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/encoding/encoded_stream.h"
#include "capture/encoding/encoder_inputs.h"
#include "capture/sources/device_streams.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A camera without H.264 of its own, with "avc1" added to what it offers, encoded here from its raw
/// or Motion JPEG frames. The time stamps are the camera's.
///
/// Threads: as CaptureDevice. Properties and formats never wait for a start or stop, where the camera's own do not.
class EncodedCamera : public CaptureDevice {
 public:
  /// `camera` itself when it gives H.264, has nothing that can be encoded, or this machine has no encoder.
  static std::unique_ptr<CaptureDevice> wrap(std::unique_ptr<CaptureDevice> camera, const std::string& name);

  /// `inputs` are those of the camera's formats that can be encoded.
  EncodedCamera(std::unique_ptr<CaptureDevice> camera, std::string name, std::vector<VideoFormat> inputs);
  ~EncodedCamera() override;

  int32_t start(uint32_t substream, FrameCallback callback) override VESK_EXCLUDES(mMutex);
  int32_t stop(uint32_t substream) override;
  /// "avc1" comes last: what the camera gives by itself keeps its places.
  std::vector<VideoFormat> videoFormats() override;
  /// "avc1" is encoded at the interval nearest to what is asked for.
  int32_t setVideoParameters(const VideoParameters& parameters) override VESK_EXCLUDES(mMutex);

  int32_t getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t property, std::span<uint8_t> value,
                      uint32_t& valueSize) override;
  int32_t setProperty(const PropertySetIdentifier& set, uint32_t property, std::span<const uint8_t> value) override;
  std::vector<PropertySetIdentifier> propertySets() override;
  std::vector<uint32_t> propertyItems(const PropertySetIdentifier& set) override;
  void requestKeyFrame() override;

  /// Of the present or last encoded stream.
  EncodingCounts counts();

 private:
  struct Encoding {
    VideoParameters input;
    uint32_t bitRate = 0;  ///< bits per second; 0 for the usual
  };

  std::shared_ptr<EncodedStream> startEncoded(const Encoding& encoding, FrameCallback callback, int32_t& status);

  const std::string mName;
  const std::vector<VideoFormat> mInputs;
  Mutex mMutex;
  std::optional<Encoding> mEncoding VESK_GUARDED_BY(mMutex);  // none while the camera's own frames are asked for
  DeviceStreams<EncodedStream> mStreams;
  const std::unique_ptr<CaptureDevice> mCamera;
};

}  // namespace vesk::capture
