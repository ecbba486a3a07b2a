#include "capture/linux/nodes/node_error.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "capture/linux/nodes/node_holder.h"

namespace vesk::capture {

Error nodeError(const std::string& what, const std::string& node, int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return {Cause::kNoPermission, what + ": no permission to use " + node,
              "Add the user to the group \"video\" and log in again."};
    case EBUSY: {
      NodeHolders holders = holdersOf(node);
      std::string busy = what + ": " + holderText(holders) + " is using it";
      return {Cause::kBusy, std::move(busy), "Close that program.", "", std::move(holders.programs)};
    }
    case ENOSPC:
      return {Cause::kNoBandwidth, what + ": the USB bus has no room left",
              "Choose a smaller size or MJPEG, or another port."};
    case EPROTO:
    case EIO:
    case EPIPE:
    case ETIMEDOUT:
      return {Cause::kNotAnswering, what + ": it does not answer as it should", "Plug it in again."};
    case ENODEV:
    case ENXIO:
    case ENOENT:
      return {Cause::kUnplugged, what + ": it was unplugged", "Plug it in again."};
    case EINVAL:
      return {Cause::kRefused, what + ": its driver refuses the format", "Choose another format."};
    default:
      return {Cause::kOther, what + ": " + std::generic_category().message(error), "Plug it in again."};
  }
}

}  // namespace vesk::capture
