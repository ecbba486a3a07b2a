// Which codes are decoded by what.

#include <algorithm>
#include <cstring>

#include <vesk/four_char_code.h>
#include "platform/decompression/av_codec_lookup.h"
#include "platform/decompression/av_frame_decoder.h"
#include "platform/decompression/codec_info.h"
#include "platform/decompression/frame_decoder.h"
#include "platform/decompression/jpeg_frame_decoder.h"
#include "platform/decompression/packed_frame_decoder.h"

namespace vesk {
namespace {

struct Codec {
  uint32_t code;
  const char* name;
  std::unique_ptr<FrameDecoder> (*make)(const ImageDescription& description);
};

constexpr Codec kCodecs[] = {
    {kCMVideoCodecType_H264, "H.264", AVFrameDecoder::create},
    {kCMVideoCodecType_MotionJPEG, "Motion JPEG", JPEGFrameDecoder::create},
    {kCMPixelFormat_422YpCbCr8, "Component Video", PackedFrameDecoder::create},
};

const Codec* ownCodec(uint32_t code) {
  const auto* const found =
      std::find_if(std::begin(kCodecs), std::end(kCodecs), [code](const Codec& codec) { return codec.code == code; });
  return found == std::end(kCodecs) ? nullptr : found;
}

ImageDescription::Name countedName(const char* text) {
  ImageDescription::Name name{};
  const size_t length = std::min(std::strlen(text), name.size() - 1);
  name[0] = static_cast<uint8_t>(length);
  std::copy_n(text, length, name.begin() + 1);
  return name;
}

/// What stands in a description for the codec; null for a code that nothing here decodes.
const char* nameOf(uint32_t code) {
  const Codec* const codec = ownCodec(code);
  return codec ? codec->name : avCodecName(code);
}

}  // namespace

std::unique_ptr<FrameDecoder> makeFrameDecoder(const ImageDescription& description) {
  const Codec* const codec = ownCodec(description.get(ImageDescription::kCType));
  return codec ? codec->make(description) : AVFrameDecoder::create(description);
}

OSStatus GetCodecInfo(CodecInfo* info, uint32_t codec) {
  if (!info) return paramErr;
  *info = {};
  const char* const name = nameOf(codec);
  if (!name) return noCodecErr;
  info->typeName = countedName(name);
  info->version = 1;
  info->revisionLevel = 1;
  info->vendor = fourCharCode("vesk");
  return noErr;
}

}  // namespace vesk
