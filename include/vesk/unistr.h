#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <vesk/export.h>

/// Zero-terminated UTF-16 strings, in which the capture interface names devices: units in native
/// byte order, ended by the unit 0. Lengths count units without the terminator.
///
/// A Core Foundation string is a std::u16string here, so that every unit goes in and comes out as
/// it is, unpaired surrogates included. Nobody but the conversions to and from UTF-8 looks at pairs.

namespace vesk {

/// Units before the terminator; 0 for no string.
VESK_EXPORT uint32_t unistr_length(const char16_t* string);

/// Copies as much of `source` as fits into `capacity` units, terminator included.
/// @return the terminator written; null, and nothing written, when `capacity` is 0 or an argument is absent.
VESK_EXPORT char16_t* unistr_copy(char16_t* destination, const char16_t* source, uint32_t capacity);

/// Whether both strings hold the same units. An absent argument is a programming error that stops
/// the process.
VESK_EXPORT bool unistr_equal(const char16_t* str1, const char16_t* str2);

/// Copies the whole string and a terminator; `destination` holds at least string.size() + 1 units.
VESK_EXPORT void unistr_copyFromCFString(char16_t* destination, const std::u16string& string);

/// A new string of the units before the terminator; empty for no string.
VESK_EXPORT std::u16string unistr_createCFString(const char16_t* string);

/// Writes the string as UTF-8 with a terminating 0 into `capacity` bytes; unpaired surrogates become
/// U+FFFD. Text that does not fit leaves an empty string: half a path is worse than none. A
/// capacity of 0 writes nothing.
VESK_EXPORT void unistr_toUTF8(const char16_t* string, char* destination, uint32_t capacity);

/// Writes the text as UTF-16 with a terminator into `destination`, which holds at least one unit
/// for each of its bytes and one more. Bytes that are not UTF-8 leave an empty string.
VESK_EXPORT void unistr_fromUTF8(const char* utf8, char16_t* destination);

// The same for callers that know their bounds.

/// The units of a fixed field up to its terminator, or all of them when it has none.
VESK_EXPORT std::u16string_view unistr_view(std::span<const char16_t> field);

/// The text as UTF-8; unpaired surrogates become U+FFFD.
VESK_EXPORT std::string unistr_createUTF8(std::u16string_view units);

/// The text as UTF-16; none when it is not UTF-8 or holds a 0, which would end the string early.
VESK_EXPORT std::optional<std::u16string> unistr_createFromUTF8(std::string_view utf8);

}  // namespace vesk
