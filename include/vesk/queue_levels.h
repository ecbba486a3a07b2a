#pragma once

#include <cstdint>

namespace vesk {

/// Samples that a queue to the writer holds; beyond them samples are dropped.
constexpr uint32_t kVideoQueueCapacity = 300;
constexpr uint32_t kAudioQueueCapacity = 1000;
/// Bytes that each of them holds beside its last sample: 300 raw pictures of 4K would be 5 GB, and a
/// disk that hangs would take the machine with it.
constexpr uint64_t kQueueBytes = uint64_t{512} << 20;

/// How full the queues to a movie's writer are, in samples.
struct QueueLevels {
  uint32_t videoWaiting = 0;
  uint32_t audioWaiting = 0;
  uint32_t videoCapacity = kVideoQueueCapacity;
  uint32_t audioCapacity = kAudioQueueCapacity;
  uint64_t bytesWaiting = 0;  ///< in both queues together
  bool isForNext = false;     ///< pictures wait for the movie that goes on

  /// Whether a source that can wait should: more than half of a queue is waiting, or so much that raw
  /// pictures would pile up in memory.
  bool isBusy() const { return isForNext || areQueuesFull(); }
  /// The same of the queues alone.
  bool areQueuesFull() const {
    return videoWaiting > videoCapacity / 2 || audioWaiting > audioCapacity / 2 || bytesWaiting > kManyBytes;
  }
  /// Whether a source that waits may go on: the queues are no more than half as full as makes them busy.
  bool haveRoom() const {
    return !isForNext && videoWaiting <= videoCapacity / 4 && audioWaiting <= audioCapacity / 4 &&
           bytesWaiting <= kManyBytes / 2;
  }

 private:
  static constexpr uint64_t kManyBytes = uint64_t{24} << 20;
};

}  // namespace vesk
