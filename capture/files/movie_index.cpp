#include "capture/files/movie_index.h"

#include <cstdint>
#include <initializer_list>
#include <optional>

#include <vesk/four_char_code.h>
#include "platform/foundation/byte_reader.h"

namespace vesk::capture {

namespace {

/// An atom of the file: where its body lies.
struct Place {
  uint32_t type = 0;
  int64_t begin = 0;
  int64_t end = 0;
};

/// Walks the atoms between two places of a file: so many that no movie has more in one.
class AtomWalk {
 public:
  AtomWalk(FileBlocks& file, int64_t begin, int64_t end) : mFile(file), mNext(begin), mEnd(end) {}
  AtomWalk(FileBlocks& file, const Place& parent) : AtomWalk(file, parent.begin, parent.end) {}

  std::optional<Place> next() {
    constexpr int kMost = 10'000;
    uint8_t header[16];
    if (++mCount > kMost || mEnd - mNext < 8 || mFile.read(mNext, header, 8) != 8) return std::nullopt;
    int64_t headerBytes = 8;
    uint64_t size = readBigEndian32(header);
    if (size == 1) {  // 64 bits of size follow
      headerBytes = 16;
      if (mEnd - mNext < 16 || mFile.read(mNext, header, 16) != 16) return std::nullopt;
      size = uint64_t{readBigEndian32(header + 8)} << 32 | readBigEndian32(header + 12);
    }
    if (size == 0) size = static_cast<uint64_t>(mEnd - mNext);
    if (size < static_cast<uint64_t>(headerBytes) || size > static_cast<uint64_t>(mEnd - mNext)) return std::nullopt;
    const Place place{readBigEndian32(header + 4), mNext + headerBytes, mNext + static_cast<int64_t>(size)};
    mNext = place.end;
    return place;
  }

 private:
  FileBlocks& mFile;
  int64_t mNext;
  const int64_t mEnd;
  int mCount = 0;
};

std::optional<Place> find(FileBlocks& file, Place place, std::initializer_list<uint32_t> path) {
  for (const uint32_t type : path) {
    AtomWalk walk(file, place);
    auto found = walk.next();
    while (found && found->type != type) found = walk.next();
    if (!found) return std::nullopt;
    place = *found;
  }
  return place;
}

/// The 32 bits at `offset` of an atom's body; none when there are none.
std::optional<uint32_t> word(FileBlocks& file, const Place& atom, int64_t offset) {
  uint8_t bytes[4];
  if (atom.end - atom.begin < offset + 4 || file.read(atom.begin + offset, bytes, 4) != 4) return std::nullopt;
  return readBigEndian32(bytes);
}

bool isTrack(FileBlocks& file, const Place& track, uint32_t id) {
  const auto header = find(file, track, {fourCharCode("tkhd")});
  if (!header) return false;
  const bool isLong = word(file, *header, 0).value_or(0) >> 24 == 1;
  return word(file, *header, isLong ? 20 : 12) == id;
}

/// Whether the edit list only says when the track begins: an empty edit, if any, and then all of it.
bool hidesNothing(FileBlocks& file, const Place& track) {
  const auto list = find(file, track, {fourCharCode("edts"), fourCharCode("elst")});
  if (!list) return true;
  const bool isLong = word(file, *list, 0).value_or(0) >> 24 == 1;
  const auto count = word(file, *list, 4);
  const int64_t entryBytes = isLong ? 20 : 12;
  const auto mediaTime = [&](int64_t entry) -> std::optional<int64_t> {
    const int64_t at = 8 + entry * entryBytes + (isLong ? 8 : 4);
    if (!isLong) {
      const auto time = word(file, *list, at);
      return time ? std::optional<int64_t>(static_cast<int32_t>(*time)) : std::nullopt;
    }
    const auto high = word(file, *list, at);
    const auto low = word(file, *list, at + 4);
    return high && low ? std::optional(static_cast<int64_t>(uint64_t{*high} << 32 | *low)) : std::nullopt;
  };
  const bool hasAll = count == 1U && mediaTime(0) == 0;
  return hasAll || (count == 2U && mediaTime(0) == -1 && mediaTime(1) == 0);
}

bool hasOneFormat(FileBlocks& file, const Place& table) {
  const auto formats = find(file, table, {fourCharCode("stsd")});
  return formats && word(file, *formats, 4) == 1U;
}

/// Whether the media lies in this file.
bool isHere(FileBlocks& file, const Place& information) {
  const auto references = find(file, information, {fourCharCode("dinf"), fourCharCode("dref")});
  if (!references || word(file, *references, 4) != 1U) return false;
  const auto first = AtomWalk(file, references->begin + 8, references->end).next();
  return first && (word(file, *first, 0).value_or(0) & 1) != 0;
}

}  // namespace

bool isWholeInIndex(FileBlocks& file, int trackId) {
  const Place whole{0, 0, file.size()};
  const auto movie = find(file, whole, {fourCharCode("moov")});
  if (!movie || find(file, *movie, {fourCharCode("mvex")})) return false;
  AtomWalk walk(file, *movie);
  while (const auto track = walk.next()) {
    if (track->type != fourCharCode("trak") || !isTrack(file, *track, static_cast<uint32_t>(trackId))) continue;
    const auto information = find(file, *track, {fourCharCode("mdia"), fourCharCode("minf")});
    const auto table = information ? find(file, *information, {fourCharCode("stbl")}) : std::nullopt;
    return table && isHere(file, *information) && hasOneFormat(file, *table) && hidesNothing(file, *track) &&
           !find(file, *table, {fourCharCode("ctts")});
  }
  return false;
}

}  // namespace vesk::capture
