#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include <vesk/sample_buffer.h>
#include "platform/writing/sample_index.h"
#include "platform/writing/track_description.h"

namespace vesk {

/// One track of a movie that is being written: gives every sample its place in time, keeps those
/// that wait for the next fragment, and the index of those that are in the file.
///
/// Pictures last until the next one begins. Sound is placed by counting frames, so that stamps cut
/// to whole microseconds do not let it drift; a gap of more than 2 ms behind its end is real and filled
/// with silence, or, in compressed sound, covered by a longer duration of the packet before it. Silence
/// that the source put in is left out as far as it would lie over sound that is there already; it is
/// written with the elements of the track's channels, whatever the source made it of.
///
/// Long silence (22 s of 48 kHz stereo, ten minutes of packets) is no bytes: a fragment ends before it and
/// the next one begins later. The index makes samples of it that share theirs.
class MediaTrack {
 public:
  MediaTrack(TrackKind kind, uint32_t number) : mKind(kind), mNumber(number), mIndex(0) {}

  /// A sample that waits: a picture, a packet, or a stretch of PCM frames.
  struct Waiting {
    const uint8_t* bytes;
    uint64_t time;  ///< from the track's beginning, its scale
    uint32_t size;
    uint32_t duration;
    bool isKey;
  };

  /// Microseconds of the stamp at which the picture or, behind silence that was put in, the sound begins;
  /// nothing when it has no usable one.
  static std::optional<int64_t> timeOf(const CMSampleBuffer& sample);

  /// Takes the sample in. Its memory is kept until `clearWaiting`, the sample itself is not: it goes back to the pool
  /// where the next one is made of it, while it lies in the caches still.
  /// @param sessionStart microseconds of the stamp that counts as the movie's zero.
  /// @return false when it does not fit: another format than the first sample's, one that cannot be
  ///         written, no time, or a size that cannot be.
  bool accept(const CMSampleBufferRef& sample, int64_t sessionStart);

  /// Whether a fragment should end before `sample`: it is a key picture and so much waits already, or a
  /// long gap lies before it.
  bool endsFragment(const CMSampleBuffer& sample, int64_t sessionStart, uint64_t microseconds) const;

  TrackKind kind() const { return mKind; }
  /// Known from the first sample on.
  const std::optional<TrackDescription>& description() const { return mDescription; }
  const std::vector<Waiting>& waiting() const { return mWaiting; }
  uint64_t waitingBytes() const { return mWaitingBytes; }
  /// Microseconds of media that wait.
  uint64_t waitingDuration() const;
  /// Microseconds from the movie's zero to the end of what was taken in.
  uint64_t end() const { return mDescription ? movieTime(mEnd) : 0; }
  /// Microseconds from the movie's zero to a time of this track.
  uint64_t movieTime(uint64_t time) const;
  /// Lets go of the samples that wait.
  void clearWaiting();
  /// Gives up the memory that `waiting` points at.
  std::vector<std::shared_ptr<const void>> takeMemory() { return std::exchange(mMemory, {}); }

  SampleIndex& index() { return mIndex; }
  const SampleIndex& index() const { return mIndex; }

  /// No more samples will come.
  void finish() { mFinished = true; }
  bool isFinished() const { return mFinished; }
  /// Gives the track up: it cannot be part of this movie.
  void refuse();

 private:
  bool begin(const CMSampleBuffer& sample, int64_t at);
  bool hasFormat(const CMFormatDescriptionRef& format) const;
  bool acceptPicture(const CMSampleBuffer& sample, int64_t at);
  bool acceptFrames(const CMSampleBuffer& sample, int64_t at);
  bool acceptPackets(const CMSampleBuffer& sample, int64_t at);
  uint64_t silenceBefore(const CMSampleBuffer& sample, int64_t at) const;
  bool isLong(uint64_t gap) const;
  int64_t soundTime(int64_t at) const;
  void stretchLast(uint64_t time);
  void push(const uint8_t* bytes, uint32_t size, uint32_t duration, bool isKey);
  void pushFrames(const uint8_t* bytes, uint64_t frames);
  void pushSilence(uint64_t frames);

  const TrackKind mKind;
  const uint32_t mNumber;
  bool mFinished = false;
  bool mRefused = false;
  CMFormatDescriptionRef mFormat;
  std::optional<TrackDescription> mDescription;
  int64_t mBegin = 0;      ///< microseconds from the movie's zero to the track's beginning
  uint64_t mEnd = 0;       ///< of the last sample, track's scale
  uint64_t mLastTime = 0;  ///< of the last picture
  bool mHasSamples = false;

  std::vector<Waiting> mWaiting;
  std::vector<std::shared_ptr<const void>> mMemory;  ///< that mWaiting points at; samples may share theirs
  uint64_t mWaitingBytes = 0;
  SampleIndex mIndex;
};

}  // namespace vesk
