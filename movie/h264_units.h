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

/// Finds units in a length-prefixed H.264 buffer, which it does not own.
class CH264Parser {
 public:
  CH264Parser(const uint8_t* data, uint32_t length) : mData(data), mLength(length) {}

  /// Looks for the first unit of the given type. Found: `unit` becomes a view of it, length field
  /// included. Otherwise false, and `unit` stays as it was.
  bool FindNALUnit(int type, CNALUnit& unit) const;

  const uint8_t* mData;  ///< the first length field
  uint32_t mLength;      ///< bytes in the buffer
};

/// The parameter sets that a stream has shown so far, each a private copy.
class CH264HeaderInfo {
 public:
  /// Looks for a sequence and a picture parameter set in a length-prefixed buffer. One that is found
  /// takes the place of the one held; one that is not found changes nothing.
  void Collect(const uint8_t* data, uint32_t length);

  /// Whether both sets are there, each with at least its header byte.
  bool isComplete() const { return mSPS.mSize >= kLeastSize && mPPS.mSize >= kLeastSize; }

  CNALUnit mSPS;  ///< sequence parameter set (type 7)
  CNALUnit mPPS;  ///< picture parameter set (type 8)

 private:
  static constexpr uint32_t kLeastSize = 5;  // length field and header byte
};

}  // namespace vesk
