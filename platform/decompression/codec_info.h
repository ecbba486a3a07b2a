#pragma once

#include <cstdint>

#include "platform/decompression/image_description.h"
#include "platform/decompression/status.h"

namespace vesk {

/// Who decodes a kind of picture.
struct CodecInfo {
  ImageDescription::Name typeName{};  ///< a count and as many characters
  uint16_t version = 0;
  uint16_t revisionLevel = 0;
  uint32_t vendor = 0;  ///< four-character code
};

/// Fills in `info` for a four-character code.
/// @return noCodecErr, with `info` cleared, when nothing here decodes it.
OSStatus GetCodecInfo(CodecInfo* info, uint32_t codec);

}  // namespace vesk
