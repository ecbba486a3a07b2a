#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/capture_source.h"
#include "capture/linux/pixel_formats.h"
#include "capture/linux/v4l2_calls.h"

namespace vesk::capture {

/// Something that a camera can be set to.
struct CameraMode {
  size_t node = 0;  ///< which of the camera's
  const PixelFormat* format = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint32_t> intervals;  ///< ten-millionths of a second, rising
};

/// Asks an open node what it can be set to, and adds what is taken. Of sizes and intervals that the
/// node lets one choose freely, the usual ones are added.
void addModes(V4L2Calls& calls, int descriptor, size_t node, std::vector<CameraMode>& modes);

/// The modes as the layers above see them: by codec, compressed ones first, sizes from small to large.
std::vector<VideoFormat> formatsOf(const std::vector<CameraMode>& modes);

/// The best mode for `parameters`: of the codec and size that with the nearest interval, since cameras
/// rarely have every one; null when none fits.
const CameraMode* findMode(const std::vector<CameraMode>& modes, const VideoParameters& parameters);

}  // namespace vesk::capture
