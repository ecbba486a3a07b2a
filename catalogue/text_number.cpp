#include "catalogue/text_number.h"

#include <algorithm>
#include <limits>

namespace vesk {
namespace {

bool isSpace(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

void skipSpace(std::string_view& text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
}

/// Takes a sign. @return whether it was a minus.
bool takeSign(std::string_view& text) {
  if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
  const bool isMinus = text.front() == '-';
  text.remove_prefix(1);
  return isMinus;
}

/// 0 to 15; -1 for anything else.
int hexadecimalDigit(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

/// How many bytes of white space beyond ASCII `bytes` begins with; 0 when it does not. All such
/// characters take two or three bytes in UTF-8.
size_t wideSpaceAtFront(std::string_view bytes) {
  constexpr std::string_view kTwo[] = {"\xC2\x85", "\xC2\xA0"};
  for (const std::string_view space : kTwo)
    if (bytes.substr(0, 2) == space) return 2;
  const std::string_view three = bytes.substr(0, 3);
  if (three.size() < 3) return 0;
  if (three == "\xE1\x9A\x80" || three == "\xE2\x81\x9F" || three == "\xE3\x80\x80") return 3;  // U+1680, 205F, 3000
  if (three.substr(0, 2) != "\xE2\x80") return 0;
  const auto last = static_cast<uint8_t>(three[2]);
  const bool isSpace = (last >= 0x80 && last <= 0x8A) || last == 0xA8 || last == 0xA9 || last == 0xAF;
  return isSpace ? 3 : 0;  // U+2000 to 200A, 2028, 2029, 202F
}

size_t spaceAtFront(std::string_view text) {
  if (text.empty()) return 0;
  if (static_cast<uint8_t>(text.front()) < 0x80) return isSpace(text.front()) ? 1 : 0;
  return wideSpaceAtFront(text);
}

size_t spaceAtBack(std::string_view text) {
  if (text.empty()) return 0;
  if (static_cast<uint8_t>(text.back()) < 0x80) return isSpace(text.back()) ? 1 : 0;
  for (const size_t size : {size_t{2}, size_t{3}})
    if (text.size() >= size && wideSpaceAtFront(text.substr(text.size() - size)) == size) return size;
  return 0;
}

}  // namespace

int32_t intValue(std::string_view text) {
  constexpr int64_t kLargest = std::numeric_limits<int32_t>::max();
  skipSpace(text);
  const bool isMinus = takeSign(text);
  int64_t value = 0;
  for (const char digit : text) {
    if (digit < '0' || digit > '9') break;
    value = std::min(value * 10 + (digit - '0'), kLargest + 1);
  }
  return static_cast<int32_t>(isMinus ? -value : std::min(value, kLargest));
}

bool boolValue(std::string_view text) {
  skipSpace(text);
  takeSign(text);
  while (!text.empty() && text.front() == '0') text.remove_prefix(1);
  if (text.empty()) return false;
  const char first = text.front();
  return first == 'Y' || first == 'y' || first == 'T' || first == 't' || (first >= '1' && first <= '9');
}

int32_t hexadecimalValue(std::string_view text) {
  constexpr uint64_t kLargest = std::numeric_limits<uint32_t>::max();
  skipSpace(text);
  const bool isMinus = takeSign(text);
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && hexadecimalDigit(text[2]) >= 0)
    text.remove_prefix(2);
  uint64_t value = 0;
  for (const char character : text) {
    const int digit = hexadecimalDigit(character);
    if (digit < 0) break;
    value = value * 16 + static_cast<unsigned>(digit);
    if (value > kLargest) return -1;
  }
  const auto bits = static_cast<uint32_t>(value);
  return static_cast<int32_t>(isMinus ? 0 - bits : bits);
}

std::string_view trimmed(std::string_view text) {
  while (const size_t count = spaceAtFront(text)) text.remove_prefix(count);
  while (const size_t count = spaceAtBack(text)) text.remove_suffix(count);
  return text;
}

}  // namespace vesk
