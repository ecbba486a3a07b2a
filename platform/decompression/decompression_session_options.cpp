#include "platform/decompression/decompression_session_options.h"

#include <cstring>
#include <new>

namespace vesk {

std::unique_ptr<ICMDecompressionSessionOptions> ICMDecompressionSessionOptions::create() {
  return std::unique_ptr<ICMDecompressionSessionOptions>(new (std::nothrow) ICMDecompressionSessionOptions());
}

OSStatus ICMDecompressionSessionOptions::setProperty(uint32_t propertyClass, uint32_t property,
                                                     std::span<const std::byte> value) {
  if (propertyClass != kQTPropertyClass_ICMDecompressionSessionOptions ||
      property != kICMDecompressionSessionOptionsPropertyID_Accuracy)
    return kICMPropertyNotFoundErr;
  if (value.size() != sizeof mAccuracy) return paramErr;
  std::memcpy(&mAccuracy, value.data(), sizeof mAccuracy);
  return noErr;
}

}  // namespace vesk
