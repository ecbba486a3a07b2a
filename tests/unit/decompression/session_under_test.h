#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/decompression/decompression_session.h"

namespace vesk::test {

inline ImageDescription describe(uint32_t codec, unsigned width, unsigned height, unsigned depth = 24) {
  ImageDescription description;
  description.set(ImageDescription::kIDSize, static_cast<uint32_t>(ImageDescription::kSize));
  description.set(ImageDescription::kCType, codec);
  description.set(ImageDescription::kWidth, static_cast<uint16_t>(width));
  description.set(ImageDescription::kHeight, static_cast<uint16_t>(height));
  description.set(ImageDescription::kDepth, static_cast<uint16_t>(depth));
  return description;
}

inline ICMFrameTimeRecord at(int64_t time, uint32_t flags = icmFrameTimeIsNonScheduledDisplayTime) {
  ICMFrameTimeRecord record;
  record.value = time;
  record.scale = 10'000'000;
  record.recordSize = sizeof record;
  record.flags = flags;
  return record;
}

/// A session, and what its tracking callback was called with.
struct SessionUnderTest {
  struct Call {
    OSStatus result;
    ICMDecompressionTrackingFlags flags;
    CVImageBufferRef image;
    int64_t displayTime;
    void* refCon;
  };

  explicit SessionUnderTest(const ImageDescription& description, const PixelBufferAttributes& attributes = {}) {
    created = ICMDecompressionSession::create(description, nullptr, attributes, {hear, this}, &session);
  }

  /// Decodes a frame and calls for its picture.
  OSStatus show(std::span<const uint8_t> data, int64_t time = 0) {
    const OSStatus status = session->decodeFrame(data, at(time), nullptr);
    session->setNonScheduledDisplayTime(time, 10'000'000, 0);
    return status;
  }
  /// The picture of the last call; null when it has none.
  CVImageBufferRef picture() const { return calls.empty() ? nullptr : calls.back().image; }

  std::vector<Call> calls;
  ICMDecompressionSessionRef session;
  OSStatus created;

 private:
  static void hear(void* refCon, OSStatus result, ICMDecompressionTrackingFlags flags, const CVImageBufferRef& image,
                   int64_t displayTime, int64_t /*displayDuration*/, ICMValidTimeFlags /*validTimeFlags*/,
                   void* /*reserved*/, void* sourceFrameRefCon) {
    static_cast<SessionUnderTest*>(refCon)->calls.push_back({result, flags, image, displayTime, sourceFrameRefCon});
  }
};

}  // namespace vesk::test
