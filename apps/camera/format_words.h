#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vesk/capture_choices.h>

namespace vesk::camera {

// The formats of a camera in words for people who film, and what they cost.

/// A format that a film can have.
struct OfferedFormat {
  uint32_t codec = 0;
  CMVideoDimensions size;
  std::vector<double> rates;  ///< pictures a second
};

/// The format that is taken for what a person has chosen.
struct TakenFormat {
  VideoFormatRequest request;          ///< nothing in it: automatic
  CMVideoFormatDescriptionRef format;  ///< null when the camera has none for films
  uint32_t interval = 0;               ///< from picture to picture, ten-millionths of a second
};

/// The sizes that are offered, from the largest; of the codec where one is given.
std::vector<CMVideoDimensions> sizesIn(const std::vector<OfferedFormat>& offered, std::optional<uint32_t> codec);
/// The rates that fit the request's codec and size, from the fastest.
std::vector<double> ratesIn(const std::vector<OfferedFormat>& offered, const VideoFormatRequest& request);

/// "1080p (1920 × 1080)", "640 × 480".
std::string sizeName(CMVideoDimensions size);
/// "1080p", "640 × 480".
std::string shortSizeName(CMVideoDimensions size);
/// "30 a second", "7.5 a second".
std::string rateName(double rate);
/// "720p, 30 a second. About 15 MB a minute. …", as one or more sentences.
std::string costText(const TakenFormat& taken, bool isEncodedHere);

}  // namespace vesk::camera
