#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include <vesk/block_buffer.h>
#include <vesk/cm_time.h>
#include <vesk/export.h>
#include <vesk/format_description.h>
#include <vesk/pixel_buffer.h>

namespace vesk {

/// When a sample is shown. Decode times are not used here: cameras do not reorder pictures.
struct CMSampleTimingInfo {
  CMTime duration;
  CMTime presentationTimeStamp;
  CMTime decodeTimeStamp;
};

/// What may be said of one sample.
enum CMSampleAttachmentKey : uint8_t {
  kCMSampleAttachmentKey_NotSync,
  kCMSampleAttachmentKey_DependsOnOthers,
  kCMSampleAttachmentKey_DoNotDisplay,
  kCMSampleAttachmentKey_EarlierDisplayTimesAllowed,
};

/// The attachments of one sample: each key is true, false or absent.
class SampleAttachments {
 public:
  void addValue(CMSampleAttachmentKey key, bool value) {
    mPresent |= bit(key);
    if (value)
      mValues |= bit(key);
    else
      mValues &= static_cast<uint8_t>(~bit(key));
  }
  std::optional<bool> value(CMSampleAttachmentKey key) const {
    if (!(mPresent & bit(key))) return std::nullopt;
    return (mValues & bit(key)) != 0;
  }
  /// Absent counts as `otherwise`.
  bool valueOr(CMSampleAttachmentKey key, bool otherwise) const { return value(key).value_or(otherwise); }

 private:
  static uint8_t bit(CMSampleAttachmentKey key) { return static_cast<uint8_t>(1U << key); }
  uint8_t mPresent = 0;
  uint8_t mValues = 0;
};

/// What may be said of a whole buffer of samples.
struct BufferAttachments {
  /// kCMSampleBufferAttachmentKey_TrimDurationAtStart: so much of the sound is not to be heard.
  std::optional<CMTime> trimDurationAtStart;
  /// How many frames (PCM) or packets (AAC) at the start are silence that was put in to fill a gap.
  /// The writer leaves out those that would lie over sound already written.
  uint64_t insertedSilence = 0;
  /// They are counted only: the buffer's time is theirs, and its bytes are those of the sound behind them.
  bool isSilenceLeftOut = false;
};

/// One or more samples of one track with their format and time: a picture, a run of PCM frames, or
/// a few packets of compressed sound. Its maker fills it in; once handed on it is read only.
class VESK_EXPORT CMSampleBuffer {
 public:
  /// One picture from the first `size` bytes of `block`; null when they do not fit or something is missing.
  static std::shared_ptr<CMSampleBuffer> create(CMBlockBufferRef block, CMFormatDescriptionRef format,
                                                const CMSampleTimingInfo& timing, size_t size);

  /// One picture that is a whole image buffer.
  static std::shared_ptr<CMSampleBuffer> createForImageBuffer(CVPixelBufferRef image, CMFormatDescriptionRef format,
                                                              const CMSampleTimingInfo& timing);

  /// Sound that begins at `presentationTime`. Without descriptions, `count` frames of equal size that
  /// fill the block; with them, `count` packets, one description each, lying one after the other from
  /// the block's start. Null when the sizes do not fit the block or `count` is 0.
  static std::shared_ptr<CMSampleBuffer> createAudioWithPacketDescriptions(
      CMBlockBufferRef block, CMAudioFormatDescriptionRef format, uint32_t count, const CMTime& presentationTime,
      std::span<const AudioStreamPacketDescription> descriptions);

  const CMFormatDescriptionRef& formatDescription() const { return mFormat; }
  /// Pictures, PCM frames or packets.
  uint32_t numSamples() const { return mCount; }
  const CMTime& presentationTimeStamp() const { return mTiming.presentationTimeStamp; }
  /// Of the whole buffer; invalid when the maker gave none (sound).
  const CMTime& duration() const { return mTiming.duration; }
  /// The bytes of all samples, one after the other.
  std::span<const uint8_t> data() const { return {mBytes, mSize}; }
  /// Bytes of each packet; empty when all samples have the same size (data().size() / numSamples()).
  std::span<const uint32_t> sampleSizes() const { return mSizes; }

  /// What keeps data() in its place, for those who need that longer than the sample.
  std::shared_ptr<const void> memory() const;

  const CVPixelBufferRef& imageBuffer() const { return mImage; }
  const CMBlockBufferRef& dataBuffer() const { return mBlock; }

  /// Of the first sample: pictures come one to a buffer, and sound has none.
  SampleAttachments& sampleAttachments() { return mSampleAttachments; }
  const SampleAttachments& sampleAttachments() const { return mSampleAttachments; }
  BufferAttachments& attachments() { return mAttachments; }
  const BufferAttachments& attachments() const { return mAttachments; }

  /// For the factories above; use those.
  CMSampleBuffer() = default;

 private:
  CMFormatDescriptionRef mFormat;
  CMBlockBufferRef mBlock;
  CVPixelBufferRef mImage;
  const uint8_t* mBytes = nullptr;
  size_t mSize = 0;
  uint32_t mCount = 0;
  CMSampleTimingInfo mTiming;
  std::vector<uint32_t> mSizes;
  SampleAttachments mSampleAttachments;
  BufferAttachments mAttachments;
};

using CMSampleBufferRef = std::shared_ptr<CMSampleBuffer>;

}  // namespace vesk
