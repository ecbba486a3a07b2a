#include "platform/writing/h264_picture_geometry.h"

#include <array>
#include <vector>

#include "platform/foundation/byte_reader.h"

namespace vesk {
namespace {

/// Reads bit fields and Exp-Golomb numbers (ITU-T H.264, 7.2 and 9.1). After the end everything is 0
/// and `good` is false.
class BitReader {
 public:
  explicit BitReader(std::span<const uint8_t> bytes) : mBytes(bytes) {}

  bool good() const { return mGood; }

  uint32_t bits(uint32_t count) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < count; ++i) value = value << 1 | bit();
    return value;
  }
  bool flag() { return bit() != 0; }
  uint32_t unsignedNumber() {
    uint32_t zeros = 0;
    while (mGood && bit() == 0) ++zeros;
    if (zeros > 31) {
      mGood = false;
      return 0;
    }
    return (uint32_t{1} << zeros) - 1 + bits(zeros);
  }
  int32_t signedNumber() {
    const uint32_t code = unsignedNumber();
    return code & 1 ? static_cast<int32_t>(code / 2 + 1) : -static_cast<int32_t>(code / 2);
  }

 private:
  uint32_t bit() {
    if (mAt >= mBytes.size() * 8) {
      mGood = false;
      return 0;
    }
    const uint32_t value = mBytes[mAt / 8] >> (7 - mAt % 8) & 1;
    ++mAt;
    return value;
  }

  std::span<const uint8_t> mBytes;
  size_t mAt = 0;
  bool mGood = true;
};

/// The bytes of a NAL unit without its emulation prevention bytes (7.3.1).
std::vector<uint8_t> withoutEmulationPrevention(std::span<const uint8_t> unit) {
  std::vector<uint8_t> bytes;
  bytes.reserve(unit.size());
  int zeros = 0;
  for (const uint8_t byte : unit) {
    if (zeros >= 2 && byte == 3) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    bytes.push_back(byte);
  }
  return bytes;
}

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
void readUsability(BitReader& reader, H264PictureGeometry& geometry) {
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
  H264PictureGeometry::Colour colour{};
  colour.primaries = static_cast<uint8_t>(reader.bits(8));
  colour.transfer = static_cast<uint8_t>(reader.bits(8));
  colour.matrix = static_cast<uint8_t>(reader.bits(8));
  if (reader.good()) geometry.colour = colour;
}

}  // namespace

std::optional<H264PictureGeometry> readH264PictureGeometry(std::span<const uint8_t> parameterSet) {
  constexpr size_t kLongest = 4096;  // far above any real one: bounds the work on a hostile file
  if (parameterSet.size() < 5 || parameterSet.size() > kLongest || (parameterSet[0] & 0x1F) != 7) return std::nullopt;
  const auto bytes = withoutEmulationPrevention(parameterSet.subspan(1));
  BitReader reader(bytes);
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
  H264PictureGeometry geometry;
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

std::optional<std::span<const uint8_t>> firstH264SequenceParameterSet(std::span<const uint8_t> configuration) {
  ByteReader reader(configuration);
  if (!reader.skip(5)) return std::nullopt;
  const auto count = reader.u8();
  if (!count || (*count & 0x1F) == 0) return std::nullopt;
  const auto length = reader.u16();
  if (!length) return std::nullopt;
  return reader.take(*length);
}

}  // namespace vesk
