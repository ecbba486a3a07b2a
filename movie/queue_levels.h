#pragma once

#include <cstdint>

namespace vesk {

/// Samples that a queue to the writer holds; beyond them samples are dropped.
constexpr uint32_t kVideoQueueCapacity = 300;
constexpr uint32_t kAudioQueueCapacity = 1000;

/// How full the queues to a movie's writer are, in samples.
struct QueueLevels {
  uint32_t videoWaiting = 0;
  uint32_t audioWaiting = 0;
  uint32_t videoCapacity = kVideoQueueCapacity;
  uint32_t audioCapacity = kAudioQueueCapacity;
};

}  // namespace vesk
