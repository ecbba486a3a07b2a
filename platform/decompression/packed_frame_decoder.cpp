#include "platform/decompression/packed_frame_decoder.h"

#include <cstring>

#include <vesk/four_char_code.h>
#include "platform/decompression/described_colour.h"

namespace vesk {

std::unique_ptr<FrameDecoder> PackedFrameDecoder::create(const ImageDescription& description) {
  const int32_t width = description.get(ImageDescription::kWidth);
  const int32_t height = description.get(ImageDescription::kHeight);
  if (width % 2 != 0) return nullptr;
  return std::make_unique<PackedFrameDecoder>(width, height, describedColour(description));
}

OSStatus PackedFrameDecoder::decode(std::span<const uint8_t> data, int64_t frame,
                                    std::vector<DecodedPicture>& pictures) {
  if (data.size() != static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight) * 2) return codecBadDataErr;
  const auto picture = CVPixelBuffer::create(mWidth, mHeight, kCMPixelFormat_422YpCbCr8);
  if (!picture) return memFullErr;
  std::memcpy(picture->data().data(), data.data(), data.size());
  picture->setColour(mColour);
  pictures.push_back({picture, frame});
  return noErr;
}

}  // namespace vesk
