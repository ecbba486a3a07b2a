#pragma once

#include <cstdint>

struct AVCodec;

namespace vesk {

/// A four-character code as libavcodec writes its codec tags: the first character lowest.
constexpr uint32_t avCodecTag(uint32_t code) {
  return (code >> 24) | (code >> 8 & 0xFF00) | (code << 8 & 0xFF0000) | (code << 24);
}

/// libavcodec's software decoder for a four-character code, as movies and AVI files use them; null
/// when there is none.
const AVCodec* findAVDecoder(uint32_t code);

/// The name of what findAVDecoder finds; null when it finds nothing.
const char* avCodecName(uint32_t code);

}  // namespace vesk
