#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/media/four_char_code.h"
#include "platform/writing/atom_writer.h"

namespace vesk {

// The places and steps that writing and recovery share.

/// Bytes of the file type atom, behind which lies the reserved header.
constexpr uint64_t kReservedOffset = 20;
/// Bytes of an atom header with a 64-bit size.
constexpr uint64_t kReservedSize = 16;

/// The bytes a movie begins with: its file type, and a `free` atom that will be the header of `mdat`.
inline std::vector<uint8_t> makeMovieBeginning() {
  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  {
    const auto type = writer.atom(fourCharCode("ftyp"));
    writer.u32(fourCharCode("qt  "));
    writer.u32(0x20050300);
    writer.u32(fourCharCode("qt  "));
  }
  const auto reserved = writer.atom(fourCharCode("free"));
  writer.zeros(8);
  return bytes;
}

/// The four bytes that change an atom's type, to be written four bytes behind its start.
constexpr uint64_t kTypeOffset = 4;
inline std::array<uint8_t, 4> typeBytes(uint32_t type) {
  std::array<uint8_t, 4> bytes;
  writeBigEndian32(bytes.data(), type);
  return bytes;
}

/// What the reserved header becomes when the plain `moov` lies at `movieOffset`: one `mdat` over
/// everything in between.
inline std::vector<uint8_t> makeMediaDataHeader(uint64_t movieOffset) {
  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  writer.u32(1);
  writer.u32(fourCharCode("mdat"));
  writer.u64(movieOffset - kReservedOffset);
  return bytes;
}

}  // namespace vesk
