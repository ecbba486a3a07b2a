#pragma once

#include <array>
#include <cstdint>

namespace vesk {

/// The typical Huffman tables of JPEG (ITU-T T.81, K.3), which cameras leave out of their frames: the
/// body of a DHT segment, from its 16-bit length on.
extern const std::array<uint8_t, 418> JPEGHuffmanTable;

}  // namespace vesk
