/// Decodes Motion JPEG from a file that `decode_bench --dump` made, for counting instructions:
///
///   decode_count_bench ours|bare WIDTH HEIGHT FRAMES PICTURES
///
/// It has no libavcodec, which valgrind cannot run on every processor: the table of codecs below takes
/// the place of the library's own and knows Motion JPEG only. All else is what a preview runs.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/icm_decoder.h>
#include "bench/bare_jpeg.h"
#include "bench/frame_file.h"
#include "platform/decompression/codec_info.h"
#include "platform/decompression/frame_decoder.h"
#include "platform/decompression/jpeg_frame_decoder.h"

namespace vesk {

std::unique_ptr<FrameDecoder> makeFrameDecoder(const ImageDescription& description) {
  return JPEGFrameDecoder::create(description);
}

OSStatus GetCodecInfo(CodecInfo* info, uint32_t /*codec*/) {
  *info = {};
  return noErr;
}

}  // namespace vesk

namespace {

using Bytes = std::vector<uint8_t>;

struct Counter : vesk::DecoderProtocol {
  void displayData(vesk::CVImageBufferRef /*image*/) override { ++count; }
  size_t count = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const auto frames = readFrames(argv[4]);
  const auto pictures = static_cast<size_t>(std::atoi(argv[5]));
  if (frames.empty()) return 2;
  if (std::strcmp(argv[1], "bare") == 0) {
    BareJPEG decoder;
    for (size_t i = 0; i < pictures; ++i) decoder.decode(frames[i % frames.size()]);
    return 0;
  }
  Counter counter;
  const auto decoder =
      vesk::ICMDecoder::initWithWidth(static_cast<uint32_t>(std::atoi(argv[2])),
                                      static_cast<uint32_t>(std::atoi(argv[3])), vesk::kCMVideoCodecType_MotionJPEG);
  decoder->setDelegate(&counter);
  for (size_t i = 0; i < pictures; ++i) {
    const Bytes& frame = frames[i % frames.size()];
    decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), 0);
  }
  return counter.count == pictures ? 0 : 1;
}
