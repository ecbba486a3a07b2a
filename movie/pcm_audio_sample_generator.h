#pragma once

#include <cstdint>

#include "movie/sample_generator.h"

namespace vesk {

/// Samples from packets of interleaved linear PCM (signed, little-endian). Each follows the one
/// before; a gap of a whole packet or more is filled with zero frames in the same sample
/// (BufferAttachments::insertedSilence counts them; many are not in its bytes), unless it is longer than
/// kLongestSilence. The track begins at its first packet's time.
class VESK_EXPORT PCMAudioSampleGenerator final : public ISampleGenerator {
 public:
  /// @param sampleRate frames a second
  PCMAudioSampleGenerator(unsigned int sampleRate, unsigned short channels, unsigned short bitsPerChannel);

  /// Null for a packet stamped before the last one, with a line on standard output, and for one
  /// without a whole frame. Bytes of a frame that is cut off at the packet's end are left out.
  CMSampleBufferRef CreateSample(const unsigned char* packet, unsigned int length,
                                 unsigned long long timestamp) override;

 private:
  /// How many packets of `frames` frames fit into the gap before `timestamp`. Moves mNextTime over a
  /// gap that is too long to fill.
  uint64_t silencePackets(uint64_t frames, uint64_t timestamp);

  CMAudioFormatDescriptionRef mFormat;
  uint64_t mNextTime = 0;       ///< microseconds: where the next packet starts; 0 before the first
  uint64_t mLastTimestamp = 0;  ///< microseconds: of the last packet accepted
  const AudioStreamBasicDescription* mStreamDescription;  ///< inside mFormat
  const uint32_t mSampleRate;
};

}  // namespace vesk
