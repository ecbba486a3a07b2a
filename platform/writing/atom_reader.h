#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"

namespace vesk {

/// Reads the fields of an atom's body and never past its end. A field that is not there reads as 0
/// and makes `good` false for good, so a routine may read all fields and ask once.
class AtomReader {
 public:
  static constexpr bool kReads = true;

  explicit AtomReader(std::span<const uint8_t> body) : mBytes(body) {}

  bool good() const { return mGood; }
  /// Makes the atom unreadable: a value that cannot be.
  void fail() { mGood = false; }
  size_t remaining() const { return mBytes.remaining(); }

  void u8(uint8_t& value) { value = kept(mBytes.u8()); }
  void u16(uint16_t& value) { value = kept(mBytes.u16()); }
  void u32(uint32_t& value) { value = kept(mBytes.u32()); }
  void u64(uint64_t& value) { value = kept(mBytes.u64()); }
  void i32(int32_t& value) { value = static_cast<int32_t>(kept(mBytes.u32())); }
  void sized(uint8_t version, uint64_t& value) { value = version == 0 ? kept(mBytes.u32()) : kept(mBytes.u64()); }
  void sized(uint8_t version, int64_t& value) {
    value = version == 0 ? static_cast<int32_t>(kept(mBytes.u32())) : static_cast<int64_t>(kept(mBytes.u64()));
  }
  void constant16(uint16_t) { zeros(2); }
  void constant32(uint32_t) { zeros(4); }
  void versionAndFlags(uint8_t& version, uint32_t& flags) {
    const uint32_t both = kept(mBytes.u32());
    version = static_cast<uint8_t>(both >> 24);
    flags = both & 0xFFFFFF;
    if (version > 1) mGood = false;
  }
  void zeros(size_t count) {
    if (!mBytes.skip(count)) mGood = false;
  }
  /// Makes room for as many elements as the count says, unless they could not lie in what is left.
  template <class T>
  void count(std::vector<T>& elements, size_t each) {
    const uint32_t count = kept(mBytes.u32());
    if (each == 0 || count > mBytes.remaining() / each) mGood = false;
    elements.resize(mGood ? count : 0);
  }

 private:
  template <class T>
  T kept(std::optional<T> value) {
    if (!value) mGood = false;
    return mGood ? *value : T{};
  }

  ByteReader mBytes;
  bool mGood = true;
};

/// One atom inside a run of bytes.
struct Atom {
  uint32_t type = 0;
  std::span<const uint8_t> body;
};

/// Takes the next atom off `bytes`; nothing when there is none that lies whole inside them. Atoms
/// with 64-bit sizes do not occur inside the atoms we read.
inline std::optional<Atom> nextAtom(std::span<const uint8_t>& bytes) {
  if (bytes.size() < 8) return std::nullopt;
  const uint32_t size = readBigEndian32(bytes.data());
  if (size < 8 || size > bytes.size()) return std::nullopt;
  const Atom atom{readBigEndian32(bytes.data() + 4), bytes.subspan(8, size - 8)};
  bytes = bytes.subspan(size);
  return atom;
}

/// The first atom of `type` directly inside `bytes`.
inline std::optional<std::span<const uint8_t>> findAtom(std::span<const uint8_t> bytes, uint32_t type) {
  while (const auto atom = nextAtom(bytes)) {
    if (atom->type == type) return atom->body;
  }
  return std::nullopt;
}

/// Reads an atom whose fields `T::transfer` describes; nothing when the body is too short for them.
template <class T>
std::optional<T> readAtom(std::span<const uint8_t> body) {
  AtomReader reader(body);
  T atom;
  atom.transfer(reader);
  if (!reader.good()) return std::nullopt;
  return atom;
}

}  // namespace vesk
