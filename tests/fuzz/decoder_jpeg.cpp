#include <vesk/four_char_code.h>
#include "platform/decompression/decompression_session.h"
#include "tests/fuzz/decoder_frames.h"

/// Motion JPEG of any bytes is decoded or refused, and so are tables of any bytes in a description.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vesk;
  fuzz::decodeFrames(64, 48, kCMVideoCodecType_MotionJPEG, {data, size});

  ByteReader input({data, size});
  const auto length = input.u16();
  if (!length) return 0;
  const auto tables = *input.take(std::min<size_t>(*length, input.remaining()));
  ImageDescription description;
  description.set(ImageDescription::kCType, kCMVideoCodecType_MotionJPEG);
  description.set(ImageDescription::kWidth, uint16_t{64});
  description.set(ImageDescription::kHeight, uint16_t{48});
  AddImageDescriptionExtension(description, PtrToHand(tables), fourCharCode("mjht"));
  ICMDecompressionSessionRef session;
  ICMDecompressionSession::create(description, nullptr, {}, {}, &session);
  const auto rest = *input.take(input.remaining());
  ICMFrameTimeRecord time;
  time.recordSize = sizeof time;
  if (session) session->decodeFrame(rest, time, nullptr);
  return 0;
}
