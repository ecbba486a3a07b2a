#include <vesk/unistr.h>

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <vesk/log.h>

namespace vesk {
namespace {

struct GFree {
  void operator()(void* memory) const noexcept { g_free(memory); }
};

std::u16string_view viewOf(const char16_t* string) {
  return string ? std::u16string_view(string) : std::u16string_view();
}

char16_t* copyUnits(char16_t* destination, std::u16string_view units) {
  char16_t* const end = std::copy(units.begin(), units.end(), destination);
  *end = 0;
  return end;
}

constexpr bool isHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}
constexpr bool isLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

[[noreturn]] void failAssertion(const char* function, const char* source, int line, const char* condition) {
  printToError(LogLevel::kError, "Assertion failed: %s, function %s, file %s, line %d.\n", condition, function, source,
               line);
  std::abort();
}

}  // namespace

uint32_t unistr_length(const char16_t* string) {
  return static_cast<uint32_t>(viewOf(string).size());
}

char16_t* unistr_copy(char16_t* destination, const char16_t* source, uint32_t capacity) {
  if (!destination || !source || capacity == 0) return nullptr;
  // The source is read only as far as it is copied.
  char16_t* const last = destination + capacity - 1;
  while (destination != last && *source) *destination++ = *source++;
  *destination = 0;
  return destination;
}

bool unistr_equal(const char16_t* str1, const char16_t* str2) {
  // The place named is the contract's own and stays the same however this file changes.
  if (!str1 || !str2) failAssertion("unistr_equal", "Source/Utilities/unistr", 41, "(str1 != NULL && str2 != NULL)");
  return std::u16string_view(str1) == std::u16string_view(str2);
}

void unistr_copyFromCFString(char16_t* destination, const std::u16string& string) {
  if (destination) copyUnits(destination, string);
}

std::u16string unistr_createCFString(const char16_t* string) {
  return std::u16string(viewOf(string));
}

void unistr_toUTF8(const char16_t* string, char* destination, uint32_t capacity) {
  if (!destination || capacity == 0) return;
  const std::string text = unistr_createUTF8(viewOf(string));
  const size_t length = text.size() < capacity ? text.size() : 0;
  std::memcpy(destination, text.data(), length);
  destination[length] = 0;
}

void unistr_fromUTF8(const char* utf8, char16_t* destination) {
  if (destination) copyUnits(destination, unistr_createFromUTF8(utf8 ? utf8 : "").value_or(std::u16string()));
}

std::u16string_view unistr_view(std::span<const char16_t> field) {
  return {field.data(), static_cast<size_t>(std::find(field.begin(), field.end(), u'\0') - field.begin())};
}

std::string unistr_createUTF8(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    gunichar character = units[i];
    if (isHighSurrogate(units[i]) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
      character = 0x10000 + ((character & 0x3FF) << 10 | (units[i + 1] & 0x3FF));
      ++i;
    } else if (isHighSurrogate(units[i]) || isLowSurrogate(units[i])) {
      character = 0xFFFD;
    }
    char bytes[6];
    text.append(bytes, static_cast<size_t>(g_unichar_to_utf8(character, bytes)));
  }
  return text;
}

std::optional<std::u16string> unistr_createFromUTF8(std::string_view utf8) {
  if (utf8.empty()) return std::u16string();
  if (utf8.find('\0') != utf8.npos) return std::nullopt;
  glong count = 0;
  const std::unique_ptr<gunichar2, GFree> units(
      g_utf8_to_utf16(utf8.data(), static_cast<glong>(utf8.size()), nullptr, &count, nullptr));
  if (!units) return std::nullopt;
  return std::u16string(units.get(), units.get() + count);
}

}  // namespace vesk
