#include "platform/decompression/described_colour.h"

namespace vesk {

YCbCrColour describedColour(const ImageDescription& description) {
  constexpr unsigned kMatrixBT709 = 1;  // ISO/IEC 23091-2, 8.3
  std::array<uint8_t, kNCLCColorInfoSize> colour{};
  const OSStatus status = ICMImageDescriptionGetProperty(description, kQTPropertyClass_ImageDescription,
                                                         kICMImageDescriptionPropertyID_NCLCColorInfo, colour);
  const unsigned matrix = unsigned{colour[8]} << 8 | colour[9];
  if (status != noErr || matrix != kMatrixBT709) return {};
  return {YCbCrColour::Matrix::kBT709, false};
}

}  // namespace vesk
