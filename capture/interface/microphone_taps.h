#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/metering/audio_tap.h"

namespace vesk::capture {

/// The microphones of the source in use, for meters. A microphone's unique identifier is its path.
class MicrophoneTaps : public AudioTapProvider {
 public:
  std::vector<Microphone> microphones() override;
  std::unique_ptr<AudioTap> openTap(const std::string& uniqueID) override;
};

}  // namespace vesk::capture
