#include "platform/decompression/huffman_tables.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "platform/foundation/byte_reader.h"

namespace vesk {
namespace {

std::optional<HuffmanTable> readTable(ByteReader& reader) {
  const auto classAndIdentifier = reader.u8();
  const auto counts = reader.take(16);
  if (!classAndIdentifier || !counts) return std::nullopt;
  if ((*classAndIdentifier & ~0x13) != 0) return std::nullopt;
  const size_t codes = std::accumulate(counts->begin(), counts->end(), size_t{0});
  if (codes > 256) return std::nullopt;
  const auto symbols = reader.take(codes);
  if (!symbols) return std::nullopt;

  HuffmanTable table;
  table.isAC = (*classAndIdentifier & 0x10) != 0;
  table.identifier = *classAndIdentifier & 0x03;
  std::copy(counts->begin(), counts->end(), table.counts.begin());
  std::copy(symbols->begin(), symbols->end(), table.symbols.begin());
  return table;
}

}  // namespace

std::vector<HuffmanTable> readHuffmanTables(std::span<const uint8_t> segment) {
  ByteReader reader(segment);
  if (reader.u16() != segment.size()) return {};
  std::vector<HuffmanTable> tables;
  while (reader.remaining() > 0) {
    const auto table = readTable(reader);
    if (!table) return {};
    tables.push_back(*table);
  }
  return tables;
}

}  // namespace vesk
