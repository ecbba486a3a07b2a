#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/writing/track_description.h"

namespace vesk {

class AtomWriter;

/// A growing run of small numbers, each in as few bytes as it needs. It grows by blocks, so growing
/// never copies and never holds twice the memory.
class NumberChain {
 public:
  void push(uint64_t value);
  void pushSigned(int64_t value) { push(static_cast<uint64_t>(value) << 1 ^ static_cast<uint64_t>(value >> 63)); }
  /// Bytes held.
  size_t memory() const { return mBlocks.size() * kBlock; }

  /// Takes the numbers out in their order. Zeros follow the last.
  class Reader {
   public:
    explicit Reader(const NumberChain& chain) : mChain(chain), mLeft(chain.mSize) {}
    uint64_t next() {
      uint64_t value = 0;
      for (int shift = 0;; shift += 7) {
        if (mAt == mEnd && !nextBlock()) return value;
        const uint8_t byte = *mAt++;
        value |= uint64_t{byte & 0x7FU} << shift;
        if (byte < 0x80) return value;
      }
    }
    int64_t nextSigned() {
      const uint64_t value = next();
      return static_cast<int64_t>(value >> 1) ^ -static_cast<int64_t>(value & 1);
    }

   private:
    bool nextBlock();

    const NumberChain& mChain;
    size_t mLeft;  ///< bytes behind the current block
    size_t mBlock = 0;
    const uint8_t* mAt = nullptr;
    const uint8_t* mEnd = nullptr;
  };

 private:
  static constexpr size_t kBlock = 8192;

  std::vector<std::unique_ptr<uint8_t[]>> mBlocks;
  size_t mSize = 0;
};

/// What fills the gaps of a track of sound.
struct SilentSample {
  uint32_t size = 0;            ///< bytes; 0: nothing does, the last sample lasts over the gap
  uint32_t duration = 1;        ///< track's scale
  uint64_t longestStretch = 0;  ///< over a gap up to this long the last sample lasts; track's scale
};

/// Where the samples of one track lie and how long they last, in a few bytes a sample: sizes and
/// offsets as differences, durations as runs. Becomes the tables of a plain movie.
///
/// Silence over a gap takes no room in the file: its chunks all refer to the same stretch of it.
class SampleIndex {
 public:
  /// @param frameSize bytes of a frame of PCM, whose samples are counted and not listed; else 0.
  explicit SampleIndex(uint32_t frameSize, SilentSample silence = {}) : mFrameSize(frameSize), mSilence(silence) {}
  /// An empty one for such a track.
  static SampleIndex forTrack(const TrackDescription& track);

  /// Samples added from here on lie one after the other from `offset` in the file. Offsets grow.
  void beginChunk(uint64_t offset);
  /// @param duration at least 1, track's scale.
  void addSample(uint32_t size, uint32_t duration, bool isKey);
  /// Adds `bytes` of PCM, a whole number of frames.
  void addFrames(uint64_t bytes);
  /// Says that the next sample begins at `time`: the last one lasts until then, at least 1 unit, or
  /// silence does.
  void moveEnd(uint64_t time);

  uint64_t count() const { return mCount; }
  /// Of all samples, track's scale: where the next one would begin.
  uint64_t duration() const { return mDuration; }
  /// Where the last chunk ends in the file.
  uint64_t end() const { return mEnd; }
  /// Bytes held.
  size_t memory() const;

  /// Whether the tables can hold it all: they count samples in 32 bits.
  bool fitsTables() const { return mCount <= 0xFFFFFFFF; }
  /// Bytes that the tables take at most, sample description apart.
  uint64_t tablesSize() const;
  /// Whether moveEnd(time) leaves tables that can be written and grow by little.
  bool canReach(uint64_t time) const;
  /// Over a gap up to this long the last sample lasts; longer ones are filled with silence. Track's scale.
  uint64_t longestStretch() const { return mSilence.longestStretch; }
  /// How many samples of silence must lie one after the other somewhere in the file; 0 when there are no gaps.
  uint64_t silentStretch() const { return mLongestSilence; }
  /// By how much a scale of `timescale` units a second is too fine: durations of 2^31 units and more are
  /// negative to some readers, which then drop all samples behind. 1 as a rule.
  uint32_t timeDivisor(uint32_t timescale) const;
  /// Writes `stbl` whole.
  /// @param silenceOffset where the stretch of silence lies.
  void writeTables(AtomWriter& writer, const TrackDescription& track, uint64_t silenceOffset = 0) const;

 private:
  void addSilence(uint64_t duration);
  void enterLastDuration();
  void endDurationRun();
  void endChunk();
  uint64_t samplesPerSilentChunk() const;
  template <class Visit>
  void forEachChunk(uint64_t silenceOffset, Visit visit) const;
  template <class Visit>
  void forEachDurationRun(Visit visit) const;
  void writeDurations(AtomWriter& writer, uint32_t divisor) const;
  void writeKeys(AtomWriter& writer) const;
  void writeChunkCounts(AtomWriter& writer) const;
  void writeSizes(AtomWriter& writer) const;
  void writeOffsets(AtomWriter& writer, uint64_t silenceOffset) const;

  uint32_t mFrameSize;
  SilentSample mSilence;
  uint64_t mCount = 0;
  uint64_t mDuration = 0;

  NumberChain mSizes;  ///< differences to the size before
  uint32_t mLastSize = 0;
  bool mOneSize = true;  ///< all sizes are the same so far

  NumberChain mDurations;  ///< pairs: samples, duration
  uint64_t mDurationRuns = 0;
  uint64_t mRunSamples = 0;
  uint64_t mRunDuration = 0;
  uint64_t mLastDuration = 0;  ///< of the last sample, which is not in a run yet; 0: none
  uint64_t mLongestDuration = 0;

  NumberChain mKeys;  ///< differences of sample numbers
  uint64_t mKeyCount = 0;
  uint64_t mLastKey = 0;

  NumberChain mChunks;  ///< pairs: 1 + bytes from the chunk before to this one, samples; or 0, samples of silence
  uint64_t mChunkCount = 0;
  uint64_t mGaps = 0;
  uint64_t mSilentChunks = 0;    ///< in the tables, of all gaps
  uint64_t mLongestSilence = 0;  ///< samples in the largest of these
  uint64_t mChunkSamples = 0;
  uint64_t mChunkOffset = 0;  ///< of the open chunk
  uint64_t mEnd = 0;          ///< where the open chunk ends so far
  uint64_t mLastOffset = 0;   ///< of the chunk before it
};

}  // namespace vesk
