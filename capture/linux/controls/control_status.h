#pragma once

#include <cerrno>
#include <cstdint>

#include <vesk/vci.h>

namespace vesk::capture {

/// What a driver's answer to a setting or a question means.
/// @param error 0 or a negated errno value
inline int32_t controlStatus(int error) {
  switch (error) {
    case 0:
      return kVCISuccess;
    case -ENOENT:  // the unit does not have it
    case -ENOTTY:  // the driver knows nothing of the kind
      return kVCIPropertyNotSupported;
    case -EINVAL:
    case -ERANGE:
    case -ENOBUFS:  // another size than the unit's
      return kVCIInvalidArgument;
    case -EBUSY:
      return kVCIBusy;
    default:  // an automatic mode rules it, the camera stalled, does not answer, or is gone
      return kVCIFailed;
  }
}

}  // namespace vesk::capture
