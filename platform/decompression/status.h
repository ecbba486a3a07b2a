#pragma once

#include <cstdint>

namespace vesk {

/// What a platform operation answers: 0, or a negative number that says what failed.
using OSStatus = int32_t;

constexpr OSStatus noErr = 0;
constexpr OSStatus paramErr = -50;           ///< an argument makes no sense
constexpr OSStatus memFullErr = -108;        ///< no memory
constexpr OSStatus codecErr = -8960;         ///< a codec failed for another reason than its input
constexpr OSStatus noCodecErr = -8961;       ///< no decoder for this code
constexpr OSStatus codecUnimpErr = -8962;    ///< a kind of picture that is not supported
constexpr OSStatus codecBadDataErr = -8969;  ///< damaged or cut off
constexpr OSStatus kICMPropertyNotFoundErr = -2195;

}  // namespace vesk
