#pragma once

#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

/// The frames of a file that a benchmark's --dump wrote. Each is a 32-bit length in the machine's byte
/// order, then its bytes; what is cut off at the end is left out.
inline std::vector<std::vector<uint8_t>> readFrames(const char* path) {
  std::vector<std::vector<uint8_t>> frames;
  FILE* const file = std::fopen(path, "rb");
  uint32_t length = 0;
  while (file && std::fread(&length, sizeof length, 1, file) == 1) {
    std::vector<uint8_t> frame(length);
    if (std::fread(frame.data(), 1, length, file) != length) break;
    frames.push_back(std::move(frame));
  }
  if (file) std::fclose(file);
  return frames;
}
