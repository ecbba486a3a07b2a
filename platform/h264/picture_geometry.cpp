#include "platform/h264/picture_geometry.h"

#include <array>

#include "platform/h264/bit_reader.h"
#include "platform/h264/nal_unit.h"

namespace vesk::h264 {
namespace {

bool hasChromaFormat(uint32_t profile) {
  for (const uint32_t high : {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135}) {
    if (profile == high) return true;
  }
  return false;
}

void skipScalingList(BitReader& reader, int size) {
  int32_t last = 8;
  int32_t next = 8;
  for (int i = 0; i < size && reader.good(); ++i) {
    if (next != 0) {
      const int64_t sum = int64_t{last} + reader.signedNumber() + 256;
      next = static_cast<int32_t>(((sum % 256) + 256) % 256);
    }
    if (next != 0) last = next;
  }
}

/// Sample aspect ratios by their code (table E-1).
constexpr std::array<std::array<uint8_t, 2>, 17> kAspects{{{1, 1},
                                                           {1, 1},
                                                           {12, 11},
                                                           {10, 11},
                                                           {16, 11},
                                                           {40, 33},
                                                           {24, 11},
                                                           {20, 11},
                                                           {32, 11},
                                                           {80, 33},
                                                           {18, 11},
                                                           {15, 11},
                                                           {64, 33},
                                                           {160, 99},
                                                           {4, 3},
                                                           {3, 2},
                                                           {2, 1}}};
constexpr uint32_t kExtendedAspect = 255;

/// The start of the usability information (E.1.1), as far as colour.
void readUsability(BitReader& reader, PictureGeometry& geometry) {
  if (reader.flag()) {
    const uint32_t code = reader.bits(8);
    if (code == kExtendedAspect) {
      const uint32_t width = reader.bits(16);
      const uint32_t height = reader.bits(16);
      if (width > 0 && height > 0) {
        geometry.aspectWidth = width;
        geometry.aspectHeight = height;
      }
    } else if (code < kAspects.size()) {
      geometry.aspectWidth = kAspects[code][0];
      geometry.aspectHeight = kAspects[code][1];
    }
  }
  if (reader.flag()) reader.flag();  // overscan
  if (!reader.flag()) return;
  reader.bits(4);  // video format, full range
  if (!reader.flag()) return;
  PictureGeometry::Colour colour{};
  colour.primaries = static_cast<uint8_t>(reader.bits(8));
  colour.transfer = static_cast<uint8_t>(reader.bits(8));
  colour.matrix = static_cast<uint8_t>(reader.bits(8));
  if (reader.good()) geometry.colour = colour;
}

}  // namespace

std::optional<PictureGeometry> readPictureGeometry(std::span<const uint8_t> parameterSet) {
  constexpr size_t kLongest = 4096;  // far above any real one: bounds the work on a hostile file
  if (parameterSet.size() < 5 || parameterSet.size() > kLongest || unitType(parameterSet[0]) != kSequenceParameterSet)
    return std::nullopt;
  BitReader reader(parameterSet, 1);
  const uint32_t profile = reader.bits(8);
  reader.bits(16);  // constraint flags, level
  reader.unsignedNumber();
  uint32_t chromaFormat = 1;
  bool separatePlanes = false;
  if (hasChromaFormat(profile)) {
    chromaFormat = reader.unsignedNumber();
    if (chromaFormat == 3) separatePlanes = reader.flag();
    reader.unsignedNumber();
    reader.unsignedNumber();
    reader.flag();
    if (reader.flag()) {
      for (int i = 0; i < (chromaFormat == 3 ? 12 : 8); ++i) {
        if (reader.flag()) skipScalingList(reader, i < 6 ? 16 : 64);
      }
    }
  }
  reader.unsignedNumber();
  const uint32_t orderType = reader.unsignedNumber();
  if (orderType == 0) {
    reader.unsignedNumber();
  } else if (orderType == 1) {
    reader.flag();
    reader.signedNumber();
    reader.signedNumber();
    const uint32_t cycle = reader.unsignedNumber();
    if (cycle > 255) return std::nullopt;
    for (uint32_t i = 0; i < cycle; ++i) reader.signedNumber();
  }
  reader.unsignedNumber();
  reader.flag();
  const uint64_t widthInBlocks = uint64_t{reader.unsignedNumber()} + 1;
  const uint64_t heightInUnits = uint64_t{reader.unsignedNumber()} + 1;
  PictureGeometry geometry;
  geometry.progressive = reader.flag();
  if (!geometry.progressive) reader.flag();
  reader.flag();
  uint64_t cropped[4] = {};
  if (reader.flag()) {
    for (uint64_t& edge : cropped) edge = reader.unsignedNumber();
  }
  if (reader.flag()) readUsability(reader, geometry);
  if (!reader.good() || chromaFormat > 3) return std::nullopt;

  const uint64_t fields = geometry.progressive ? 1 : 2;
  const bool subsampled = !separatePlanes && (chromaFormat == 1 || chromaFormat == 2);
  const uint64_t unitX = subsampled ? 2 : 1;
  const uint64_t unitY = (!separatePlanes && chromaFormat == 1 ? 2 : 1) * fields;
  const uint64_t width = widthInBlocks * 16;
  const uint64_t height = heightInUnits * 16 * fields;
  const uint64_t cropX = (cropped[0] + cropped[1]) * unitX;
  const uint64_t cropY = (cropped[2] + cropped[3]) * unitY;
  constexpr uint64_t kLargest = 32767;  // what a sample description can say as a display size
  if (width > kLargest || height > kLargest || cropX >= width || cropY >= height) return std::nullopt;
  geometry.width = static_cast<uint32_t>(width - cropX);
  geometry.height = static_cast<uint32_t>(height - cropY);
  return geometry;
}

}  // namespace vesk::h264
