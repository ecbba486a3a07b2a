#include "capture/encoding/encoded_camera.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"
#include "capture/interface/usual_bit_rate.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {

std::unique_ptr<CaptureDevice> EncodedCamera::wrap(std::unique_ptr<CaptureDevice> camera, const std::string& name) {
  const std::vector<VideoFormat> formats = camera->videoFormats();
  const bool hasOwn = std::any_of(formats.begin(), formats.end(),
                                  [](const VideoFormat& format) { return format.codec == kCMVideoCodecType_H264; });
  std::vector<VideoFormat> inputs = encoderInputs(formats);
  if (hasOwn || inputs.empty() || !H264Encoder::isPresent()) return camera;
  return std::make_unique<EncodedCamera>(std::move(camera), name, std::move(inputs));
}

EncodedCamera::EncodedCamera(std::unique_ptr<CaptureDevice> camera, std::string name, std::vector<VideoFormat> inputs)
    : mName(std::move(name)), mInputs(std::move(inputs)), mCamera(std::move(camera)) {}

EncodedCamera::~EncodedCamera() {
  stop(0);
}

std::vector<VideoFormat> EncodedCamera::videoFormats() {
  std::vector<VideoFormat> formats = mCamera->videoFormats();
  VideoFormat& encoded = formats.emplace_back();
  encoded.codec = kCMVideoCodecType_H264;
  encoded.sizes = sizesOf(mInputs);
  return formats;
}

int32_t EncodedCamera::setVideoParameters(const VideoParameters& parameters) {
  std::optional<Encoding> encoding;
  if (parameters.codec == kCMVideoCodecType_H264) {
    const auto input = inputFor(mInputs, parameters);
    if (!input) return kVCIFailed;
    // What is usual for the rate asked for becomes what is usual for the rate that the camera has.
    const bool isUsual =
        parameters.bitRate == usualH264BitRate(parameters.width, parameters.height, askedInterval(parameters));
    encoding = Encoding{*input, isUsual ? 0 : parameters.bitRate};
  }
  MutexLock lock(mMutex);
  const int32_t status = mCamera->setVideoParameters(encoding ? encoding->input : parameters);
  if (status == kVCISuccess) mEncoding = encoding;
  return status;
}

int32_t EncodedCamera::start(uint32_t substream, FrameCallback callback) try {
  std::optional<Encoding> encoding;
  {
    MutexLock lock(mMutex);
    encoding = mEncoding;
  }
  if (!encoding) return mCamera->start(substream, std::move(callback));
  if (!callback) return kVCIFailed;
  return mStreams.start([&](int32_t& status) { return startEncoded(*encoding, std::move(callback), status); });
} catch (const std::exception& exception) {
  const std::string camera = deviceText(DeviceKind::kVideo, mName);
  return failed(kVCIFailed, errorOf(camera + " could not be started", exception));
}

std::shared_ptr<EncodedStream> EncodedCamera::startEncoded(const Encoding& encoding, FrameCallback callback,
                                                           int32_t& status) {
  auto stream = EncodedStream::start(mName, encoding.input, encoding.bitRate, std::move(callback));
  if (!stream) return nullptr;
  // The camera may keep what it calls long after the stream.
  status = mCamera->start(0, [held = std::weak_ptr(stream)](uint8_t* bytes, uint32_t length, int64_t timestamp) {
    if (const auto target = held.lock()) target->take({bytes, length}, timestamp);
  });
  if (status == kVCISuccess) return stream;
  stream->stop();
  return nullptr;
}

int32_t EncodedCamera::stop(uint32_t /*substream*/) {
  const int32_t status = mCamera->stop(0);
  if (status == kVCISuccess) mStreams.end();
  return status;
}

int32_t EncodedCamera::getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t property,
                                   std::span<uint8_t> value, uint32_t& valueSize) {
  return mCamera->getProperty(request, set, property, value, valueSize);
}

int32_t EncodedCamera::setProperty(const PropertySetIdentifier& set, uint32_t property,
                                   std::span<const uint8_t> value) {
  return mCamera->setProperty(set, property, value);
}

void EncodedCamera::requestKeyFrame() {
  if (const auto stream = mStreams.last()) stream->requestKeyFrame();
}

std::vector<PropertySetIdentifier> EncodedCamera::propertySets() {
  return mCamera->propertySets();
}

std::vector<uint32_t> EncodedCamera::propertyItems(const PropertySetIdentifier& set) {
  return mCamera->propertyItems(set);
}

EncodingCounts EncodedCamera::counts() {
  const auto stream = mStreams.last();
  return stream ? stream->counts() : EncodingCounts();
}

}  // namespace vesk::capture
