#include "capture/interface/wide_text.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include <vesk/capture_records.h>

namespace vesk::capture {
namespace {

constexpr char16_t kReplacement = 0xFFFD;
constexpr std::string_view kReplacementBytes = "\xEF\xBF\xBD";
constexpr size_t kPathUnits = std::size(CaptureDeviceRecord{}.path);
constexpr char16_t kLoneByte = 0xDC00;

bool isHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}

/// A character and the bytes it takes; 0 bytes when `text` does not begin with one.
struct Decoded {
  char32_t character = 0;
  size_t bytes = 0;
};

Decoded decodeFirst(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text.front());
  if (lead < 0x80) return {lead, 1};
  const size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) return {};
  char32_t character = lead & (0x7F >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<uint8_t>(text[i]);
    if ((next & 0xC0) != 0x80) return {};
    character = character << 6 | (next & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (character < kSmallest[bytes] || character > 0x10FFFF || isSurrogate) return {};
  return {character, bytes};
}

/// UTF-8 as UTF-16, each byte that belongs to no character as `unitOf` it.
template <class UnitOf>
std::u16string convert(std::string_view text, const UnitOf& unitOf) {
  std::u16string units;
  units.reserve(text.size());
  while (!text.empty()) {
    const Decoded decoded = decodeFirst(text);
    const auto first = static_cast<uint8_t>(text.front());
    text.remove_prefix(std::max<size_t>(1, decoded.bytes));
    if (decoded.bytes == 0) {
      units += unitOf(first);
    } else if (decoded.character < 0x10000) {
      units += static_cast<char16_t>(decoded.character);
    } else {
      units += static_cast<char16_t>(0xD7C0 + (decoded.character >> 10));
      units += static_cast<char16_t>(0xDC00 | (decoded.character & 0x3FF));
    }
  }
  return units;
}

}  // namespace

std::u16string toUtf16(std::string_view text) {
  return convert(text, [](uint8_t) { return kReplacement; });
}

std::u16string recordPath(std::string_view path) {
  char16_t field[kPathUnits];
  copyText(convert(path, [](uint8_t byte) { return static_cast<char16_t>(kLoneByte + byte); }), field);
  return field;
}

std::string shownPath(std::string_view path) {
  std::string shown;
  for (size_t room = kPathUnits - 1; !path.empty();) {
    const Decoded decoded = decodeFirst(path);
    const size_t units = decoded.character < 0x10000 ? 1 : 2;
    if (units > room) break;
    room -= units;
    shown += decoded.bytes == 0 ? kReplacementBytes : path.substr(0, decoded.bytes);
    path.remove_prefix(std::max<size_t>(1, decoded.bytes));
  }
  return shown;
}

void copyText(std::u16string_view text, std::span<char16_t> field) {
  if (field.empty()) return;
  size_t length = std::min(text.size(), field.size() - 1);
  if (length < text.size() && length > 0 && isHighSurrogate(text[length - 1])) --length;
  const auto end = std::copy_n(text.begin(), length, field.begin());
  std::fill(end, field.end(), u'\0');
}

std::optional<std::u16string_view> readText(const char16_t* text, size_t limit) {
  if (!text) return std::nullopt;
  const char16_t* end = std::find(text, text + limit, u'\0');
  if (end == text + limit) return std::nullopt;
  return std::u16string_view(text, static_cast<size_t>(end - text));
}

}  // namespace vesk::capture
