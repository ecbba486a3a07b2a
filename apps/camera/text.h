#pragma once

#include <fmt/core.h>
#include <glib/gi18n.h>

#include <string>
#include <utility>
#include <vector>

#include <vesk/error.h>

namespace vesk::camera {

// Texts for people: _("…") translates what stands there as it is; these make lines of values.

/// A translated text with values in its places.
template <class... Values>
std::string filled(const char* text, Values&&... values) {
  return fmt::format(fmt::runtime(text), std::forward<Values>(values)...);
}

/// What failed and what to do about it, as sentences.
std::string sentences(const Error& error);
/// "viewer, recorder"; the number of one without a name.
std::string namesOf(const std::vector<RunningProgram>& programs);
/// "1:02:03", "12:03".
std::string timeText(double seconds);
/// "14 MB".
std::string sizeText(uint64_t bytes);
/// "52 minutes left", "3 hours left".
std::string timeLeftText(double seconds);

}  // namespace vesk::camera
