#pragma once

#include <cstdint>

namespace vesk {

/// The longest gap in the sound that is filled with silence: half a day. A longer one (a clock jumped)
/// is left open and the sound goes on at its capture time: the writer keeps the track's time.
constexpr uint64_t kLongestSilence = 12ULL * 3600 * 1'000'000;  // microseconds

// So much silence lies in a sample itself; more is only counted there (BufferAttachments), so that a
// gap takes no memory. It is reckoned in frames then: packets of whole microseconds would put the sound
// 60 ms late after an hour.
constexpr uint64_t kMostSilentBytes = uint64_t{16} << 20;  ///< of PCM: a minute and a half of 48 kHz stereo
constexpr uint64_t kMostSilentPackets = 4096;              ///< of AAC: as much

/// Microseconds that `frames` last at `sampleRate` frames a second, which is not 0.
constexpr uint64_t soundDuration(uint64_t frames, uint32_t sampleRate) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(frames) * 1'000'000 / sampleRate);
}

/// Frames at `sampleRate` in `microseconds`.
constexpr uint64_t framesIn(uint64_t microseconds, uint32_t sampleRate) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(microseconds) * sampleRate / 1'000'000);
}

/// Says that a gap of `gap` microseconds was left open.
void reportOpenGap(uint64_t gap);

}  // namespace vesk
