#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <vesk/format_description.h>

namespace vesk {

enum class TrackKind : uint8_t { kVideo, kSound };

/// What a movie says of a track besides its samples.
struct TrackDescription {
  uint32_t track = 0;  ///< its number in the movie, from 1
  TrackKind kind = TrackKind::kVideo;
  uint32_t timescale = 0;                  ///< units a second
  std::vector<uint8_t> sampleDescription;  ///< the entry of `stsd`, whole
  uint32_t width = 0;                      ///< as shown, 16.16; 0 for sound
  uint32_t height = 0;
  uint32_t frameSize = 0;                 ///< bytes of one frame of PCM; 0 for everything else
  bool hasKeySamples = false;             ///< some samples need others before them
  std::span<const uint8_t> silentPacket;  ///< of AAC: one with the track's channels; its bytes live for ever
  uint32_t defaultDuration = 0;           ///< of a sample in a fragment that says nothing else; 0: each says it
  uint64_t start = 0;                     ///< where the track begins, movie's scale
  uint64_t trim = 0;                      ///< so much of its media at the start is not presented, track's scale
};

/// Units a second of all tracks of pictures.
constexpr uint32_t kVideoTimescale = 1'000'000;
constexpr uint32_t kFramesPerAACPacket = 1024;
constexpr uint32_t kWidestFrame = 4096;  ///< bytes of a frame of PCM

/// Describes a track of such samples; nothing when this writer cannot write them.
std::optional<TrackDescription> describeTrack(const CMFormatDescription& format);

/// Bytes of a frame when the entry of `stsd` is one of the PCM forms we write, else 0. Any bytes may
/// be given.
uint32_t pcmFrameSize(std::span<const uint8_t> sampleDescription);
/// A packet of silence for a track of such an entry of `stsd`; empty for all but AAC. Any bytes may be given.
std::span<const uint8_t> silentPacketFor(std::span<const uint8_t> sampleDescription);

}  // namespace vesk
