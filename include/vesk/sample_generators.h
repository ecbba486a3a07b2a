#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include <vesk/export.h>
#include <vesk/frame_timing.h>
#include <vesk/sample_buffer.h>

namespace vesk {

class CH264HeaderInfo;
class CaptureTimes;
class DriftCorrection;
class SampleArena;

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

/// Gives frames their times, as FrameTiming says. With kSteady the first frame starts the track at 0,
/// however late it comes; with kCapture the track begins where its first frame stands.
class VESK_EXPORT VideoSampleGenerator : public ISampleGenerator {
 public:
  /// @param width,height pixels
  /// @param frameRate pictures a second; kept, not used for timing
  VideoSampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);
  ~VideoSampleGenerator() override;
  VideoSampleGenerator(const VideoSampleGenerator&) = delete;
  VideoSampleGenerator& operator=(const VideoSampleGenerator&) = delete;

  /// Null for a picture stamped before the last one, and where CreateVideoSampleBuffer makes none.
  CMSampleBufferRef CreateSample(const unsigned char* buffer, unsigned int length,
                                 unsigned long long timestamp) override;

 protected:
  /// The sample for a picture with the given times; null when there is none to make.
  virtual CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                                    const CMSampleTimingInfo& timing) = 0;

  const int32_t mWidth;
  const int32_t mHeight;
  const int32_t mFrameRate;
  CMVideoFormatDescriptionRef mFormat;  ///< null until it is known
  uint64_t mNextTime = 0;               ///< microseconds: the end of the last sample; 0 before the first
  uint64_t mLastTimestamp = 0;          ///< microseconds: of the last picture accepted

 private:
  struct Span {
    uint64_t start;     ///< microseconds
    uint64_t duration;  ///< microseconds
  };
  Span steadySpan(uint64_t timestamp) const;
  Span captureSpan(uint64_t timestamp);

  const std::unique_ptr<CaptureTimes> mCaptureTimes;  ///< null with kSteady
};

/// Samples from length-prefixed H.264 access units. Makes none until both parameter sets have been
/// seen; they go into the format, which then stays for the whole stream, and the samples hold slices only.
class VESK_EXPORT H264SampleGenerator final : public VideoSampleGenerator {
 public:
  H264SampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);
  ~H264SampleGenerator() override;
  H264SampleGenerator(const H264SampleGenerator&) = delete;
  H264SampleGenerator& operator=(const H264SampleGenerator&) = delete;

 private:
  CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                            const CMSampleTimingInfo& timing) override;
  /// The format for the parameter sets held; null when they do not make one.
  CMVideoFormatDescriptionRef CreateVideoFormat() const;

  const std::unique_ptr<CH264HeaderInfo> mHeaderInfo;
  const std::unique_ptr<SampleArena> mArena;
};

/// Samples from packed 4:2:2 pictures ("2vuy"), each its own picture buffer. What a picture that is
/// too short leaves open becomes black; what is too much is left out.
class VESK_EXPORT UncompressedSampleGenerator final : public VideoSampleGenerator {
 public:
  UncompressedSampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);

 private:
  CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                            const CMSampleTimingInfo& timing) override;
};

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
  const std::unique_ptr<SampleArena> mArena;
};

}  // namespace vesk
