#pragma once

#include <memory>

#include <vesk/pixel_buffer.h>
#include "platform/decompression/status.h"

struct AVFrame;

namespace vesk {

struct AVFrameFree {
  void operator()(AVFrame* frame) const noexcept;
};
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameFree>;

/// The picture of a frame that libavcodec has decoded. Where its layout is one of ours the picture
/// stands where libavcodec wrote it and keeps the frame; some others are converted. Its colours are
/// what the frame says, and `described` where it says nothing.
/// @return codecUnimpErr for a layout that is neither; memFullErr.
OSStatus makePicture(AVFramePtr frame, YCbCrColour described, CVImageBufferRef* picture);

}  // namespace vesk
