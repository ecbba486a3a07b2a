#pragma once

#include <vesk/export.h>
#include <vesk/sample_buffer.h>

namespace vesk {

/// Turns the captured buffers of one stream into timed samples for a movie's track.
///
/// Threads: one call at a time; the movie creator holds its mutex.
class VESK_EXPORT ISampleGenerator {
 public:
  virtual ~ISampleGenerator() = default;

  /// A sample with its own copy of the buffer's media; null when there is nothing to write.
  /// @param timestamp microseconds since the recording began. One that is too late for a media time
  ///        (kLatestTimestamp) gives no sample and is forgotten, so that a wild stamp does not make
  ///        everything after it count as old.
  virtual CMSampleBufferRef CreateSample(const unsigned char* buffer, unsigned int length,
                                         unsigned long long timestamp) = 0;

  /// 71 years: in any scale of up to 2^31 units a second the time still fits into 62 bits, so no sum
  /// of a stamp and a sample's length overflows.
  static constexpr unsigned long long kLatestTimestamp = 1ULL << 51;
};

}  // namespace vesk
