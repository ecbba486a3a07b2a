#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <vesk/four_char_code.h>
#include "platform/decompression/status.h"

namespace vesk {

constexpr uint32_t kQTPropertyClass_ICMDecompressionSessionOptions = fourCharCode("idso");
/// A quality, 32 bits in the machine's byte order.
constexpr uint32_t kICMDecompressionSessionOptionsPropertyID_Accuracy = fourCharCode("acur");
constexpr uint32_t codecNormalQuality = 0x200;

/// How a session is to decode.
class ICMDecompressionSessionOptions {
 public:
  /// Options with the defaults; null when there is no memory.
  static std::unique_ptr<ICMDecompressionSessionOptions> create();

  /// Sets a property.
  /// @return kICMPropertyNotFoundErr for one that is not known; paramErr for a wrong size.
  OSStatus setProperty(uint32_t propertyClass, uint32_t property, std::span<const std::byte> value);

  /// Asked for by the host. Every decoder here is exact, so it changes nothing.
  uint32_t accuracy() const { return mAccuracy; }

 private:
  uint32_t mAccuracy = codecNormalQuality;
};

}  // namespace vesk
