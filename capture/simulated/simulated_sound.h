#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/encoding/av_handles.h"

/// The sound of simulated microphones: a beep of 1 kHz on every whole second, silence between.

namespace vesk::capture {

constexpr int64_t kFramesPerPacket = 1024;

/// What a microphone's owner has set; read for every packet.
struct SoundLevel {
  std::atomic<bool> isMuted = false;
  std::atomic<uint8_t> volume = 255;  ///< applied to the samples, 255 as they are
};

/// Computes samples by their place in time, so that any packet can be made at any moment.
class SimulatedSound {
 public:
  SimulatedSound(uint32_t samplesPerSecond, uint16_t channels);

  /// Fills interleaved samples, `first` being the number of the first frame since time 0. The
  /// channels after the first are half as loud, so that they can be told apart.
  void fill(int64_t first, const SoundLevel& level, std::span<int16_t> samples) const;

 private:
  const uint32_t mSamplesPerSecond;
  const uint16_t mChannels;
  std::vector<int16_t> mBeep;
};

/// Makes the packets of a simulated microphone in the format that was asked for.
class PacketMaker {
 public:
  virtual ~PacketMaker() = default;

  /// @return null when the form is not offered or its encoder cannot be set up.
  static std::unique_ptr<PacketMaker> create(const WaveFormat& format);

  /// The packet that is stamped with the time of frame `number` × 1024, valid and writable until
  /// the next call; empty when the encoder fails. Numbers follow each other from the first call on.
  virtual std::span<uint8_t> make(int64_t number, const SoundLevel& level) = 0;
};

}  // namespace vesk::capture
