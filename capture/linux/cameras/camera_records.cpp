#include "capture/linux/cameras/camera_records.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <tuple>

namespace vesk::capture {
namespace {

/// A field of the kernel's, which may be filled to its last byte.
template <size_t kSize>
std::string fieldText(const uint8_t (&field)[kSize]) {
  return {field, std::find(field, field + kSize, 0)};
}

bool isCamera(const KnownNode& known) {
  if (known.identity) return known.identity->canCapture;
  // What cannot be asked is taken for what it was when it came.
  if (!known.node.capabilities.empty()) return known.node.capabilities.find(":capture:") != std::string::npos;
  return known.node.index == 0;
}

std::string nameOf(const KnownNode& known) {
  const std::string card = known.identity ? known.identity->card : "";
  const std::string name = withoutRepetition(card.empty() ? known.node.product : card);
  return name.empty() ? "Camera" : name;
}

std::string pathOf(const KnownNode& known) {
  const VideoNode& node = known.node;
  std::string place = node.place;
  if (place.empty() && known.identity && !known.identity->bus.empty())
    place = known.identity->driver + "-" + known.identity->bus;
  if (place.empty()) return node.systemPath;
  return place + "-video-index" + std::to_string(node.index);
}

}  // namespace

std::optional<NodeIdentity> identify(V4L2Calls& calls, const std::string& node) {
  const int descriptor = calls.open(node);
  if (descriptor < 0) return std::nullopt;
  v4l2_capability capability{};
  const int status = calls.ioctl(descriptor, VIDIOC_QUERYCAP, &capability);
  // A processor that frames in memory are sent through has no input to choose.
  v4l2_input input{};
  const bool hasInput = status >= 0 && calls.ioctl(descriptor, VIDIOC_ENUMINPUT, &input) != -ENOTTY;
  calls.close(descriptor);
  if (status < 0) return NodeIdentity{};
  const uint32_t able = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps  // of this node
                                                                              : capability.capabilities;
  constexpr uint32_t kNeeded = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  // With V4L2_CAP_IO_MC only the media controller can set it up.
  constexpr uint32_t kUnwanted = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_M2M | V4L2_CAP_META_CAPTURE | V4L2_CAP_IO_MC;
  return NodeIdentity{hasInput && (able & kNeeded) == kNeeded && (able & kUnwanted) == 0, fieldText(capability.card),
                      fieldText(capability.driver), fieldText(capability.bus_info)};
}

std::string withoutRepetition(const std::string& name) {
  constexpr size_t kFullField = sizeof(v4l2_capability::card) - 1;
  const size_t colon = name.find(": ");
  if (colon == std::string::npos) return name;
  const std::string head = name.substr(0, colon);
  const std::string rest = name.substr(colon + 2);
  const bool isTwice = rest == head || (name.size() == kFullField && head.starts_with(rest));
  return isTwice ? head : name;
}

std::vector<CameraRecord> makeRecords(std::span<const KnownNode> nodes) {
  std::vector<const KnownNode*> sorted;
  for (const KnownNode& known : nodes) {
    if (isCamera(known)) sorted.push_back(&known);
  }
  std::sort(sorted.begin(), sorted.end(), [](const KnownNode* a, const KnownNode* b) {
    const auto key = [](const VideoNode& node) { return std::tie(node.place, node.index, node.systemPath); };
    return key(a->node) < key(b->node);
  });
  std::map<std::string, CameraRecord> byPath;
  std::map<std::string, std::string> pathOfDevice;  // by the USB device
  for (const KnownNode* known : sorted) {
    const VideoNode& node = known->node;
    const std::string& device = node.usbPath.empty() ? node.systemPath : node.usbPath;
    std::string& path = pathOfDevice[device];
    if (path.empty()) {
      path = pathOf(*known);
      if (byPath.contains(path)) path = node.systemPath;  // a driver that gives its devices one bus path
      byPath[path] = {{DeviceKind::kVideo, path, nameOf(*known), node.vendorID, node.productID, node.revisionID},
                      node.attachment,
                      node.usbPath,
                      {},
                      {}};
    }
    byPath[path].nodes.push_back(node.node);
    byPath[path].systemPaths.push_back(node.systemPath);
  }
  std::vector<CameraRecord> records;
  records.reserve(byPath.size());
  for (auto& [path, record] : byPath) records.push_back(std::move(record));
  std::stable_partition(records.begin(), records.end(),
                        [](const CameraRecord& record) { return !record.usbPath.empty(); });
  return records;
}

}  // namespace vesk::capture
