#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/media/memory_pool.h"
#include "platform/writing/media_track.h"
#include "platform/writing/movie_atoms.h"

namespace vesk {

/// One fragment as it goes to the file: `moof`, a `free` with its checksums, then `mdat`. In the `moof` each track
/// has runs of about half a second, and in the `mdat` the runs of all tracks alternate.
///
/// It begins and ends on a block (kDirectAlignment), and all memory it is written from lies on blocks. Samples that
/// lie one behind the other in memory, 64 KiB and more of them, are a run of their own, which is written as it lies:
/// it has its place in the file where blocks of the file are blocks of its memory. Only what lies before its first
/// whole block and behind its last one is copied, and so are all other samples.
class MovieFragment {
 public:
  /// Takes up all that waits in `tracks`; what they hold may go afterwards.
  /// @param offset where in the file it will lie
  MovieFragment(uint32_t sequence, std::span<MediaTrack> tracks, uint64_t offset);
  MovieFragment(const MovieFragment&) = delete;
  MovieFragment& operator=(const MovieFragment&) = delete;

  uint64_t offset() const { return mOffset; }
  uint64_t size() const { return mSize; }
  uint64_t end() const { return mOffset + mSize; }
  /// Where the media in it ends, in microseconds from the movie's zero.
  uint64_t mediaEnd() const { return mMediaEnd; }

  /// All bytes in their order. The first atom's type is `free`.
  std::vector<iovec> vectors() const { return mVectors; }
  /// The first block once more, with `moof` for its type: written over the first, it makes the fragment valid.
  std::span<const uint8_t> validBeginning();
  /// All is written: lets go of the memory, or of all but what validBeginning needs.
  void releaseMedia(bool keepsBeginning);

  /// Enters the samples into their tracks' indexes.
  void enterIndexes(std::span<MediaTrack> tracks) const;

 private:
  struct Run {
    size_t track;
    uint64_t slot;         ///< which half second
    const uint8_t* begin;  ///< of its first sample; of all, when they lie one behind the other
    bool isInOnePiece;
    size_t first;
    size_t count;
    uint64_t bytes;
    uint64_t offset;  ///< from the fragment's start
    TrackRunAtom atom;

    bool isStraight() const;  ///< written from where it lies
    uint64_t bytesBeforeBlocks() const;
    uint64_t bytesInBlocks() const;
  };
  struct Beginning {
    size_t track;
    uint64_t time;
  };

  void findRuns(std::span<MediaTrack> tracks);
  void addRun(const Run& run);
  void writeHeader(uint32_t sequence, std::span<MediaTrack> tracks);
  void layOut();
  void gather(std::span<MediaTrack> tracks);
  void finishHeader();

  const uint64_t mOffset;
  uint64_t mSize = 0;
  uint64_t mMediaEnd = 0;
  std::vector<Run> mRuns;
  std::vector<Beginning> mBeginnings;  ///< of the tracks in it
  std::vector<uint8_t> mHeader;
  size_t mMoofSize = 0;
  FragmentSumsAtom mSums;
  MemoryPool::Block mBuffer;
  std::vector<iovec> mVectors;
  std::vector<std::shared_ptr<const void>> mMemory;  ///< that is written as it lies
};

/// Enters one run of samples into an index: the same for what was written and for what is read back.
void enterRun(SampleIndex& index, const TrackDescription& track, uint64_t offset,
              std::span<const TrackRunAtom::Sample> samples);

/// What bytes add up to in FragmentSumsAtom: XXH3, 64 bits.
uint64_t checksum(std::span<const uint8_t> bytes);

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
