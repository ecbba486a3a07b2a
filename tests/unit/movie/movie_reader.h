#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/av_clip.h"

namespace vesk::test {

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
