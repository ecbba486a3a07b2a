#pragma once

#include <cstdint>

#include "movie/nal_unit.h"

namespace vesk {

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
