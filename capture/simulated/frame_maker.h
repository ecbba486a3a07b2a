#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <vesk/capture_source.h>
#include <vesk/error.h>
#include "capture/simulated/cadence.h"
#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {

/// Makes the frames of a simulated camera in the format that was asked for.
class FrameMaker {
 public:
  virtual ~FrameMaker() = default;

  /// A maker of "avc1", "dmb1" or "2vuy" frames. The sides of H.264 frames are even.
  /// @return null with the reason in `error` when it is none of them, or its encoder is missing or refuses it;
  ///         `camera` is named there
  static std::unique_ptr<FrameMaker> create(const VideoParameters& parameters, const Cadence& cadence,
                                            const std::string& camera, Error& error);

  /// The frame that carries `counter`, with the camera's controls applied, valid and writable until the next call;
  /// empty when the encoder fails.
  virtual std::span<uint8_t> make(uint32_t counter, bool isFlash, const ImageSettings& settings) = 0;
  /// The next frame depends on none before it, as all do but those of H.264.
  virtual void makeKeyFrame() {}
};

}  // namespace vesk::capture
