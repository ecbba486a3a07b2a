#include "capture/files/jpeg_size.h"

#include "platform/foundation/byte_reader.h"

namespace vesk::capture {

namespace {

constexpr uint8_t kStartOfImage = 0xD8;
constexpr uint8_t kStartOfScan = 0xDA;

/// SOF0 to SOF15, among which stand three other markers.
bool isFrameHeader(uint8_t marker) {
  return (marker & 0xF0) == 0xC0 && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

}  // namespace

std::optional<JpegSize> jpegSize(std::span<const uint8_t> frame) {
  ByteReader reader(frame);
  while (const auto mark = reader.u8()) {
    if (*mark != 0xFF) return std::nullopt;
    auto marker = reader.u8();
    while (marker == 0xFF) marker = reader.u8();  // fill bytes
    if (!marker || *marker == kStartOfScan) return std::nullopt;
    if (*marker == kStartOfImage) continue;
    const auto length = reader.u16();
    const auto segment = length && *length >= 2 ? reader.take(*length - 2U) : std::nullopt;
    if (!segment) return std::nullopt;
    if (!isFrameHeader(*marker)) continue;
    ByteReader header(*segment);
    header.skip(1);  // bits a sample
    const auto height = header.u16();
    const auto width = header.u16();
    return height && width ? std::optional(JpegSize{*width, *height}) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace vesk::capture
