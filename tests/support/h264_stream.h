#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/temporary_folder.h"

namespace vesk::test {

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

inline std::vector<int> unitTypesOf(const Bytes& stream) {
  std::vector<int> types;
  for (const Bytes& unit : unitsOf(stream)) types.push_back(unit.empty() ? -1 : unit[0] & 0x1F);
  return types;
}

/// Whether there is a slice of a key picture in it.
inline bool holdsKeyPicture(const Bytes& stream) {
  const auto types = unitTypesOf(stream);
  return std::find(types.begin(), types.end(), 5) != types.end();
}

inline bool holdsThreeByteCode(const Bytes& unit) {
  const Bytes code{0, 0, 1};
  return std::search(unit.begin(), unit.end(), code.begin(), code.end()) != unit.end();
}

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

/// One picture of a clip, as a camera delivers it and as a movie holds it.
struct AccessUnit {
  Bytes stream;  ///< with start codes; parameter sets before a key picture
  Bytes slices;  ///< length-prefixed, slices only
  bool isKey = false;
};

inline std::vector<Bytes> streamsOf(const std::vector<AccessUnit>& pictures) {
  std::vector<Bytes> streams;
  streams.reserve(pictures.size());
  for (const AccessUnit& picture : pictures) streams.push_back(picture.stream);
  return streams;
}

/// The access units of a clip in footage/. A picture begins with the slice of its first macroblock.
inline std::vector<AccessUnit> accessUnitsOf(const std::string& name) {
  const std::string content = contentOf(VESK_TEST_DATA "/" + name);
  EXPECT_FALSE(content.empty()) << name;
  std::vector<AccessUnit> pictures;
  Bytes before;  // parameter sets that belong to the next picture
  for (const Bytes& unit : unitsOf(withLongCodes({content.begin(), content.end()}))) {
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

}  // namespace vesk::test
