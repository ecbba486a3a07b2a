#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/cameras/pixel_formats.h"
#include "capture/linux/nodes/v4l2_calls.h"

namespace vesk::capture {

/// Something that a camera can be set to.
struct CameraMode {
  size_t node = 0;  ///< which of the camera's
  const PixelFormat* format = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  /// By ten-millionths of a second: as the driver writes them, which a rounded one would miss.
  std::map<uint32_t, v4l2_fract> intervals;
};

/// Asks an open node what it can be set to, and adds what is taken. Of sizes and intervals that the
/// node lets one choose freely, the usual ones are added.
void addModes(V4L2Calls& calls, int descriptor, size_t node, std::vector<CameraMode>& modes);

/// The modes as the layers above see them: by codec, compressed ones first, sizes from small to large.
std::vector<VideoFormat> formatsOf(const std::vector<CameraMode>& modes);

/// The best mode for `parameters`: of the codec and size that with the nearest interval, since cameras
/// rarely have every one; null when none fits.
const CameraMode* findMode(const std::vector<CameraMode>& modes, const VideoParameters& parameters);

/// The interval of the mode that is nearest to what is asked for, see frame_intervals.h.
std::pair<uint32_t, v4l2_fract> nearestOf(const CameraMode& mode, const VideoParameters& parameters);

}  // namespace vesk::capture
