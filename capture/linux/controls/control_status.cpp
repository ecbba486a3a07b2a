#include "capture/linux/controls/control_status.h"

#include <cerrno>
#include <string>

#include <vesk/capture_source.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/linux/nodes/node_error.h"

namespace vesk::capture {
namespace {

std::string nameOf(const OpenNode& node) {
  return deviceText(DeviceKind::kVideo, node.camera().empty() ? node.name() : node.camera());
}

}  // namespace

int32_t controlStatus(const OpenNode& node, int error) {
  switch (error) {
    case 0:
      return kVCISuccess;
    case -ENOENT:  // the unit does not have it
    case -ENOTTY:  // the driver knows nothing of the kind
      return kVCIPropertyNotSupported;
    case -EINVAL:
    case -ERANGE:
    case -ENOBUFS:  // another size than the unit's
      return failed(kVCIInvalidArgument, {Cause::kRefused, nameOf(node) + " refused the value", ""});
    case -EBUSY:
      return failed(kVCIBusy, nodeError(nameOf(node) + " refused the value", node.name(), EBUSY));
    case -EACCES:
      return refusedByMode(node);
    default:  // the camera stalled, does not answer, or is gone
      return failed(kVCIFailed,
                    nodeError("a control of " + nameOf(node) + " could not be read or set", node.name(), -error));
  }
}

int32_t refusedByMode(const OpenNode& node) {
  return refusedByMode(nameOf(node));
}

}  // namespace vesk::capture
