#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include <vesk/four_char_code.h>
#include "capture/linux/cameras/camera_modes.h"
#include "capture/linux/cameras/camera_records.h"
#include "capture/linux/nodes/node_holder.h"
#include "capture/linux/nodes/open_node.h"
#include "doctor/checks.h"

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCamera = "camera";
constexpr const char* kUsb = "usb";
constexpr int kHighSpeed = 480;  // megabits per second: USB 2

int numberIn(const std::string& text, int base = 10) {
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

std::string inQuotes(const std::string& name) {
  return "\"" + name + "\"";
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text.append(text.empty() ? "" : between).append(word);
  return text;
}

/// The folder of the USB device that a node's driver sits on; empty for other cameras.
std::string usbFolderOf(const fs::path& node) {
  std::error_code error;
  fs::path folder = fs::canonical(node / "device", error);
  // From the interface upwards; hubs above the device have identifiers of their own.
  for (int steps = 0; !error && steps < 3 && folder.has_relative_path(); ++steps, folder = folder.parent_path())
    if (fs::exists(folder / "idVendor", error)) return folder.string();
  return "";
}

/// The nodes that the kernel has, in the order of their numbers.
std::vector<VideoNode> nodesIn(const DiagnosisPlaces& places) {
  std::vector<VideoNode> nodes;
  std::error_code error;
  fs::directory_iterator entry(places.sys + "/class/video4linux", error);
  for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
    const std::string file = entry->path().filename().string();
    if (!file.starts_with("video")) continue;  // radios and the like
    VideoNode node;
    node.node = places.dev + "/" + file;
    node.systemPath = entry->path().string();
    node.usbPath = usbFolderOf(entry->path());
    node.product = withoutRepetition(sysfsText(node.systemPath + "/name"));
    node.index = numberIn(sysfsText(node.systemPath + "/index"));
    if (!node.usbPath.empty()) {
      node.vendorID = static_cast<uint16_t>(numberIn(sysfsText(node.usbPath + "/idVendor"), 16));
      node.productID = static_cast<uint16_t>(numberIn(sysfsText(node.usbPath + "/idProduct"), 16));
    }
    nodes.push_back(std::move(node));
  }
  std::sort(nodes.begin(), nodes.end(), [](const VideoNode& one, const VideoNode& other) {
    return std::pair(one.node.size(), one.node) < std::pair(other.node.size(), other.node);
  });
  return nodes;
}

struct Purpose {
  uint32_t capability;
  FindingKind kind;
  const char* text;
};

