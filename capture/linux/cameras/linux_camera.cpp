#include "capture/linux/cameras/linux_camera.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"

namespace vesk::capture {
namespace {

/// Those of `some`, then what `others` has beyond them.
template <class Element>
std::vector<Element> joined(std::vector<Element> some, const std::vector<Element>& others) {
  for (const Element& each : others) {
    if (std::find(some.begin(), some.end(), each) == some.end()) some.push_back(each);
  }
  return some;
}

std::vector<CameraMode> modesOf(const std::vector<std::shared_ptr<OpenNode>>& nodes) {
  std::vector<CameraMode> modes;
  for (size_t node = 0; node < nodes.size(); ++node)
    addModes(nodes[node]->calls(), nodes[node]->descriptor(), node, modes);
  return modes;
}

}  // namespace

LinuxCamera::LinuxCamera(std::string name, std::vector<std::shared_ptr<OpenNode>> nodes,
                         std::vector<ExtensionUnit> units)
    : mName(std::move(name)),
      mNodes(std::move(nodes)),
      mUnits(mNodes, std::move(units)),
      mControls(mNodes),
      mModes(modesOf(mNodes)) {
  if (mModes.empty()) return;
  const CameraMode& first = mModes.front();
  mParameters = {first.format->codec, first.width, first.height, kUsualInterval, kTenMillionths, 0};
}

LinuxCamera::~LinuxCamera() {
  end();
}

std::vector<VideoFormat> LinuxCamera::videoFormats() {
  return formatsOf(mModes);
}

int32_t LinuxCamera::setVideoParameters(const VideoParameters& parameters) {
  if (!findMode(mModes, parameters)) return kVCIFailed;
  MutexLock lock(mMutex);
  mParameters = parameters;
  return kVCISuccess;
}

int32_t LinuxCamera::getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t property,
                                 std::span<uint8_t> value, uint32_t& valueSize) {
  const int32_t status = mUnits.get(request, set, property, value, valueSize);
  return status == kVCIPropertyNotSupported ? mControls.get(request, set, property, value, valueSize) : status;
}

int32_t LinuxCamera::setProperty(const PropertySetIdentifier& set, uint32_t property, std::span<const uint8_t> value) {
  const int32_t status = mUnits.set(set, property, value);
  return status == kVCIPropertyNotSupported ? mControls.set(set, property, value) : status;
}

std::vector<PropertySetIdentifier> LinuxCamera::propertySets() {
  return joined(mControls.sets(), mUnits.sets());
}

std::vector<uint32_t> LinuxCamera::propertyItems(const PropertySetIdentifier& set) {
  return joined(mUnits.items(set), mControls.items(set));
}

int32_t LinuxCamera::start(uint32_t, FrameCallback callback) {
  int32_t status = kVCIFailed;
  MutexLock lock(mMutex);  // the first callback may stop what it does not yet see here: it waits
  const CameraMode* const mode = findMode(mModes, mParameters);
  if (!mode || !callback)
    return failed(kVCIFailed, {Cause::kNoFormat, deviceText(DeviceKind::kVideo, mName) + " offers no format", ""});
  if (mIsRunning && !mStreams.back()->isFinished()) return kVCISuccess;
  try {
    auto stream = PictureStream::start(mNodes[mode->node], *mode, mParameters, mName, std::move(callback), status);
    if (!stream) return status;
    mStreams.push_back(std::move(stream));
    mIsRunning = true;
  } catch (const std::exception& exception) {
    const std::string camera = deviceText(DeviceKind::kVideo, mName);
    return failed(kVCIFailed, {Cause::kOther, camera + " could not be started: " + exception.what(), ""});
  }
  return status;
}

int32_t LinuxCamera::stop(uint32_t) {
  end();
  return kVCISuccess;
}

StreamCounts LinuxCamera::counts() {
  MutexLock lock(mMutex);
  return mStreams.empty() ? StreamCounts{} : mStreams.back()->counts();
}

/// Stops what runs and waits for what was stopped before, but for the stream whose callback this is
/// called from.
void LinuxCamera::end() {
  std::vector<std::shared_ptr<PictureStream>> streams;
  bool wasRunning = false;
  {
    MutexLock lock(mMutex);
    streams = mStreams;
    wasRunning = std::exchange(mIsRunning, false);
  }
  if (wasRunning) streams.back()->stop();
  for (const auto& stream : streams) {
    if (!stream->isInside()) stream->wait();
  }
  MutexLock lock(mMutex);
  const auto last = mStreams.empty() ? nullptr : mStreams.back();  // keeps the counts
  std::erase_if(mStreams,
                [&](const auto& stream) { return stream != last && !stream->isInside() && stream->isFinished(); });
}

}  // namespace vesk::capture
