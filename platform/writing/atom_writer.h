#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"

namespace vesk {

/// Writes atoms into a growing vector of bytes. An atom's size is filled in when its scope ends.
///
/// The operations have the names of AtomReader's, so that one routine describes an atom for both
/// directions (see movie_atoms.h).
class AtomWriter {
 public:
  static constexpr bool kReads = false;

  /// Writes at the end of `out`, which must outlive the writer.
  explicit AtomWriter(std::vector<uint8_t>& out) : mOut(out) {}

  /// Ends its atom when it goes.
  class Scope {
   public:
    Scope(AtomWriter& writer, size_t start) : mWriter(writer), mStart(start) {}
    ~Scope() { mWriter.patch32(mStart, static_cast<uint32_t>(mWriter.position() - mStart)); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    AtomWriter& mWriter;
    size_t mStart;
  };

  [[nodiscard]] Scope atom(uint32_t type) {
    const size_t start = position();
    u32(0);
    u32(type);
    return {*this, start};
  }

  void u8(uint8_t value) { mOut.push_back(value); }
  void u16(uint16_t value) { number(value); }
  void u32(uint32_t value) { number(value); }
  void u64(uint64_t value) { number(value); }
  void i32(int32_t value) { number(static_cast<uint32_t>(value)); }
  /// A number of 32 bits in version 0 of an atom and of 64 bits in version 1.
  void sized(uint8_t version, uint64_t value) { version == 0 ? u32(static_cast<uint32_t>(value)) : u64(value); }
  void sized(uint8_t version, int64_t value) { sized(version, static_cast<uint64_t>(value)); }
  /// A field that has this value whenever we write it and is not looked at when read.
  void constant16(uint16_t value) { u16(value); }
  void constant32(uint32_t value) { u32(value); }
  void versionAndFlags(uint8_t version, uint32_t flags) { u32(uint32_t{version} << 24 | (flags & 0xFFFFFF)); }
  void bytes(std::span<const uint8_t> bytes) { mOut.insert(mOut.end(), bytes.begin(), bytes.end()); }
  /// `count` numbers of 32 bits, each what `next` answers: tables of a million take their time.
  template <class Next>
  void table32(size_t count, Next next) {
    const size_t at = mOut.size();
    mOut.resize(at + count * sizeof(uint32_t));
    for (uint8_t* to = mOut.data() + at; count > 0; --count, to += sizeof(uint32_t)) writeBigEndian32(to, next());
  }
  void zeros(size_t count) { mOut.resize(mOut.size() + count); }
  /// The number of `elements`, each of which takes `each` bytes.
  template <class T>
  void count(const std::vector<T>& elements, size_t each) {
    static_cast<void>(each);
    u32(static_cast<uint32_t>(elements.size()));
  }

  size_t position() const { return mOut.size(); }
  void patch32(size_t position, uint32_t value) { writeBigEndian32(mOut.data() + position, value); }

 private:
  template <class T>
  void number(T value) {
    static_assert(std::endian::native == std::endian::little);
    if constexpr (sizeof(T) == 2) value = __builtin_bswap16(value);
    if constexpr (sizeof(T) == 4) value = __builtin_bswap32(value);
    if constexpr (sizeof(T) == 8) value = __builtin_bswap64(value);
    const size_t at = mOut.size();
    mOut.resize(at + sizeof(T));
    std::memcpy(mOut.data() + at, &value, sizeof(T));
  }

  std::vector<uint8_t>& mOut;
};

}  // namespace vesk
