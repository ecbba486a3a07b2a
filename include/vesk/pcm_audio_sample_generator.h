#pragma once

#include <cstdint>
#include <memory>

#include <vesk/frame_timing.h>
#include <vesk/sample_generator.h>

namespace vesk {

class DriftCorrection;

/// Samples from packets of interleaved linear PCM (signed, little-endian). Each follows the one
/// before; a gap of a whole packet or more is filled with zero frames in the same sample
/// (BufferAttachments::insertedSilence counts them; many are not in its bytes), unless it is longer than
/// kLongestSilence. The track begins at its first packet's time.
///
/// In kCapture, 16-bit sound stays at its capture time as well (DriftCorrection): it is resampled where its
/// microphone runs fast or slow, and the silence in a gap is as long as the gap, to the frame.
class VESK_EXPORT PCMAudioSampleGenerator final : public ISampleGenerator {
 public:
  /// @param sampleRate frames a second
  PCMAudioSampleGenerator(unsigned int sampleRate, unsigned short channels, unsigned short bitsPerChannel,
                          FrameTiming timing = FrameTiming::kSteady);
  ~PCMAudioSampleGenerator() override;
  PCMAudioSampleGenerator(const PCMAudioSampleGenerator&) = delete;
  PCMAudioSampleGenerator& operator=(const PCMAudioSampleGenerator&) = delete;

  /// Null for a packet stamped before the last one, with a line on standard output, and for one
  /// without a whole frame. Bytes of a frame that is cut off at the packet's end are left out.
  CMSampleBufferRef CreateSample(const unsigned char* packet, unsigned int length,
                                 unsigned long long timestamp) override;

 private:
  /// Frames of silence to put before a packet. Moves mNextTime over a gap that is too long to fill.
  uint64_t silenceBefore(uint64_t packetFrames, uint64_t timestamp);
  uint64_t missingFrames(uint64_t packetFrames, uint64_t timestamp);
  void advance(uint64_t frames);

  CMAudioFormatDescriptionRef mFormat;
  uint64_t mNextTime = 0;       ///< microseconds: where the next packet starts; 0 before the first
  uint64_t mLastTimestamp = 0;  ///< microseconds: of the last packet accepted
  uint64_t mRemainder = 0;      ///< of mNextTime, in parts of mSampleRate; only in kCapture
  const AudioStreamBasicDescription* mStreamDescription;  ///< inside mFormat
  const uint32_t mSampleRate;
  std::unique_ptr<DriftCorrection> mDriftCorrection;  ///< null where sound is taken as it comes
};

}  // namespace vesk
