#include <vesk/sample_generators.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include <vesk/four_char_code.h>

namespace vesk {
namespace {

/// Black in video range: both colour differences in the middle, brightness at its least.
constexpr uint8_t kBlack[2] = {0x80, 0x10};

/// Copies a picture as one block (rows lie width × 2 bytes apart on both sides) and blackens the rest.
void fillPicture(std::span<uint8_t> picture, std::span<const uint8_t> frame) {
  const size_t size = std::min(picture.size(), frame.size());
  if (size != 0) std::memcpy(picture.data(), frame.data(), size);
  for (size_t index = size; index < picture.size(); ++index) picture[index] = kBlack[index % 2];
}

}  // namespace

UncompressedSampleGenerator::UncompressedSampleGenerator(int width, int height, int frameRate, FrameTiming timing)
    : VideoSampleGenerator(width, height, frameRate, timing) {
  VideoFormatExtensions extensions;
  if (width <= std::numeric_limits<int32_t>::max() / 2) extensions.bytesPerRow = width * 2;
  mFormat = CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, width, height, std::move(extensions));
}

CMSampleBufferRef UncompressedSampleGenerator::CreateVideoSampleBuffer(const unsigned char* buffer,
                                                                       unsigned long length,
                                                                       const CMSampleTimingInfo& timing) {
  if (length == 0) return nullptr;
  auto picture = CVPixelBuffer::create(mWidth, mHeight, kCMPixelFormat_422YpCbCr8);
  if (!picture) return nullptr;
  fillPicture(picture->data(), {buffer, length});

  auto sample = CMSampleBuffer::createForImageBuffer(std::move(picture), mFormat, timing);
  if (!sample) return nullptr;
  sample->sampleAttachments().addValue(kCMSampleAttachmentKey_DependsOnOthers, false);
  sample->sampleAttachments().addValue(kCMSampleAttachmentKey_EarlierDisplayTimesAllowed, false);
  return sample;
}

}  // namespace vesk
