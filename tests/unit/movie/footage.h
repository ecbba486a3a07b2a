#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vesk::test {

using Bytes = std::vector<uint8_t>;

inline Bytes contentOfData(const std::string& name) {
  std::ifstream file(std::string(VESK_TEST_DATA "/") + name, std::ios::binary);
  Bytes content{std::istreambuf_iterator<char>(file), {}};
  EXPECT_FALSE(content.empty()) << name;
  return content;
}

/// The NAL units of a byte stream with four-byte start codes, without those.
inline std::vector<Bytes> unitsOf(const Bytes& stream) {
  const Bytes code{0, 0, 0, 1};
  std::vector<Bytes> units;
  auto at = std::search(stream.begin(), stream.end(), code.begin(), code.end());
  while (at != stream.end()) {
    const auto next = std::search(at + 4, stream.end(), code.begin(), code.end());
    units.emplace_back(at + 4, next);
    at = next;
  }
  return units;
}

/// One picture of a clip, as a camera delivers it and as a movie holds it.
struct AccessUnit {
  Bytes stream;  ///< with start codes; parameter sets before a key picture
  Bytes slices;  ///< length-prefixed, slices only
  bool isKey = false;
};

/// The stream with four-byte start codes only.
inline Bytes withLongCodes(const Bytes& stream) {
  Bytes result;
  for (size_t at = 0; at < stream.size(); ++at) {
    const bool isCode = at + 3 <= stream.size() && stream[at] == 0 && stream[at + 1] == 0 && stream[at + 2] == 1;
    if (isCode && (at == 0 || stream[at - 1] != 0)) result.push_back(0);
    result.push_back(stream[at]);
  }
  return result;
}

/// The access units of a stream. A picture begins with the slice of its first macroblock.
inline std::vector<AccessUnit> accessUnitsIn(const Bytes& stream) {
  std::vector<AccessUnit> pictures;
  Bytes before;  // parameter sets that belong to the next picture
  for (const Bytes& unit : unitsOf(stream)) {
    const int type = unit[0] & 0x1F;
    Bytes coded{0, 0, 0, 1};
    coded.insert(coded.end(), unit.begin(), unit.end());
    if (type > 5) {
      before.insert(before.end(), coded.begin(), coded.end());
      continue;
    }
    if ((unit[1] & 0x80) != 0) {
      pictures.push_back({before, {}, type == 5});
      before.clear();
    }
    AccessUnit& picture = pictures.back();
    picture.stream.insert(picture.stream.end(), coded.begin(), coded.end());
    const auto size = static_cast<uint32_t>(unit.size());
    for (int shift = 24; shift >= 0; shift -= 8) picture.slices.push_back(static_cast<uint8_t>(size >> shift));
    picture.slices.insert(picture.slices.end(), unit.begin(), unit.end());
  }
  return pictures;
}

/// The access units of a clip in tests/data.
inline std::vector<AccessUnit> accessUnitsOf(const std::string& name) {
  return accessUnitsIn(contentOfData(name));
}

/// A packet of 48 kHz 16-bit stereo sound whose bytes differ from one packet to the next.
inline Bytes soundPacket(uint32_t number, uint32_t frames = 1024) {
  Bytes packet(frames * 4);
  uint32_t state = number * 2654435761U + 1;
  for (uint8_t& byte : packet) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return packet;
}

}  // namespace vesk::test
