#pragma once

#include <cstdint>

#include "platform/decompression/decompression_tracking.h"

namespace vesk {

/// The tracking callback of a decoder's session; its reference constant is the DecoderProtocol. Hands
/// on pictures that are being emitted and passes over everything else.
void SGVideoDecompTrackingCallback(void* decompressionTrackingRefCon, OSStatus result,
                                   ICMDecompressionTrackingFlags flags, const CVImageBufferRef& pixelBuffer,
                                   int64_t displayTime, int64_t displayDuration, ICMValidTimeFlags validTimeFlags,
                                   void* reserved, void* sourceFrameRefCon);

}  // namespace vesk
