#pragma once

#include <cstdint>

namespace vesk {

/// The display time that was asked for is not on a clock: the frame waits until it is called for.
constexpr uint32_t icmFrameTimeIsNonScheduledDisplayTime = 4;

/// When a frame is to be shown. Of the given layout, 56 bytes.
struct ICMFrameTimeRecord {
  struct Wide {
    int32_t high = 0;
    uint32_t low = 0;
  };
  int64_t value = 0;  ///< display time, in units of 1/scale seconds
  int32_t scale = 0;  ///< units a second
  uint32_t base = 0;  ///< time base; there is none here
  int32_t duration = 0;
  int32_t rate = 0;        ///< 16.16 fixed point
  int32_t recordSize = 0;  ///< of this record
  int32_t frameNumber = 0;
  uint32_t flags = 0;
  Wide virtualStartTime;
  int32_t virtualDuration = 0;
  int64_t decodeTime = 0;
};
static_assert(sizeof(ICMFrameTimeRecord) == 56);

}  // namespace vesk
