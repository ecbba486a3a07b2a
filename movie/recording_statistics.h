#pragma once

#include <cstdint>

namespace vesk {

/// What a recording has done so far. Counts are of samples, times in microseconds of the movie.
struct RecordingStatistics {
  uint64_t videoFrames = 0;    ///< queued for the file
  uint64_t videoDropped = 0;   ///< lost: the queue was full or the writer refused them
  uint64_t videoHeldBack = 0;  ///< not recorded: before the first key picture or parameter sets, or out of order
  uint64_t audioPackets = 0;
  uint64_t audioDropped = 0;   ///< lost, as above
  uint64_t audioHeldBack = 0;  ///< not recorded: older than the movie's beginning
  uint64_t audioSilence = 0;   ///< packets of silence put in to fill gaps
  uint64_t duration = 0;       ///< end of the track that reaches furthest
  uint64_t bytes = 0;          ///< in the file
  uint32_t videoWaiting = 0;   ///< queued, not yet written
  uint32_t audioWaiting = 0;
  uint32_t videoCapacity = 0;  ///< of the queues
  uint32_t audioCapacity = 0;
  int32_t status = 0;          ///< 0, or the first of the writer's status codes (-198 to -200)
  bool writerMissing = false;  ///< the file's writer could not be made: nothing is being recorded
};

}  // namespace vesk
