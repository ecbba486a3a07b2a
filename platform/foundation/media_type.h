#pragma once

namespace vesk {

/// What a device captures and a movie's track holds.
enum class AVMediaType { AVMediaTypeVideo, AVMediaTypeAudio };

}  // namespace vesk
