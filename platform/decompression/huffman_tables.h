#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace vesk {

/// A Huffman table of JPEG (ITU-T T.81, B.2.4.2).
struct HuffmanTable {
  bool isAC = false;
  uint8_t identifier = 0;              ///< 0 to 3
  std::array<uint8_t, 16> counts{};    ///< codes of 1 to 16 bits
  std::array<uint8_t, 256> symbols{};  ///< by ascending code; as many as the counts add up to
};

/// The tables in the body of a DHT segment, from its 16-bit length on. None at all for a body that is
/// damaged anywhere.
std::vector<HuffmanTable> readHuffmanTables(std::span<const uint8_t> segment);

}  // namespace vesk
