#pragma once

#include <cstdint>
#include <string>
#include <vector>

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
  std::vector<uint8_t> allBytes() const;
};

struct ReadMovie {
  bool opened = false;
  ReadTrack video;
  ReadTrack audio;
};

ReadMovie readMovie(const std::string& path);

}  // namespace vesk::test
