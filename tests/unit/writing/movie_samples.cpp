#include "tests/unit/writing/movie_samples.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/foundation/byte_reader.h"

namespace vesk::test {
namespace {

std::vector<std::vector<uint8_t>> unitsOf(const std::vector<uint8_t>& stream) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 4 <= stream.size(); ++i) {
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 0 && stream[i + 3] == 1) starts.push_back(i + 4);
  }
  std::vector<std::vector<uint8_t>> units;
  for (size_t i = 0; i < starts.size(); ++i) {
    const size_t end = i + 1 < starts.size() ? starts[i + 1] - 4 : stream.size();
    units.emplace_back(stream.begin() + static_cast<ptrdiff_t>(starts[i]),
                       stream.begin() + static_cast<ptrdiff_t>(end));
  }
  return units;
}

std::vector<uint8_t> decoderConfiguration(const std::vector<uint8_t>& sps, const std::vector<uint8_t>& pps) {
  std::vector<uint8_t> record{1, sps[1], sps[2], sps[3], 0xFF, 0xE1, 0, static_cast<uint8_t>(sps.size())};
  record.insert(record.end(), sps.begin(), sps.end());
  record.insert(record.end(), {1, 0, static_cast<uint8_t>(pps.size())});
  record.insert(record.end(), pps.begin(), pps.end());
  return record;
}

H264Clip loadClip() {
  H264Clip clip;
  std::vector<uint8_t> sps;
  std::vector<uint8_t> pps;
  for (const auto& unit : unitsOf(readFile(VESK_TEST_DATA "/SVA_Base_B.264"))) {
    const int type = unit[0] & 0x1F;
    if (type == 7) sps = unit;
    if (type == 8) pps = unit;
    if (type != 1 && type != 5) continue;
    if (unit[1] & 0x80) clip.pictures.emplace_back();  // the first slice of its picture
    uint8_t length[4];
    writeBigEndian32(length, static_cast<uint32_t>(unit.size()));
    clip.pictures.back().insert(clip.pictures.back().end(), length, length + 4);
    clip.pictures.back().insert(clip.pictures.back().end(), unit.begin(), unit.end());
  }
  VideoFormatExtensions extensions;
  extensions.sampleDescriptionExtensionAtoms["avcC"] = decoderConfiguration(sps, pps);
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
