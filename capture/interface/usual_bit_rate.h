#pragma once

#include <cstdint>

namespace vesk::capture {

/// The bit rate that suits H.264 pictures of a size, in bits per second.
constexpr uint32_t usualH264BitRate(int32_t width, int32_t height) {
  struct Row {
    int32_t width;
    int32_t height;
    uint32_t bitRate;
  };
  constexpr Row kRows[] = {
      {320, 240, 512000},
      {640, 360, 819200},
      {640, 480, 921600},
      {1280, 720, 2048000},
  };
  constexpr uint32_t kOther = 1024000;
  for (const Row& row : kRows) {
    if (row.width == width && row.height == height) return row.bitRate;
  }
  return kOther;
}

}  // namespace vesk::capture
