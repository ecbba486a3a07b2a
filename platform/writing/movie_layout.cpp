#include "platform/writing/movie_layout.h"

#include <array>

#include "platform/writing/file_system.h"
#include "platform/writing/movie_header.h"

namespace vesk {
namespace {

std::array<uint8_t, 4> typeBytes(uint32_t type) {
  std::array<uint8_t, 4> bytes;
  writeBigEndian32(bytes.data(), type);
  return bytes;
}

/// Writes over bytes in the file. When that fails, what stood there is put back as far as possible.
int replaceBytes(File& file, uint64_t offset, std::span<const uint8_t> bytes, std::span<const uint8_t> before) {
  const int error = file.writeAll(bytes, offset);
  if (error != 0) file.writeAll(before, offset);
  return error;
}

}  // namespace

int changeType(File& file, uint64_t offset, uint32_t before, uint32_t type) {
  return replaceBytes(file, offset + 4, typeBytes(type), typeBytes(before));
}

int makeMoviePlain(File& file, const PlainMovieEnd& end, uint64_t size) {
  if (const int error = file.writeAll(end.bytes, size)) {
    file.truncate(size);
    return error;
  }
  const uint64_t header = size + end.header;
  if (const int error = file.makeDurable()) return error;
  if (const int error = changeType(file, header, fourCharCode("free"), fourCharCode("moov"))) return error;
  if (const int error = file.makeDurable()) return error;
  const int error = coverMediaData(file, header, end.headerSize());
  if (error != 0) changeType(file, header, fourCharCode("moov"), fourCharCode("free"));
  return error;
}

int coverMediaData(File& file, uint64_t offset, uint64_t size) {
  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  writer.u32(1);
  writer.u32(fourCharCode("mdat"));
  writer.u64(offset - kReservedOffset);
  const auto beginning = makeMovieBeginning();
  if (const int error = replaceBytes(file, kReservedOffset, bytes, std::span(beginning).subspan(kReservedOffset))) {
    return error;
  }
  if (const int error = file.makeDurable()) return error;
  file.truncate(offset + size);  // the movie is complete with or without that
  return 0;
}

}  // namespace vesk
