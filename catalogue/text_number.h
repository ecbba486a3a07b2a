#pragma once

#include <cstdint>
#include <string_view>

#include <vesk/export.h>

/// How texts become numbers here: leniently, a text that is no number being 0 or false.

namespace vesk {

/// Skips white space, takes a sign and the decimal digits up to the first other character; 0 without
/// digits. What does not fit becomes the nearest number that does.
VESK_LOCAL int32_t intValue(std::string_view text);

/// True when, after white space, a sign and zeros, the text begins with Y, y, T, t or a digit from 1 to 9.
VESK_LOCAL bool boolValue(std::string_view text);

/// Skips white space, takes a sign, "0x" and the hexadecimal digits up to the first other character; 0
/// without digits. The 32 bits are taken as they are: FFFFFFFF is -1, and so is what does not fit.
VESK_LOCAL int32_t hexadecimalValue(std::string_view text);

/// The text without the white space and line ends (Unicode's) at both of its ends.
VESK_LOCAL std::string_view trimmed(std::string_view text);

}  // namespace vesk
