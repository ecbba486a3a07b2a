#include "movie/pcm_audio_sample_generator.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "movie/copy_bytes.h"
#include "movie/silence.h"
#include "platform/foundation/log.h"
#include "platform/media/four_char_code.h"

namespace vesk {
namespace {

constexpr int32_t kTimeScale = 1'000'000;

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
                                                 unsigned short bitsPerChannel)
    : mFormat(CMAudioFormatDescription::create(describe(sampleRate, channels, bitsPerChannel))),
      mStreamDescription(&mFormat->streamBasicDescription()),
      mSampleRate(sampleRate) {}

CMSampleBufferRef PCMAudioSampleGenerator::CreateSample(const unsigned char* packet, unsigned int length,
                                                        unsigned long long timestamp) {
  if (timestamp < mLastTimestamp) {
    printToOutput("[WARNING]: Dropping out of order audio packet [last = %llu, pts = %llu]\n",
                  static_cast<unsigned long long>(mLastTimestamp), timestamp);
    return nullptr;
  }
  if (timestamp > kLatestTimestamp) return nullptr;
  mLastTimestamp = timestamp;

  const uint32_t bytesPerFrame = mStreamDescription->mBytesPerFrame;
  if (mSampleRate == 0 || bytesPerFrame == 0 || length < bytesPerFrame) return nullptr;
  const uint64_t packetFrames = length / bytesPerFrame;

  uint64_t silentFrames = 0;
  if (mNextTime == 0) {
    mNextTime = timestamp;
  } else if (mNextTime < timestamp) {
    silentFrames = silencePackets(packetFrames, timestamp) * packetFrames;
  }
  const bool isLeftOut = silentFrames > kMostSilentBytes / bytesPerFrame;
  const uint64_t before = isLeftOut ? 0 : silentFrames;  // in the block
  const uint64_t frames = before + packetFrames;
  if (frames > std::numeric_limits<uint32_t>::max()) return nullptr;

  auto block = CMBlockBuffer::create(frames * bytesPerFrame);
  if (!block) return nullptr;
  block->fillDataBytes(0, 0, before * bytesPerFrame);
  copyBytes(block->data().data() + before * bytesPerFrame, {packet, packetFrames * bytesPerFrame});

  const CMTime start = CMTimeMake(static_cast<int64_t>(mNextTime), kTimeScale);
  auto sample = CMSampleBuffer::createAudioWithPacketDescriptions(std::move(block), mFormat,
                                                                  static_cast<uint32_t>(frames), start, {});
  if (sample) {
    sample->attachments().insertedSilence = silentFrames;
    sample->attachments().isSilenceLeftOut = isLeftOut;
  }
  mNextTime += soundDuration(silentFrames + packetFrames, mSampleRate);
  return sample;
}

uint64_t PCMAudioSampleGenerator::silencePackets(uint64_t frames, uint64_t timestamp) {
  const uint64_t gap = timestamp - mNextTime;
  const uint64_t duration = std::max<uint64_t>(soundDuration(frames, mSampleRate), 1);
  const uint64_t packets = gap / duration;
  if (packets == 0) return 0;
  if (gap > kLongestSilence || packets > std::numeric_limits<int32_t>::max()) {
    reportOpenGap(gap);
    mNextTime = timestamp;
    return 0;
  }
  printToOutput("[WARNING]: Inserting %d silence packets!!!\n", static_cast<int>(packets));
  return packets;
}

}  // namespace vesk
