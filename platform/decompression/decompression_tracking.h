#pragma once

#include <cstdint>

#include <vesk/pixel_buffer.h>
#include "platform/decompression/status.h"

namespace vesk {

using ICMDecompressionTrackingFlags = uint32_t;
constexpr ICMDecompressionTrackingFlags kICMDecompressionTracking_LastCall = 2;  ///< for this frame
constexpr ICMDecompressionTrackingFlags kICMDecompressionTracking_EmittingFrame = 4;
constexpr ICMDecompressionTrackingFlags kICMDecompressionTracking_FrameDropped = 16;  ///< it will not be emitted

using ICMValidTimeFlags = uint32_t;
constexpr ICMValidTimeFlags kICMValidTime_DisplayTimeStampIsValid = 1;
constexpr ICMValidTimeFlags kICMValidTime_DisplayDurationIsValid = 2;

/// Called for each frame that a session emits or drops, on the thread that called the session.
/// `pixelBuffer` is null for a frame that is dropped; the display time is in the time scale of the
/// frame's record; `reserved` is null.
using ICMDecompressionTrackingCallback = void (*)(void* decompressionTrackingRefCon, OSStatus result,
                                                  ICMDecompressionTrackingFlags flags,
                                                  const CVImageBufferRef& pixelBuffer, int64_t displayTime,
                                                  int64_t displayDuration, ICMValidTimeFlags validTimeFlags,
                                                  void* reserved, void* sourceFrameRefCon);

struct ICMDecompressionTrackingCallbackRecord {
  ICMDecompressionTrackingCallback decompressionTrackingCallback = nullptr;
  void* decompressionTrackingRefCon = nullptr;
};

}  // namespace vesk
