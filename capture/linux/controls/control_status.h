#pragma once

#include <cstdint>

#include "capture/linux/nodes/open_node.h"

namespace vesk::capture {

/// What a driver's answer to a setting or a question means, with the error for whoever asked.
/// @param error 0 or a negated errno value
int32_t controlStatus(const OpenNode& node, int error);

/// A setting that cannot be made while an automatic mode of the camera's makes it.
int32_t refusedByMode(const OpenNode& node);

}  // namespace vesk::capture
