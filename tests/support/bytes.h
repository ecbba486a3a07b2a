#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::test {

using Bytes = std::vector<uint8_t>;

/// The bytes written as hex digits, spaces ignored: bytes("00 00 00 01 65").
inline Bytes bytes(std::string_view hex) {
  Bytes result;
  std::string digits;
  for (const char character : hex)
    if (character != ' ') digits += character;
  for (size_t index = 0; index + 1 < digits.size(); index += 2)
    result.push_back(static_cast<uint8_t>(std::stoul(digits.substr(index, 2), nullptr, 16)));
  return result;
}

}  // namespace vesk::test
