#include "tests/unit/writing/movie_samples.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tests/support/h264_stream.h"

namespace vesk::test {
namespace {

std::vector<uint8_t> decoderConfiguration(const std::vector<uint8_t>& sps, const std::vector<uint8_t>& pps) {
  std::vector<uint8_t> record{1, sps[1], sps[2], sps[3], 0xFF, 0xE1, 0, static_cast<uint8_t>(sps.size())};
  record.insert(record.end(), sps.begin(), sps.end());
  record.insert(record.end(), {1, 0, static_cast<uint8_t>(pps.size())});
  record.insert(record.end(), pps.begin(), pps.end());
  return record;
}

H264Clip loadClip() {
  H264Clip clip;
  const auto pictures = accessUnitsOf("SVA_Base_B.264");
  for (const AccessUnit& picture : pictures) clip.pictures.push_back(picture.slices);
  const auto units = unitsOf(pictures.front().stream);  // a parameter set of each kind, and the first picture
  VideoFormatExtensions extensions;
  extensions.sampleDescriptionExtensionAtoms["avcC"] = decoderConfiguration(units.at(0), units.at(1));
  clip.format = CMVideoFormatDescription::create(kCMVideoCodecType_H264, 176, 144, extensions);
  return clip;
}

CMBlockBufferRef blockOf(std::span<const uint8_t> bytes, SampleArena* arena = nullptr) {
  if (arena) arena->room(bytes.size());
  auto block = arena ? arena->take(bytes.size()) : CMBlockBuffer::create(bytes.size());
  block->replaceDataBytes(bytes, 0);
  return block;
}

}  // namespace

const H264Clip& H264Clip::shared() {
  static const H264Clip clip = loadClip();
  return clip;
}

CMTime microseconds(int64_t value) {
  return CMTimeMake(value, 1'000'000);
}

CMSampleBufferRef h264Sample(size_t number, int64_t time, int64_t duration) {
  const H264Clip& clip = H264Clip::shared();
  const auto& picture = clip.pictures[number % clip.pictures.size()];
  const bool isKey = number % clip.pictures.size() == 0;
  auto sample = CMSampleBuffer::create(blockOf(picture), clip.format, {microseconds(duration), microseconds(time), {}},
                                       picture.size());
  sample->sampleAttachments().addValue(kCMSampleAttachmentKey_DependsOnOthers, !isKey);
  if (!isKey) sample->sampleAttachments().addValue(kCMSampleAttachmentKey_NotSync, true);
  sample->sampleAttachments().addValue(kCMSampleAttachmentKey_DoNotDisplay, true);
  return sample;
}

CMVideoFormatDescriptionRef packedFormat(int width, int height) {
  return CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, width, height, {{}, width * 2});
}

CMSampleBufferRef packedSample(const CMVideoFormatDescriptionRef& format, uint8_t luma, int64_t time,
                               int64_t duration) {
  const auto size = format->dimensions();
  auto image = CVPixelBuffer::create(size.width, size.height, kCMPixelFormat_422YpCbCr8);
  auto data = image->data();
  for (size_t i = 0; i < data.size(); i += 2) {
    data[i] = 128;
    data[i + 1] = luma;
  }
  return CMSampleBuffer::createForImageBuffer(image, format, {microseconds(duration), microseconds(time), {}});
}

CMSampleBufferRef packedSampleIn(SampleArena& arena, const CMVideoFormatDescriptionRef& format, uint8_t luma,
                                 int64_t time) {
  const auto sample = packedSample(format, luma, time);
  const auto data = sample->data();
  return CMSampleBuffer::create(blockOf(data, &arena), format, {microseconds(30'000), microseconds(time), {}},
                                data.size());
}

CMAudioFormatDescriptionRef pcmFormat(double rate, uint32_t channels, uint32_t bits) {
  AudioStreamBasicDescription sound{.mSampleRate = rate,
                                    .mFormatID = kAudioFormatLinearPCM,
                                    .mFormatFlags = 12,
                                    .mFramesPerPacket = 1,
                                    .mChannelsPerFrame = channels,
                                    .mBitsPerChannel = bits};
  sound.mBytesPerFrame = sound.mBytesPerPacket = channels * bits / 8;
  return CMAudioFormatDescription::create(sound);
}

CMSampleBufferRef pcmSample(const CMAudioFormatDescriptionRef& format, uint32_t frames, int64_t time, uint32_t first,
                            uint32_t silence, SampleArena* arena) {
  const auto& sound = format->streamBasicDescription();
  std::vector<uint8_t> bytes(size_t{frames + silence} * sound.mBytesPerFrame);
  const uint32_t bytesPerValue = sound.mBitsPerChannel / 8;
  for (uint32_t frame = 0; frame < frames; ++frame) {
    for (uint32_t channel = 0; channel < sound.mChannelsPerFrame; ++channel) {
      const uint32_t value = first + frame;
      std::memcpy(bytes.data() + (silence + frame) * sound.mBytesPerFrame + channel * bytesPerValue, &value, 2);
    }
  }
  auto sample = CMSampleBuffer::createAudioWithPacketDescriptions(blockOf(bytes, arena), format, frames + silence,
                                                                  microseconds(time), {});
  sample->attachments().insertedSilence = silence;
  return sample;
}

CMAudioFormatDescriptionRef aacFormat(double rate, uint32_t channels) {
  AudioStreamBasicDescription sound{
      .mSampleRate = rate, .mFormatID = kAudioFormatMPEG4AAC, .mChannelsPerFrame = channels};
  AudioFormatCompleteDescription(sound);
  return CMAudioFormatDescription::create(sound);
}

CMSampleBufferRef aacSample(const CMAudioFormatDescriptionRef& format, uint32_t packets, int64_t timeInFrames,
                            bool isFirst) {
  static constexpr uint8_t kSilentPacket[] = {0x00, 0xD0, 0x00, 0x07};
  std::vector<uint8_t> bytes;
  std::vector<AudioStreamPacketDescription> descriptions;
  for (uint32_t i = 0; i < packets; ++i) {
    descriptions.push_back({static_cast<int64_t>(bytes.size()), 0, sizeof kSilentPacket});
    bytes.insert(bytes.end(), std::begin(kSilentPacket), std::end(kSilentPacket));
  }
  const auto rate = static_cast<int32_t>(format->streamBasicDescription().mSampleRate);
  auto sample = CMSampleBuffer::createAudioWithPacketDescriptions(blockOf(bytes), format, packets,
                                                                  CMTimeMake(timeInFrames, rate), descriptions);
  if (isFirst) sample->attachments().trimDurationAtStart = CMTimeMake(1024, rate);
  return sample;
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<uint8_t> readFileEnd(const std::string& path, size_t count) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<size_t>(file.tellg());
  file.seekg(static_cast<std::streamoff>(size - std::min(size, count)));
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace vesk::test
