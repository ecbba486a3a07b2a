#pragma once

#include <cstdint>

#include "movie/nal_unit.h"

namespace vesk {

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

}  // namespace vesk
