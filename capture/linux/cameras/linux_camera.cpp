#include "capture/linux/cameras/linux_camera.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

// The extension unit of cameras with an encoder (USB Video Payload H.264 1.0, Picture Type Control).
constexpr auto kH264UnitSet = propertySetIdentifier("A29E7641-DE04-47E3-8B2B-F4341AFF003B");
constexpr uint32_t kPictureType = 9;
constexpr std::array<uint8_t, 4> kIDRFrame{0, 0, 1, 0};  ///< of layer 0

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
  mStreams.end();
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

void LinuxCamera::requestKeyFrame() {
  for (const auto& node : mNodes) {
    v4l2_ext_control control{};
    control.id = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
    v4l2_ext_controls list{};
    list.which = V4L2_CTRL_WHICH_CUR_VAL;
    list.count = 1;
    list.controls = &control;
    if (node->ask(VIDIOC_S_EXT_CTRLS, &list) == 0) return;
  }
  mUnits.set(kH264UnitSet, kPictureType, kIDRFrame);
}

int32_t LinuxCamera::start(uint32_t, FrameCallback callback) try {
  VideoParameters parameters;
  {
    MutexLock lock(mMutex);
    parameters = mParameters;
  }
  const CameraMode* const mode = findMode(mModes, parameters);
  if (!mode || !callback)
    return failed(kVCIFailed, {Cause::kNoFormat, deviceText(DeviceKind::kVideo, mName) + " offers no format", ""});
  return mStreams.start([&](int32_t& status) {
    return FrameStream::start(mNodes[mode->node], *mode, parameters, mName, std::move(callback), status);
  });
} catch (const std::exception& exception) {
  const std::string camera = deviceText(DeviceKind::kVideo, mName);
  return failed(kVCIFailed, errorOf(camera + " could not be started", exception));
}

int32_t LinuxCamera::stop(uint32_t) {
  mStreams.end();
  return kVCISuccess;
}

StreamCounts LinuxCamera::counts() {
  const auto stream = mStreams.last();
  return stream ? stream->counts() : StreamCounts();
}

}  // namespace vesk::capture
