#pragma once

#include <cstdint>
#include <vector>

#include "platform/pixels/picture_planes.h"

namespace vesk {

/// The picture as a baseline JPEG file at full size, `quality` from 1 to 100. Y'CbCr by BT.601 goes in
/// as it stands, with its range widened to the full one that JPEG has; BT.709 and RGB are converted.
/// Empty when memory is short or a side is above 65,500 pixels.
std::vector<uint8_t> encodeJPEG(const PicturePlanes& picture, int quality);

}  // namespace vesk
