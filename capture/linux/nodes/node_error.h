#pragma once

#include <string>

#include <vesk/error.h>

namespace vesk::capture {

/// Why a camera does not do what it was asked for.
/// @param what the beginning of the line: `the camera "NAME" could not be started`
/// @param node of the camera, to name who else has it
/// @param error an errno value
Error nodeError(const std::string& what, const std::string& node, int error);

}  // namespace vesk::capture
