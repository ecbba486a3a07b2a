#include <vesk/printable_text.h>

#include <cstddef>
#include <cstdint>

namespace vesk {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

struct Character {
  uint32_t code = 0;
  size_t length = 0;  ///< in bytes; 0: the text does not begin with a character
};

/// The character that `text` begins with: no overlong form, no surrogate, nothing above U+10FFFF.
Character firstCharacter(std::string_view text) {
  const auto byte = [text](size_t index) { return static_cast<uint8_t>(text[index]); };
  const uint8_t lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
  uint32_t code = lead & (0xFFU >> (length + 1));
  for (size_t index = 1; index < length; ++index) {
    if ((byte(index) & 0xC0U) != 0x80) return {};
    code = code << 6 | (byte(index) & 0x3FU);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return {};
  return {code, length};
}

/// Breaks that a terminal or a log viewer shows as a new line or column.
bool isBreak(uint32_t code) {
  return (code >= 0x09 && code <= 0x0D) || code == 0x85 || code == 0x2028 || code == 0x2029;
}

bool isControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

bool isDirection(uint32_t code) {
  return code == 0x061C || code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string printableText(std::string_view text) {
  std::string printable;
  printable.reserve(text.size());
  while (!text.empty()) {
    const Character character = firstCharacter(text);
    if (character.length == 0) {
      printable += kReplacement;
      text.remove_prefix(1);
      continue;
    }
    if (isBreak(character.code))
      printable += ' ';
    else if (isControl(character.code) || isDirection(character.code))
      printable += kReplacement;
    else
      printable += text.substr(0, character.length);
    text.remove_prefix(character.length);
  }
  return printable;
}

}  // namespace vesk
