#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/cameras/camera_finder.h"
#include "capture/linux/nodes/v4l2_calls.h"

namespace vesk::capture {

/// What a node reports when it is opened.
struct NodeIdentity {
  bool canCapture = false;  ///< frames, by streaming; nodes for metadata, converters and parts of others cannot
  std::string card;
  std::string driver;
  std::string bus;
};

/// Asks the node; none when it cannot be opened, as for lack of rights.
std::optional<NodeIdentity> identify(V4L2Calls& calls, const std::string& node);

/// A node with what it reported.
struct KnownNode {
  VideoNode node;
  std::optional<NodeIdentity> identity;
};

/// A camera with all of its nodes that frames come from.
struct CameraRecord {
  DeviceDescription description;
  std::string attachment;                ///< another one each time that the camera is plugged in
  std::string usbPath;                   ///< the folder in sysfs of its USB device; empty for others
  std::vector<std::string> nodes;        ///< in the order of their indices
  std::vector<std::string> systemPaths;  ///< of the nodes, in sysfs
};

/// A name as drivers give it, for a person: they often write it twice, as far as the kernel's field
/// goes ("Desk Camera: Desk Camera").
std::string withoutRepetition(const std::string& name);

/// Makes one record for each camera out of the nodes of all: those of one USB device belong together,
/// any other node is a camera by itself. USB cameras come first, since the first is taken where none is
/// asked for and the others are often no camera that a person sees. Among each kind in the order of their
/// paths, which distinguish two cameras of the same make by where they are attached, and are the same after
/// a restart.
std::vector<CameraRecord> makeRecords(std::span<const KnownNode> nodes);

}  // namespace vesk::capture
