#pragma once

#include <optional>
#include <vector>

#include <vesk/capture_source.h>

namespace vesk::capture {

/// The formats that can be encoded, in the sizes of even sides.
std::vector<VideoFormat> encoderInputs(const std::vector<VideoFormat>& formats);

/// The sizes of all inputs with all their intervals, from small to large.
std::vector<FrameSize> sizesOf(const std::vector<VideoFormat>& inputs);

/// Sets the camera to the input for frames as they are asked for: the one with the nearest interval; "2vuy"
/// where others are as near, since it need not be decoded. None when there is none of that size.
std::optional<VideoParameters> inputFor(const std::vector<VideoFormat>& inputs, const VideoParameters& asked);

}  // namespace vesk::capture
