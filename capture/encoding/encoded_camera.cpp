#include "capture/encoding/encoded_camera.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"
#include "capture/interface/usual_bit_rate.h"

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
  end();
}

std::vector<VideoFormat> EncodedCamera::videoFormats() {
  std::vector<VideoFormat> formats = mCamera->videoFormats();
  VideoFormat& encoded = formats.emplace_back();
  encoded.codec = kCMVideoCodecType_H264;
  encoded.sizes = sizesOf(mInputs);
  return formats;
}

int32_t EncodedCamera::setVideoParameters(const VideoParameters& parameters) {
  std::optional<Plan> plan;
  if (parameters.codec == kCMVideoCodecType_H264) {
    const auto input = inputFor(mInputs, parameters);
    if (!input) return kVCIFailed;
    // What is usual for the rate asked for becomes what is usual for the rate that the camera has.
    const bool isUsual =
        parameters.bitRate == usualH264BitRate(parameters.width, parameters.height, askedInterval(parameters));
    plan = Plan{*input, isUsual ? 0 : parameters.bitRate};
  }
  MutexLock lock(mMutex);
  const int32_t status = mCamera->setVideoParameters(plan ? plan->input : parameters);
  if (status == kVCISuccess) mPlan = plan;
  return status;
}

int32_t EncodedCamera::start(uint32_t substream, FrameCallback callback) {
  std::optional<Plan> plan;
  {
    MutexLock lock(mMutex);
    plan = mPlan;
  }
  if (!plan) return mCamera->start(substream, std::move(callback));
  if (!callback) return kVCIFailed;
  try {
    return startEncoded(*plan, std::move(callback));
  } catch (const std::exception& exception) {
    const std::string camera = deviceText(DeviceKind::kVideo, mName);
    return failed(kVCIFailed, {Cause::kOther, camera + " could not be started: " + exception.what(), ""});
  }
}

int32_t EncodedCamera::startEncoded(const Plan& plan, FrameCallback callback) {
  MutexLock lock(mMutex);  // the first callback may stop what it does not yet see here: it waits
  if (mIsEncoding) return kVCISuccess;
  auto stream = EncodedStream::start(mName, plan.input, plan.bitRate, std::move(callback));
  if (!stream) return kVCIFailed;
  // The camera may keep what it calls long after the stream.
  const int32_t status =
      mCamera->start(0, [held = std::weak_ptr(stream)](uint8_t* bytes, uint32_t length, int64_t timestamp) {
        if (const auto target = held.lock()) target->take({bytes, length}, timestamp);
      });
  if (status != kVCISuccess) {
    stream->stop();
    return status;
  }
  mStreams.push_back(std::move(stream));
  mIsEncoding = true;
  return status;
}

int32_t EncodedCamera::stop(uint32_t /*substream*/) {
  return end();
}

/// Stops what runs and waits for what was stopped before, but for the stream whose callback this is
/// called from.
int32_t EncodedCamera::end() {
  std::vector<std::shared_ptr<EncodedStream>> streams;
  bool wasEncoding = false;
  {
    MutexLock lock(mMutex);
    streams = mStreams;
    wasEncoding = std::exchange(mIsEncoding, false);
  }
  const int32_t status = mCamera->stop(0);
  if (status != kVCISuccess) {
    MutexLock lock(mMutex);
    mIsEncoding = wasEncoding;
    return status;
  }
  if (wasEncoding) streams.back()->stop();
  for (const auto& stream : streams) {
    if (!stream->isInside()) stream->wait();
  }
  MutexLock lock(mMutex);
  const auto last = mStreams.empty() ? nullptr : mStreams.back();  // keeps the counts
  std::erase_if(mStreams,
                [&](const auto& stream) { return stream != last && !stream->isInside() && stream->isFinished(); });
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

std::vector<PropertySetIdentifier> EncodedCamera::propertySets() {
  return mCamera->propertySets();
}

std::vector<uint32_t> EncodedCamera::propertyItems(const PropertySetIdentifier& set) {
  return mCamera->propertyItems(set);
}

EncodingCounts EncodedCamera::counts() {
  MutexLock lock(mMutex);
  return mStreams.empty() ? EncodingCounts{} : mStreams.back()->counts();
}

}  // namespace vesk::capture
