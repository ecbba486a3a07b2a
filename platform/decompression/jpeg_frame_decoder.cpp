#include "platform/decompression/jpeg_frame_decoder.h"

#include <utility>

#include <vesk/four_char_code.h>
#include "platform/decompression/picture_limits.h"
#include "platform/decompression/picture_memory.h"

namespace vesk {
namespace {

constexpr YCbCrColour kJPEGColour{YCbCrColour::Matrix::kBT601, true};
/// A picture in several passes is held in memory as coefficients, six bytes a pixel.
constexpr uint64_t kMostPixelsProgressive = uint64_t{1} << 23;

}  // namespace

std::unique_ptr<FrameDecoder> JPEGFrameDecoder::create(const ImageDescription& description) {
  const auto tables = description.extension(fourCharCode("mjht"));
  return std::make_unique<JPEGFrameDecoder>(tables ? readHuffmanTables(*tables) : std::vector<HuffmanTable>{},
                                            mostPixelsFor(description));
}

OSStatus JPEGFrameDecoder::decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) {
  OSStatus status = mReader.readHeader(data);
  if (status != noErr) return status;
  if (isTooLarge()) {
    mReader.abandon();
    return codecBadDataErr;
  }
  CVImageBufferRef picture;
  status = readPicture(picture);
  if (status != noErr) return status;
  pictures.push_back({std::move(picture), frame});
  return noErr;
}

bool JPEGFrameDecoder::isTooLarge() {
  return !isDecodableSize(mReader.width(), mReader.height(),
                          mReader.isProgressive() ? kMostPixelsProgressive : mMostPixels);
}

OSStatus JPEGFrameDecoder::readPicture(CVImageBufferRef& picture) {
  const auto planar = mReader.planarFormat();
  const auto width = static_cast<int32_t>(mReader.width());
  const auto height = static_cast<int32_t>(mReader.height());
  PictureMemory memory(planar ? mReader.planeSizes()
                              : PictureMemory::Sizes{{{size_t{mReader.width()} * 4, mReader.height()}}});
  if (!memory) {
    mReader.abandon();
    return memFullErr;
  }
  const OSStatus status = planar ? mReader.readPlanes(memory) : mReader.readRGBA(memory);
  if (status != noErr) return status;
  picture = memory.makePicture(width, height, planar.value_or(kCVPixelFormat_32RGBA), kJPEGColour);
  return picture ? noErr : memFullErr;
}

}  // namespace vesk
