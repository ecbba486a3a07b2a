#pragma once

#include <cstdint>

#include "platform/writing/movie_file_writer.h"
#include "tests/unit/writing/movie_samples.h"

namespace vesk::test {

/// The kinds of movie that are recorded.
enum class Content {
  kH264AndPCM,
  kPackedAndPCM,
  kH264AndAAC,
  kLargeAndPCM,
  kArenas,  ///< packed pictures and PCM, one sample behind the other in memory
};

/// Feeds a writer with pictures and sound the way a recording does: sound in packets of 1024 frames
/// at 48 kHz, pictures 30 ms apart, both in the order of their times.
class Recording {
 public:
  Recording(MovieFileWriter& writer, Content content)
      : mWriter(writer),
        mContent(content),
        mVideo(writer.addTrack(TrackKind::kVideo)),
        mSound(writer.addTrack(TrackKind::kSound)) {
    for (SampleArena* const arena : {&mPictureArena, &mSoundArena}) {  // samples begin anywhere in a block
      arena->room(1);
      arena->take(1);
    }
  }

  /// Appends pictures until there are `count`, and the sound that goes with them. False when the
  /// writer refused a sample.
  bool recordUpTo(size_t count) {
    bool accepted = true;
    for (; mPictures < count; ++mPictures) {
      const auto time = static_cast<int64_t>(mPictures) * kPictureDuration;
      const auto luma = static_cast<uint8_t>(mPictures + 1);
      const auto picture = mContent == Content::kPackedAndPCM  ? packedSample(mPacked, luma, time)
                           : mContent == Content::kLargeAndPCM ? packedSample(mLarge, luma, time)
                           : mContent == Content::kArenas      ? packedSampleIn(mPictureArena, mPacked, luma, time)
                                                               : h264Sample(mPictures, time);
      accepted = mWriter.append(mVideo, picture) && accepted;
      while (mFrames * 1'000'000 / kRate < time + kPictureDuration) accepted = appendSound() && accepted;
    }
    return accepted;
  }

  size_t pictures() const { return mPictures; }
  int64_t frames() const { return mFrames; }

  static constexpr int64_t kPictureDuration = 30'000;
  static constexpr int64_t kRate = 48'000;
  static constexpr uint32_t kFramesPerPacket = 1024;

 private:
  bool appendSound() {
    const auto sample =
        mContent == Content::kH264AndAAC
            ? aacSample(mAAC, 1, mFrames, mFrames == 0)
            : pcmSample(mPCM, kFramesPerPacket, mFrames * 1'000'000 / kRate, static_cast<uint32_t>(mFrames), 0,
                        mContent == Content::kArenas ? &mSoundArena : nullptr);
    mFrames += kFramesPerPacket;
    return mWriter.append(mSound, sample);
  }

  MovieFileWriter& mWriter;
  const Content mContent;
  const size_t mVideo;
  const size_t mSound;
  const CMVideoFormatDescriptionRef mPacked = packedFormat(64, 48);
  const CMVideoFormatDescriptionRef mLarge = packedFormat(250, 170);  // written from where it lies, and 840 bytes more
  const CMAudioFormatDescriptionRef mPCM = pcmFormat(kRate, 2);
  const CMAudioFormatDescriptionRef mAAC = aacFormat(kRate, 2);
  SampleArena mPictureArena{size_t{300} << 10};
  SampleArena mSoundArena{size_t{150} << 10};
  size_t mPictures = 0;
  int64_t mFrames = 0;
};

}  // namespace vesk::test
