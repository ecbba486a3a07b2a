#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vesk::capture {

/// UTF-8 as UTF-16; each byte that belongs to no character becomes U+FFFD.
std::u16string toUtf16(std::string_view text);

/// A source's path as the records hold it: UTF-8 as UTF-16, each byte that belongs to no character as
/// the lone surrogate 0xDC00 + byte, so that two paths never become one; cut to a record's field.
std::u16string recordPath(std::string_view path);

/// The same path as devices and hosts show it: UTF-8, what has no place in it as U+FFFD.
std::string shownPath(std::string_view path);

/// Copies text into a record's field and terminates it. Text that is too long is cut before the
/// character that does not fit whole; what is left of the field becomes zero.
void copyText(std::u16string_view text, std::span<char16_t> field);

/// The text at `text`, at most `limit` units with its terminator; none when it is not terminated
/// within them, or null.
std::optional<std::u16string_view> readText(const char16_t* text, size_t limit);

}  // namespace vesk::capture
