#pragma once

#include <cstdint>

#include <vesk/error.h>

namespace vesk {

/// What a recording has done so far. Counts are of samples, times in microseconds of the movie.
struct RecordingStatistics {
  uint64_t videoFrames = 0;    ///< queued for the file
  uint64_t videoDropped = 0;   ///< lost: the queue was full or the writer refused them
  uint64_t videoHeldBack = 0;  ///< not recorded: before the first key picture or parameter sets, or out of order
  uint32_t videoWidth = 0;     ///< pixels of the movie's pictures, as far as they are known: a camera may send
  uint32_t videoHeight = 0;    ///< others than its format says
  uint64_t videoUnfit = 0;     ///< not recorded: they need other parameter sets than the movie holds
  uint32_t videoForNext = 0;   ///< of those after formatChanged, how many wait for the movie that goes on
  uint64_t audioPackets = 0;
  uint64_t audioDropped = 0;   ///< lost, as above
  uint64_t audioHeldBack = 0;  ///< not recorded: older than the movie's beginning
  uint64_t audioSilence = 0;   ///< packets of silence put in to fill gaps
  uint64_t duration = 0;       ///< end of the track that reaches furthest
  /// How much later the newest frame is shown than it was captured. It grows where frames come faster than a
  /// movie takes them: one in 30 ms with FrameTiming::kSteady; with kCapture a movie takes any rate.
  uint64_t videoLate = 0;
  uint64_t bytes = 0;  ///< in the file, or on their way there
  /// How the movie got to the disk: bytes written past the system's page cache, which costs least and leaves the
  /// memory to others; and through it, where the file system cannot do that or the disk was too slow for a while.
  uint64_t bytesDirect = 0;
  uint64_t bytesBuffered = 0;
  uint32_t diskFellBehind = 0;  ///< how often it was too slow: by more than 64 MiB or 8 s
  uint64_t bytesReserved = 0;   ///< of disk, for what comes next
  bool isDiskShort = false;     ///< no more could be reserved: these are the last. A quota shows here only
  uint32_t videoWaiting = 0;    ///< queued, not yet written
  uint32_t audioWaiting = 0;
  uint32_t videoCapacity = 0;  ///< of the queues
  uint32_t audioCapacity = 0;
  int32_t status = 0;  ///< 0, or the first of the writer's status codes (-198 to -200)
  Error error;         ///< why the movie is not written any more: of the status, or of writerMissing
  /// The camera has changed its parameter sets, with its size for instance: this movie cannot hold its
  /// pictures any more (VeskMovieCreator: SetContinues).
  bool formatChanged = false;
  bool writerMissing = false;  ///< the file's writer could not be made: nothing is being recorded
};

}  // namespace vesk
