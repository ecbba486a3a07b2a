#pragma once

#include <cstdint>

namespace vesk {

/// How a movie gets to the disk.
struct WritingStatistics {
  uint64_t direct = 0;        ///< bytes written past the page cache
  uint64_t buffered = 0;      ///< bytes written through it
  uint32_t fellBehind = 0;    ///< how often the disk fell so far behind that the page cache had to help
  uint64_t reserved = 0;      ///< bytes of disk set aside for what comes next
  bool isSpaceShort = false;  ///< no more could be set aside: these are the last
};

}  // namespace vesk
