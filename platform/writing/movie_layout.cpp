#include "platform/writing/movie_layout.h"

#include "platform/writing/file_system.h"

namespace vesk {

int makeMoviePlain(File& file, std::span<const uint8_t> header, uint64_t end) {
  if (const int error = file.writeAll(header, end)) {
    file.truncate(end);
    return error;
  }
  if (const int error = file.syncData()) return error;
  if (const int error = file.writeAll(typeBytes(fourCharCode("moov")), end + kTypeOffset)) return error;
  if (const int error = file.syncData()) return error;
  return coverMediaData(file, end, header.size());
}

int coverMediaData(File& file, uint64_t offset, uint64_t size) {
  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  writer.u32(1);
  writer.u32(fourCharCode("mdat"));
  writer.u64(offset - kReservedOffset);
  if (const int error = file.writeAll(bytes, kReservedOffset)) return error;
  if (const int error = file.syncData()) return error;
  file.truncate(offset + size);  // the movie is complete with or without that
  return 0;
}

}  // namespace vesk
