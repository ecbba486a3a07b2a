#pragma once

#include <vesk/export.h>

/// The version that a host is compiled against, by semantic versioning: before 1.0 another minor version may change
/// anything, from then on only another major one. The build takes its numbers from here.
#define VESK_VERSION_MAJOR 0
#define VESK_VERSION_MINOR 2
#define VESK_VERSION_PATCH 0
#define VESK_VERSION_STRING "0.2.0"

namespace vesk {

/// The version of the library that is loaded, for example "0.2.0". Any thread.
VESK_EXPORT const char* version() noexcept;

}  // namespace vesk
