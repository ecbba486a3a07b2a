#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"

/// The decoder configuration record (ISO/IEC 14496-15, 5.3.3.1): the body of an "avcC" atom, and what containers
/// keep beside an H.264 track.
namespace vesk::h264 {

/// The record for one sequence and one picture parameter set, each from its header byte on; an empty one is left
/// out. Profile, constraint flags and level are 0 where the sequence parameter set is too short to hold
/// them. No bytes when a set is longer than the 65,535 bytes that the record can hold.
std::vector<uint8_t> makeDecoderConfiguration(std::span<const uint8_t> sequenceSet,
                                              std::span<const uint8_t> pictureSet);

/// Calls `take` with each set of a record, sequence sets first, as far as the record is whole.
/// @return the bytes of a length field, 1, 2 or 4; none when the record is damaged
template <class Take>
std::optional<int> readDecoderConfiguration(std::span<const uint8_t> record, Take&& take) {
  ByteReader reader(record);
  const auto version = reader.u8();
  if (!version || *version != 1 || !reader.skip(3)) return std::nullopt;
  const auto lengthByte = reader.u8();
  if (!lengthByte || (*lengthByte & 3) == 2) return std::nullopt;
  for (const uint8_t mask : {0x1F, 0xFF}) {  // sequence sets, then picture sets
    const auto count = reader.u8();
    if (!count) return std::nullopt;
    for (int remaining = *count & mask; remaining > 0; --remaining) {
      const auto length = reader.u16();
      const auto set = length ? reader.take(*length) : std::nullopt;
      if (!set) return std::nullopt;
      take(*set);
    }
  }
  return (*lengthByte & 3) + 1;
}

/// The first sequence parameter set of a record; none when there is none, or it is cut off.
std::optional<std::span<const uint8_t>> firstSequenceParameterSet(std::span<const uint8_t> record);

}  // namespace vesk::h264
