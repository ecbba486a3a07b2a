#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vesk::test {

/// What an independent reader (libavformat and libavcodec) finds in a movie.
struct ProbedTrack {
  std::string codec;
  int width = 0;
  int height = 0;
  int sampleRate = 0;
  int channels = 0;
  bool knowsLayout = false;   ///< which channel is where
  int64_t firstTime = 0;      ///< microseconds, of the first packet
  int64_t endTime = 0;        ///< of the last packet's end
  int64_t firstPosition = 0;  ///< of the first packet in the file
  int packets = 0;
  int keyPackets = 0;
  int64_t bytes = 0;             ///< of all packets
  int chunks = 0;                ///< runs of packets of this track in the file
  int decoded = 0;               ///< pictures, or frames of sound
  std::vector<int64_t> times;    ///< microseconds, of each packet
  std::vector<uint8_t> content;  ///< the packets' bytes one after the other
};
struct ProbedMovie {
  bool opened = false;
  std::vector<ProbedTrack> tracks;
  std::string date;
  std::string creationTime;
  std::string software;
  std::string complaints;  ///< the reader's warnings and errors

  const ProbedTrack* find(const std::string& codec) const {
    for (const auto& track : tracks) {
      if (track.codec == codec) return &track;
    }
    return nullptr;
  }
};

/// Expects the packets of `part` to be the first of those of `whole`; sound may end within one.
void expectBeginningOf(const ProbedMovie& part, const ProbedMovie& whole);

enum class Probe { kPackets, kDecode };
ProbedMovie probeMovie(std::span<const uint8_t> bytes, Probe depth = Probe::kPackets);
/// The same for what of a file comes from `time` on, in microseconds.
ProbedMovie probeMovieFile(const std::string& path, int64_t time);

}  // namespace vesk::test
