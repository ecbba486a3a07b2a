#include <vesk/sample_generators.h>

#include <limits>
#include <new>
#include <utility>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "movie/silence.h"

namespace vesk {
namespace {

constexpr int32_t kMicroseconds = 1'000'000;
constexpr uint32_t kFramesPerPacket = 1024;

/// One packet of silence, shared by all that are put in.
constexpr uint8_t kSilencePacket[4] = {0x00, 0xD0, 0x00, 0x07};
constexpr AudioBuffer kSilenceBuffer{1, sizeof kSilencePacket, kSilencePacket};

AudioStreamBasicDescription describe(uint32_t sampleRate, int channels) {
  AudioStreamBasicDescription description;
  description.mSampleRate = sampleRate;
  description.mFormatID = kAudioFormatMPEG4AAC;
  description.mChannelsPerFrame = channels > 0 ? static_cast<uint32_t>(channels) : 0;
  AudioFormatCompleteDescription(description);
  return description;
}

AudioStreamPacketDescription describePacket(int64_t offset, uint32_t size) {
  return {offset, 0, size};
}

}  // namespace

AACAudioSampleGenerator::AACAudioSampleGenerator(unsigned int sampleRate, int channels)
    : mFormat(CMAudioFormatDescription::create(describe(sampleRate, channels))),
      mStreamDescription(&mFormat->streamBasicDescription()),
      mPacketDuration(CMTimeMake(kFramesPerPacket, static_cast<int32_t>(sampleRate))) {
  mNextPresentationTime = CMTimeConvertScale(kCMTimeZero, mPacketDuration.timescale);
}

CMSampleBufferRef AACAudioSampleGenerator::CreateSample(const unsigned char* packet, unsigned int length,
                                                        unsigned long long timestamp) {
  if (timestamp < mLastTimestamp) {
    printToError(LogLevel::kWarning, "[WARNING]: Dropping out of order audio packet [pts = %llu, last = %llu]\n",
                 timestamp, static_cast<unsigned long long>(mLastTimestamp));
    return nullptr;
  }
  if (timestamp > kLatestTimestamp || !mPacketDuration.valid) return nullptr;
  mLastTimestamp = timestamp;

  const bool isEmpty = !packet || length == 0;
  const uint32_t silence = isEmpty ? 0 : silencePackets(timestamp);
  auto sample = isEmpty ? nullptr : makeSample(silence, {1, length, packet});
  if (sample && mIsFirstSample) {
    sample->attachments().trimDurationAtStart = mPacketDuration;
    mIsFirstSample = false;
  }
  const auto packets = static_cast<int32_t>(silence + 1);
  mNextPresentationTime = CMTimeAdd(mNextPresentationTime, CMTimeMultiply(mPacketDuration, packets));
  return sample;
}

uint32_t AACAudioSampleGenerator::silencePackets(uint64_t timestamp) {
  const CMTime next = CMTimeConvertScale(mNextPresentationTime, kMicroseconds,
                                         CMTimeRoundingMethod::kCMTimeRoundingMethod_RoundTowardZero);
  const auto nextTime = static_cast<uint64_t>(next.value);
  const uint64_t duration =
      soundDuration(mStreamDescription->mFramesPerPacket, static_cast<uint32_t>(mPacketDuration.timescale));
  if (duration == 0 || timestamp <= nextTime + 2 * duration) return 0;

  const uint64_t gap = timestamp - nextTime;
  if (gap > kLongestSilence || gap / duration >= std::numeric_limits<int32_t>::max()) {
    reportOpenGap(gap);
    mNextPresentationTime =
        CMTimeConvertScale(CMTimeMake(static_cast<int64_t>(timestamp), kMicroseconds), mPacketDuration.timescale);
    return 0;
  }
  auto packets = static_cast<uint32_t>(gap / duration);
  if (packets > kMostSilentPackets)
    packets = static_cast<uint32_t>(framesIn(gap, static_cast<uint32_t>(mPacketDuration.timescale)) / kFramesPerPacket);
  printToError("[WARNING]: Inserting %d silence packets\n", static_cast<int>(packets));
  return packets;
}

CMSampleBufferRef AACAudioSampleGenerator::makeSample(uint32_t silence, const AudioBuffer& packet) const {
  if (silence == 0 || silence > kMostSilentPackets) {
    const auto description = describePacket(0, packet.mDataByteSize);
    auto sample = CreateSampleBufferFromBufferList({&packet, 1}, {&description, 1}, mNextPresentationTime);
    if (sample) {
      sample->attachments().insertedSilence = silence;
      sample->attachments().isSilenceLeftOut = silence > 0;
    }
    return sample;
  }
  try {
    std::vector<AudioBuffer> buffers(silence, kSilenceBuffer);
    std::vector<AudioStreamPacketDescription> descriptions;
    descriptions.reserve(silence + 1);
    int64_t offset = 0;
    for (uint32_t index = 0; index < silence; ++index, offset += sizeof kSilencePacket)
      descriptions.push_back(describePacket(offset, sizeof kSilencePacket));
    buffers.push_back(packet);
    descriptions.push_back(describePacket(offset, packet.mDataByteSize));
    auto sample = CreateSampleBufferFromBufferList(buffers, descriptions, mNextPresentationTime);
    if (sample) sample->attachments().insertedSilence = silence;
    return sample;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

CMSampleBufferRef AACAudioSampleGenerator::CreateSampleBufferFromBufferList(
    std::span<const AudioBuffer> buffers, std::span<const AudioStreamPacketDescription> descriptions,
    const CMTime& start) const {
  if (buffers.empty() || buffers.size() != descriptions.size()) return nullptr;
  size_t total = 0;
  for (const AudioBuffer& buffer : buffers) total += buffer.mDataByteSize;
  auto block = CMBlockBuffer::create(total);
  if (!block) return nullptr;
  size_t offset = 0;
  for (const AudioBuffer& buffer : buffers) {
    block->replaceDataBytes({static_cast<const uint8_t*>(buffer.mData), buffer.mDataByteSize}, offset);
    offset += buffer.mDataByteSize;
  }
  return CMSampleBuffer::createAudioWithPacketDescriptions(std::move(block), mFormat,
                                                           static_cast<uint32_t>(buffers.size()), start, descriptions);
}

}  // namespace vesk
