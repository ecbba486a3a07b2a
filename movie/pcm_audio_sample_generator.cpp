#include <vesk/sample_generators.h>

#include <algorithm>
#include <limits>
#include <span>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "movie/copy_bytes.h"
#include "movie/drift_correction.h"
#include "movie/silence.h"
#include "platform/media/sample_arena.h"

namespace vesk {
namespace {

constexpr int32_t kTimeScale = 1'000'000;
constexpr uint16_t kCorrectedBits = 16;
constexpr size_t kArenaPiece = size_t{512} << 10;  // three seconds of 48 kHz stereo

AudioStreamBasicDescription describe(uint32_t sampleRate, uint16_t channels, uint16_t bitsPerChannel) {
  const uint32_t bytesPerFrame = uint32_t{channels} * bitsPerChannel / 8;
  AudioStreamBasicDescription description;
  description.mSampleRate = sampleRate;
  description.mFormatID = kAudioFormatLinearPCM;
  description.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
  description.mBytesPerPacket = bytesPerFrame;
  description.mFramesPerPacket = 1;
  description.mBytesPerFrame = bytesPerFrame;
  description.mChannelsPerFrame = channels;
  description.mBitsPerChannel = bitsPerChannel;
  return description;
}

}  // namespace

PCMAudioSampleGenerator::PCMAudioSampleGenerator(unsigned int sampleRate, unsigned short channels,
                                                 unsigned short bitsPerChannel, FrameTiming timing)
    : mFormat(CMAudioFormatDescription::create(describe(sampleRate, channels, bitsPerChannel))),
      mStreamDescription(&mFormat->streamBasicDescription()),
      mSampleRate(sampleRate),
      mArena(std::make_unique<SampleArena>(kArenaPiece)) {
  const bool canBeCorrected = bitsPerChannel == kCorrectedBits && channels > 0 && sampleRate > 0;
  if (timing == FrameTiming::kCapture && canBeCorrected)
    mDriftCorrection = std::make_unique<DriftCorrection>(sampleRate, channels);
}

PCMAudioSampleGenerator::~PCMAudioSampleGenerator() = default;

CMSampleBufferRef PCMAudioSampleGenerator::CreateSample(const unsigned char* packet, unsigned int length,
                                                        unsigned long long timestamp) {
  if (timestamp < mLastTimestamp) {
    printToOutput(LogLevel::kWarning, "[WARNING]: Dropping out of order audio packet [last = %llu, pts = %llu]\n",
                  static_cast<unsigned long long>(mLastTimestamp), timestamp);
    return nullptr;
  }
  if (timestamp > kLatestTimestamp) return nullptr;
  mLastTimestamp = timestamp;

  const uint32_t bytesPerFrame = mStreamDescription->mBytesPerFrame;
  if (mSampleRate == 0 || bytesPerFrame == 0 || length < bytesPerFrame) return nullptr;
  const uint64_t packetFrames = length / bytesPerFrame;
  if (mNextTime == 0) mNextTime = timestamp;
  const uint64_t silence = silenceBefore(packetFrames, timestamp);
  std::span<const uint8_t> sound{packet, packetFrames * bytesPerFrame};
  if (mDriftCorrection) sound = mDriftCorrection->apply(sound);
  const bool isLeftOut = silence > kMostSilentBytes / bytesPerFrame;
  const uint64_t before = isLeftOut ? 0 : silence;  // in the block
  const uint64_t soundFrames = sound.size() / bytesPerFrame;
  const uint64_t frames = before + soundFrames;
  if (frames > std::numeric_limits<uint32_t>::max()) return nullptr;

  const std::span<uint8_t> room = mArena->room(frames * bytesPerFrame);
  auto block = room.empty() ? nullptr : mArena->take(room.size());
  if (!block) {
    if (mDriftCorrection) advance(silence + soundFrames);  // it has counted them
    return nullptr;
  }
  std::fill_n(room.begin(), before * bytesPerFrame, uint8_t{0});
  copyBytes(room.data() + before * bytesPerFrame, sound);

  const CMTime start = CMTimeMake(static_cast<int64_t>(mNextTime), kTimeScale);
  auto sample = CMSampleBuffer::createAudioWithPacketDescriptions(std::move(block), mFormat,
                                                                  static_cast<uint32_t>(frames), start, {});
  if (sample) {
    sample->attachments().insertedSilence = silence;
    sample->attachments().isSilenceLeftOut = isLeftOut;
  }
  advance(silence + soundFrames);
  return sample;
}

uint64_t PCMAudioSampleGenerator::silenceBefore(uint64_t packetFrames, uint64_t timestamp) {
  const uint64_t missing = missingFrames(packetFrames, timestamp);
  if (missing == 0) return 0;
  const uint64_t packets = (missing + packetFrames / 2) / packetFrames;
  const uint64_t gap = timestamp - std::min<uint64_t>(mNextTime, timestamp);
  if (gap > kLongestSilence || packets > std::numeric_limits<int32_t>::max()) {
    reportOpenGap(gap);
    mNextTime = timestamp;
    mRemainder = 0;
    return 0;
  }
  printToOutput("[WARNING]: Inserting %d silence packets!!!\n", static_cast<int>(packets));
  return missing;
}

/// Whole packets of frames, but in kCapture and when they are only counted as many as there are.
uint64_t PCMAudioSampleGenerator::missingFrames(uint64_t packetFrames, uint64_t timestamp) {
  if (mDriftCorrection) return mDriftCorrection->announce(timestamp, packetFrames);
  if (timestamp <= mNextTime) return 0;
  const uint64_t duration = std::max<uint64_t>(soundDuration(packetFrames, mSampleRate), 1);
  constexpr uint64_t kTooMany = uint64_t{1} << 31;
  const uint64_t gap = timestamp - mNextTime;
  const uint64_t missing = std::min(gap / duration, kTooMany) * packetFrames;
  const bool isCounted = missing > kMostSilentBytes / mStreamDescription->mBytesPerFrame;
  return isCounted && gap <= kLongestSilence ? framesIn(gap, mSampleRate) : missing;
}

void PCMAudioSampleGenerator::advance(uint64_t frames) {
  if (!mDriftCorrection) {
    mNextTime += soundDuration(frames, mSampleRate);
    return;
  }
  const auto parts = static_cast<unsigned __int128>(frames) * kTimeScale + mRemainder;
  mNextTime += static_cast<uint64_t>(parts / mSampleRate);
  mRemainder = static_cast<uint64_t>(parts % mSampleRate);
}

}  // namespace vesk
