#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <vesk/four_char_code.h>
#include "platform/writing/atom_writer.h"

namespace vesk {

class File;
struct PlainMovieEnd;

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

/// Changes the type of the atom at `offset`, four bytes that do not lie across two pages of memory
/// when the offset is a multiple of four. When that fails, the type is still what it was.
int changeType(File& file, uint64_t offset, uint32_t before, uint32_t type);

/// Turns a fragmented movie of `size` bytes into a plain one, whose end was made for this place: it is
/// appended, its header becomes `moov`, and then the reserved header becomes one `mdat` over everything
/// in between. Each step is on the disk before the next, so the movie can be read at any moment. Last,
/// space set aside behind it is given back.
/// @return 0 or an errno value; when the end could not be appended the file is cut back to `size`.
int makeMoviePlain(File& file, const PlainMovieEnd& end, uint64_t size);
/// The last of these steps, for a movie whose `moov` of `size` bytes at `offset` is in force already.
int coverMediaData(File& file, uint64_t offset, uint64_t size);

}  // namespace vesk
