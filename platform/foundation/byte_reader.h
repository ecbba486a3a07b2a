#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vesk {

/// Reads big-endian values from a view and never past its end. Every read answers a value or
/// nothing; after nothing, the reader stands where it stood.
class ByteReader {
 public:
  explicit ByteReader(std::span<const uint8_t> bytes) : mBytes(bytes) {}

  size_t remaining() const { return mBytes.size(); }

  std::optional<uint8_t> u8() { return number<uint8_t>(); }
  std::optional<uint16_t> u16() { return number<uint16_t>(); }
  std::optional<uint32_t> u32() { return number<uint32_t>(); }
  std::optional<uint64_t> u64() { return number<uint64_t>(); }

  std::optional<std::span<const uint8_t>> take(size_t count) {
    if (mBytes.size() < count) return std::nullopt;
    const auto taken = mBytes.first(count);
    mBytes = mBytes.subspan(count);
    return taken;
  }
  bool skip(size_t count) { return take(count).has_value(); }

 private:
  template <class T>
  std::optional<T> number() {
    const auto bytes = take(sizeof(T));
    if (!bytes) return std::nullopt;
    uint64_t value = 0;
    for (const uint8_t byte : *bytes) value = value << 8 | byte;
    return static_cast<T>(value);
  }

  std::span<const uint8_t> mBytes;
};

/// Reads the big-endian 32-bit number at `bytes`, which must hold four.
inline uint32_t readBigEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

/// Writes `value` big-endian into the four bytes at `bytes`.
inline void writeBigEndian32(uint8_t* bytes, uint32_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 24);
  bytes[1] = static_cast<uint8_t>(value >> 16);
  bytes[2] = static_cast<uint8_t>(value >> 8);
  bytes[3] = static_cast<uint8_t>(value);
}

}  // namespace vesk
