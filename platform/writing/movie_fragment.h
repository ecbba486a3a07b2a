#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/writing/media_track.h"
#include "platform/writing/movie_atoms.h"

namespace vesk {

/// One fragment as it goes to the file: `moof`, then `mdat`. In the `moof` each track has runs of
/// about half a second, and in the `mdat` the runs of all tracks alternate.
class MovieFragment {
 public:
  /// Sets the fragment up from what waits in `tracks`, whose bytes it refers to.
  void build(uint32_t sequence, std::span<MediaTrack> tracks);
  /// All bytes in their order. The first atom's type is `free` until setVisible has been written.
  std::span<iovec> vectors() { return mVectors; }
  uint64_t size() const { return mSize; }
  /// Enters the samples into their tracks' indexes, for a fragment that lies at `offset`.
  void enterIndexes(uint64_t offset, std::span<MediaTrack> tracks) const;

 private:
  struct Run {
    size_t track;
    uint64_t slot;  ///< which half second
    size_t first;
    size_t count;
    uint64_t bytes;
    uint64_t offset;  ///< from the fragment's start
  };

  void findRuns(std::span<MediaTrack> tracks);
  void writeHeader(uint32_t sequence, std::span<MediaTrack> tracks);
  void gather(std::span<MediaTrack> tracks);

  std::vector<Run> mRuns;
  std::vector<uint8_t> mHeader;
  std::vector<iovec> mVectors;
  uint64_t mMediaBytes = 0;
  uint64_t mSize = 0;
};

/// Enters one run of samples into an index: the same for what was written and for what is read back.
void enterRun(SampleIndex& index, const TrackDescription& track, uint64_t offset,
              std::span<const TrackRunAtom::Sample> samples);

/// What a `moof` body says.
struct ParsedFragment {
  struct Track {
    uint32_t track = 0;
    uint64_t time = 0;
    std::vector<TrackRunAtom> runs;
  };
  uint32_t sequence = 0;
  std::vector<Track> tracks;
};
/// Any bytes may be given; nothing when they are not a fragment of ours.
std::optional<ParsedFragment> readFragment(std::span<const uint8_t> body);

}  // namespace vesk
