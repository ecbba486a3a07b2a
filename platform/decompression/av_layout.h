#pragma once

#include "platform/pixels/raw_picture.h"

struct AVFrame;

namespace vesk {

/// Our name for a pixel format of libav's (AVPixelFormat); kNone for those that nothing here converts.
PixelLayout pixelLayoutOf(int avPixelFormat);

/// The picture of a frame, where it lies.
RawPicture rawPictureOf(const AVFrame& frame);
/// The memory of a frame, which must be writable.
PlaneMemory planeMemoryOf(const AVFrame& frame);

}  // namespace vesk
