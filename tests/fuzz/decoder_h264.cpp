#include <vesk/four_char_code.h>
#include "tests/fuzz/decoder_frames.h"

/// H.264 frames of any bytes are decoded, concealed or refused.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vesk::fuzz::decodeFrames(176, 144, vesk::kCMVideoCodecType_H264, {data, size});
  return 0;
}
