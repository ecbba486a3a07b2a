#pragma once

#include <string>
#include <string_view>

#include <vesk/export.h>

namespace vesk {

/// Text from outside (names of devices, files and processes, messages of other libraries) as a terminal
/// may be given it: one line of valid UTF-8 that neither commands the terminal nor turns its direction.
/// Line breaks and tabs become spaces; other control characters, direction characters (U+061C, U+200E,
/// U+200F, U+202A to U+202E, U+2066 to U+2069) and bytes that are not UTF-8 become U+FFFD each.
/// For people only: a program is given the text as it is.
VESK_EXPORT std::string printableText(std::string_view text);

}  // namespace vesk