/// What a node is that no pictures come from.
Purpose purposeOf(const OpenNode& node) {
  constexpr Purpose kPurposes[] = {
      {V4L2_CAP_META_CAPTURE, FindingKind::kMetadata, "carries data about a camera's pictures, not the pictures"},
      {V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE, FindingKind::kConverter, "is a converter, no camera"},
      {V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE, FindingKind::kOutput, "is an output, no camera"},
  };
  v4l2_capability found{};
  node.ioctl(VIDIOC_QUERYCAP, &found);
  const uint32_t able = (found.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? found.device_caps : found.capabilities;
  for (const Purpose& purpose : kPurposes)
    if ((able & purpose.capability) != 0) return purpose;
  return {0, FindingKind::kNoPictures, "gives no pictures in a way that is understood here"};
}

/// Looks through the nodes, one after the other, and then at the cameras that they make up.
class CameraCheck {
 public:
  CameraCheck(const DiagnosisPlaces& places, V4L2Calls& calls, bool hasEncoder, Findings& findings)
      : mPlaces(places), mCalls(std::shared_ptr<V4L2Calls>(), &calls), mHasEncoder(hasEncoder), mFindings(findings) {}

  std::vector<DiagnosedCamera> run() {
    checkDrivers();
    std::vector<KnownNode> known;
    for (VideoNode& node : nodesIn(mPlaces)) {
      auto identity = checkNode(node);
      mUsbFolders[node.node] = node.usbPath;
      known.push_back({std::move(node), std::move(identity)});
    }
    std::vector<DiagnosedCamera> cameras;
    for (const CameraRecord& record : makeRecords(known)) {
      checkCamera(record);
      cameras.push_back({record.description.name, mUsbFolders[record.nodes.front()]});
    }
    if (cameras.empty())
      mFindings.problem(kCamera, Cause::kNoDevice, {FindingKind::kNoCamera}, "no camera was found.", "Plug one in.");
    checkBuses(cameras);
    return cameras;
  }

 private:
  /// USB video interfaces that no driver has taken.
  void checkDrivers() {
    std::set<std::string> devices;
    std::error_code error;
    fs::directory_iterator entry(mPlaces.sys + "/bus/usb/devices", error);
    for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
      std::error_code ignored;
      if (sysfsText((entry->path() / "bInterfaceClass").string()) != "0e") continue;
      if (fs::exists(entry->path() / "driver", ignored)) continue;
      const std::string device = fs::canonical(entry->path(), ignored).parent_path().string();
      if (!devices.insert(device).second) continue;
      std::string name = sysfsText(device + "/product");
      if (name.empty()) name = device;
      mFindings.problem(kCamera, Cause::kNoDevice, {FindingKind::kNoDriver, {.device = name}},
                        "the USB camera " + inQuotes(name) + " is attached, but has no driver.",
                        "Load it with \"sudo modprobe uvcvideo\", and see \"dmesg\" for why it was not.");
    }
  }

  /// What the node says of itself; none when it cannot be asked.
  std::optional<NodeIdentity> checkNode(const VideoNode& node) {
    std::error_code ignored;
    if (!fs::exists(node.node, ignored)) {
      mFindings.problem(kCamera, Cause::kNoDevice,
                        {FindingKind::kNodeMissing, {.device = node.product, .files = {node.node}}},
                        "the kernel has " + inQuotes(node.product) + ", but " + node.node + " is not there.",
                        "In a container, pass it in (as with --device " + node.node + "); else see that udev runs.");
      return std::nullopt;
    }
    int error = 0;
    const auto open = OpenNode::open(mCalls, node.node, error);
    if (!open) {
      addRefusal(kCamera, node.node, error, mFindings);
      return std::nullopt;
    }
    auto identity = identify(*mCalls, node.node);
    if (identity && !identity->canCapture) {
      const Purpose purpose = purposeOf(*open);
      mFindings.note(kCamera, {purpose.kind, {.device = node.product, .files = {node.node}}},
                     node.node + " (" + node.product + ") " + purpose.text + ".");
    }
    return identity;
  }

  void checkCamera(const CameraRecord& record) {
    std::vector<CameraMode> modes;
    Finding::Details details{.device = record.description.name};
    bool hasAnswered = true;
    for (const std::string& name : record.nodes) {
      int error = 0;
      const auto node = OpenNode::open(mCalls, name, error);
      if (!node) continue;  // said before
      details.files.push_back(name);
      addModes(*mCalls, node->descriptor(), 0, modes);
      const bool isFree = checkUse(record.description.name, name, *node);
      hasAnswered = hasAnswered && (!isFree || doesAnswer(*node, modes));
    }
    if (details.files.empty()) return;
    const std::string who = inQuotes(details.device) + " at " + joined(details.files, ", ");
    auto formats = largestOf(formatsOf(modes));
    if (formats.empty())
      return mFindings.problem(kCamera, Cause::kNoFormat, {FindingKind::kNoFormat, details},
                               who + " offers no format that is understood here.",
                               "See \"v4l2-ctl --list-formats\" for what it offers.");
    if (!hasAnswered)
      return mFindings.problem(kCamera, Cause::kNotAnswering, {FindingKind::kNotAnswering, details},
                               who + " does not answer when asked for a picture format.",
                               "Plug it in again; if that does not help, try another port or cable.");
    details.formats = std::move(formats);
    details.canBeEncoded = mHasEncoder;
    mFindings.ok(kCamera, {FindingKind::kCamera, details}, who + ": " + describe(details.formats) + ".");
  }

  /// The kernel knows formats by heart, but asks the camera whether it would take one. Nothing is changed.
  static bool doesAnswer(const OpenNode& node, const std::vector<CameraMode>& modes) {
    if (modes.empty()) return true;
    v4l2_format form{};
    form.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    form.fmt.pix.width = static_cast<uint32_t>(modes.front().width);
    form.fmt.pix.height = static_cast<uint32_t>(modes.front().height);
    form.fmt.pix.pixelformat = modes.front().format->fourcc;
    const int answer = node.ioctl(VIDIOC_TRY_FMT, &form);
    return answer != -ETIMEDOUT && answer != -EIO && answer != -EPROTO;
  }

  /// Each codec with its largest size.
  static std::vector<Finding::Format> largestOf(const std::vector<VideoFormat>& formats) {
    std::vector<Finding::Format> found;
    for (const VideoFormat& format : formats) {
      const auto largest =
          std::max_element(format.sizes.begin(), format.sizes.end(), [](const FrameSize& one, const FrameSize& other) {
            return int64_t{one.width} * one.height < int64_t{other.width} * other.height;
          });
      if (largest != format.sizes.end()) found.push_back({format.codec, largest->width, largest->height});
    }
    return found;
  }

  /// "H.264 up to 1920x1080, Motion JPEG up to …", and where H.264 comes from.
  std::string describe(const std::vector<Finding::Format>& formats) const {
    std::string text;
    bool hasOwn = false;
    for (const Finding::Format& format : formats) {
      const bool isH264 = format.codec == kCMVideoCodecType_H264;
      hasOwn = hasOwn || isH264;
      if (!text.empty()) text += ", ";
      text += isH264                                         ? "H.264 of its own"
              : format.codec == kCMVideoCodecType_MotionJPEG ? "Motion JPEG"
                                                             : "raw pictures";
      text += " up to " + std::to_string(format.width) + "x" + std::to_string(format.height);
    }
    if (hasOwn) return text;
    return text + (mHasEncoder ? "; H.264 is encoded here" : "; no H.264");
  }

  /// Asking for no buffers changes nothing, and is refused while others have some. @return whether none has
  bool checkUse(const std::string& camera, const std::string& name, const OpenNode& node) {
    v4l2_requestbuffers none{};
    none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    none.memory = V4L2_MEMORY_MMAP;
    const bool isBusy = node.ioctl(VIDIOC_REQBUFS, &none) == -EBUSY;
    const NodeHolders holders = holdersOf(name, mPlaces.proc);
    const Finding::Details details{
        .device = camera, .files = {name}, .users = holders.programs, .areUsersHidden = !holders.areAllSeen};
    if (isBusy)
      mFindings.problem(
          kCamera, Cause::kBusy, {FindingKind::kInUse, details},
          inQuotes(camera) + " is busy: " + holderText(holders) + " is using " + name + ".",
          holders.programs.empty() ? "Close that program; looking as root can name it." : "Close that program.");
    else if (!holders.programs.empty())
      mFindings.note(kCamera, {FindingKind::kOpenElsewhere, details},
                     holderText(holders) + " has " + name + " open, and is not using it now.");
    return !isBusy;
  }

  void checkBuses(const std::vector<DiagnosedCamera>& cameras) {
    std::map<std::string, std::vector<std::string>> sharers;  // by bus
    for (const DiagnosedCamera& camera : cameras) {
      const int speed = numberIn(sysfsText(camera.usbFolder + "/speed"));
      if (camera.usbFolder.empty() || speed == 0) continue;
      const std::string text = inQuotes(camera.name) + " is attached at " + std::to_string(speed) + " Mbit/s";
      const Finding::Details details{.device = camera.name, .number = speed};
      if (speed < kHighSpeed)
        mFindings.note(kUsb, {FindingKind::kUsbSlow, details}, text + ": too slow for more than small pictures.",
                       "Use another port or cable, and no old hub.");
      else
        mFindings.ok(kUsb, {FindingKind::kUsbSpeed, details}, text + ".");
      // Above that speed two cameras seldom fill a bus.
      if (speed <= kHighSpeed) sharers[sysfsText(camera.usbFolder + "/busnum")].push_back(camera.name);
    }
    for (const auto& [bus, names] : sharers) {
      if (names.size() < 2) continue;
      std::vector<std::string> quotes;
      for (const std::string& name : names) quotes.push_back(inQuotes(name));
      mFindings.note(
          kUsb,
          {FindingKind::kUsbShared,
           {.device = names.front(), .others = {names.begin() + 1, names.end()}, .number = numberIn(bus)}},
          joined(quotes, " and ") + " share USB bus " + bus + ": there may be no room for the raw pictures of all.",
          "Use Motion JPEG, H.264 or smaller sizes, or ports of different controllers.");
    }
  }

  const DiagnosisPlaces& mPlaces;
  const std::shared_ptr<V4L2Calls> mCalls;  // not owned
  const bool mHasEncoder;
  Findings& mFindings;
  std::unordered_map<std::string, std::string> mUsbFolders;  // by node
};

}  // namespace

std::vector<DiagnosedCamera> checkCameras(const DiagnosisPlaces& places, V4L2Calls& calls, bool hasEncoder,
                                          Findings& findings) {
  return CameraCheck(places, calls, hasEncoder, findings).run();
}

}  // namespace vesk::capture
