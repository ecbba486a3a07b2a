#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include <vesk/capture_source.h>
#include "capture/simulated/cadence.h"
#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {

/// Makes the pictures of a simulated camera in the form that was asked for.
class PictureMaker {
 public:
  virtual ~PictureMaker() = default;

  /// A maker of "avc1", "dmb1" or "2vuy" pictures. The sides of H.264 pictures are even.
  /// @return null when it is none of them, or its encoder is missing or refuses the size
  static std::unique_ptr<PictureMaker> create(const VideoParameters& parameters, const Cadence& cadence);

  /// The picture that carries `counter`, as the camera's controls make it, valid and writable until the next call;
  /// empty when the encoder fails.
  virtual std::span<uint8_t> make(uint32_t counter, bool isFlash, const PictureLook& look) = 0;
};

}  // namespace vesk::capture
