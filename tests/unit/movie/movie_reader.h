#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/av_clip.h"

namespace vesk::test {

/// A packet of 48 kHz 16-bit stereo sound whose bytes differ from one packet to the next.
inline std::vector<uint8_t> soundPacket(uint32_t number, uint32_t frames = 1024) {
  std::vector<uint8_t> packet(frames * 4);
  uint32_t state = number * 2654435761U + 1;
  for (uint8_t& byte : packet) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return packet;
}

/// What one track of a movie file holds, read with libavformat.
struct ReadTrack {
  struct Sample {
    std::vector<uint8_t> data;
    int64_t time = 0;  ///< presentation time in microseconds
    bool isKey = false;
    bool operator==(const Sample&) const = default;
  };
  bool exists = false;
  std::vector<Sample> samples;
  std::vector<uint8_t> allBytes() const {
    std::vector<uint8_t> all;
    for (const Sample& sample : samples) all.insert(all.end(), sample.data.begin(), sample.data.end());
    return all;
  }
};

struct ReadMovie {
  bool opened = false;
  ReadTrack video;
  ReadTrack audio;
};

inline ReadMovie readMovie(const std::string& path) {
  ReadMovie movie;
  const AVInput clip = openClip(path);
  movie.opened = clip != nullptr;
  const auto trackOf = [&](unsigned stream) -> ReadTrack& {
    return clip->streams[stream]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? movie.video : movie.audio;
  };
  for (unsigned stream = 0; clip && stream < clip->nb_streams; ++stream) trackOf(stream).exists = true;
  if (clip)
    forEachPacket(clip.get(), [&](const AVPacket& packet) {
      const auto stream = static_cast<unsigned>(packet.stream_index);
      trackOf(stream).samples.push_back({{packet.data, packet.data + packet.size},
                                         av_rescale_q(packet.pts, clip->streams[stream]->time_base, {1, 1'000'000}),
                                         (packet.flags & AV_PKT_FLAG_KEY) != 0});
    });
  return movie;
}

}  // namespace vesk::test
