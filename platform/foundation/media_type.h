#pragma once

#include <cstdint>

namespace vesk {

/// What a device captures and a movie's track holds.
enum MediaType : uint8_t { AVMediaTypeVideo, AVMediaTypeAudio };

}  // namespace vesk
