#include <vesk/four_char_code.h>
#include "tests/fuzz/decoder_frames.h"

/// Packed frames of any length, for pictures of any size. An odd first byte means YUYV, which takes
/// the way of the codes that are not known here.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vesk;
  if (size < 5) return 0;
  const uint32_t width = uint32_t{data[1]} << 8 | data[2];
  const uint32_t height = uint32_t{data[3]} << 8 | data[4];
  const uint32_t codec = data[0] % 2 == 0 ? kCMPixelFormat_422YpCbCr8 : fourCharCode("yuvs");
  fuzz::decodeFrames(width, height, codec, {data + 5, size - 5});
  return 0;
}
