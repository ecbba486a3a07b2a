#pragma once

#include <cstdint>
#include <vector>

#include "capture/capture_source.h"

namespace vesk::capture {

/// What a camera delivers pictures of a size in, to be encoded.
struct EncoderInput {
  uint32_t codec = 0;
  FrameSize size;
};

/// For each size of even sides the input that pictures come fastest in; "2vuy" where it is as fast as
/// another, since it need not be decoded. From small to large.
std::vector<EncoderInput> encoderInputs(const std::vector<VideoFormat>& formats);

/// The input of the size that is asked for; null when there is none.
const EncoderInput* findInput(const std::vector<EncoderInput>& inputs, const VideoParameters& parameters);

/// Sets the camera to `input` for pictures as they are asked for, at the nearest interval that it has.
VideoParameters parametersOf(const EncoderInput& input, const VideoParameters& asked);

}  // namespace vesk::capture
