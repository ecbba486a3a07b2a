#pragma once

#include <cstdint>
#include <span>

#include <vesk/sample_generator.h>

namespace vesk {

/// Samples from raw AAC packets of 1024 frames. Each follows the one before; when they have fallen
/// more than two packets behind, the gap is filled with packets of silence in the same sample
/// (BufferAttachments::insertedSilence counts them; many are not in its bytes), unless it is longer than
/// kLongestSilence. The track begins at 0, and its first packet, which only primes the decoder, is not
/// to be heard.
class VESK_EXPORT AACAudioSampleGenerator final : public ISampleGenerator {
 public:
  /// @param sampleRate frames a second
  AACAudioSampleGenerator(unsigned int sampleRate, int channels);

  /// Null for a packet stamped before the last one, with a line on standard error. Null for an empty
  /// packet as well, whose time stays open.
  CMSampleBufferRef CreateSample(const unsigned char* packet, unsigned int length,
                                 unsigned long long timestamp) override;

  /// One sample of as many packets as there are buffers, lying one after the other as `descriptions`
  /// (one each) say, from `start` on. Null when they do not agree or memory runs out.
  CMSampleBufferRef CreateSampleBufferFromBufferList(std::span<const AudioBuffer> buffers,
                                                     std::span<const AudioStreamPacketDescription> descriptions,
                                                     const CMTime& start) const;

 private:
  /// How many packets of silence belong before a packet stamped `timestamp`. Moves
  /// mNextPresentationTime over a gap that is too long to fill.
  uint32_t silencePackets(uint64_t timestamp);
  /// The sample of `silence` packets of silence and the packet.
  CMSampleBufferRef makeSample(uint32_t silence, const AudioBuffer& packet) const;

  CMAudioFormatDescriptionRef mFormat;
  const AudioStreamBasicDescription* mStreamDescription;  ///< inside mFormat
  bool mIsFirstSample = true;                             ///< no sample has been made yet
  uint64_t mLastTimestamp = 0;                            ///< microseconds: of the last packet accepted
  CMTime mNextPresentationTime;                           ///< where the next packet starts, in sample rate units
  CMTime mPacketDuration;                                 ///< 1024 in sample rate units; not valid without a rate
};

}  // namespace vesk
