#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vesk {

/// Memory that may grow. Its owner's end disposes of it.
using Handle = std::vector<uint8_t>;

/// A handle of `size` zero bytes.
inline Handle NewHandleClear(size_t size) {
  return Handle(size);
}

/// A handle with a copy of `bytes`.
inline Handle PtrToHand(std::span<const uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace vesk
