#pragma once

#include <cstdint>

namespace vesk {

/// One NAL unit of a length-prefixed H.264 stream: a place in someone else's buffer, or a copy of
/// its own. Moved, not copied.
class CNALUnit {
 public:
  CNALUnit() = default;
  /// A view of `size` bytes at `data`, which must outlive it.
  CNALUnit(const uint8_t* data, uint32_t size) : mData(data), mSize(size) {}
  CNALUnit(CNALUnit&& other) noexcept;
  CNALUnit& operator=(CNALUnit&& other) noexcept;
  ~CNALUnit();

  /// A unit that holds a private copy of this one's bytes; empty when this is or memory runs out.
  CNALUnit copy() const;

  const uint8_t* mData = nullptr;  ///< the unit's four-byte length field; null when there is no unit
  uint32_t mSize = 0;              ///< bytes of the length field and the unit
  bool mOwnsData = false;          ///< mData is a private copy, freed with this record
};

}  // namespace vesk
