#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vesk::capture {

struct JpegSize {
  int width = 0;
  int height = 0;
  bool operator==(const JpegSize&) const = default;
};

/// The size that a JPEG frame header states (ITU-T T.81, B.2.2); none where there is no whole one.
std::optional<JpegSize> jpegSize(std::span<const uint8_t> frame);

}  // namespace vesk::capture
