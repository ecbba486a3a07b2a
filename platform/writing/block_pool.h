#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/foundation/mutex.h"

namespace vesk {

/// Memory for what is written past the page cache: it begins on a block (kDirectAlignment), and is used again,
/// since fresh pages cost more than what is copied into them.
///
/// Threads: any.
class BlockPool {
 public:
  struct Free {
    void operator()(uint8_t* bytes) const { std::free(bytes); }
  };
  struct Buffer {
    std::unique_ptr<uint8_t, Free> bytes;
    size_t capacity = 0;
  };

  BlockPool();

  /// A buffer of at least `size` bytes, whose contents are anything. Throws std::bad_alloc.
  Buffer take(size_t size) VESK_EXCLUDES(mMutex);
  void giveBack(Buffer buffer) VESK_EXCLUDES(mMutex);

 private:
  Mutex mMutex;
  std::vector<Buffer> mFree VESK_GUARDED_BY(mMutex);
  size_t mBytes VESK_GUARDED_BY(mMutex) = 0;  ///< of mFree
};

}  // namespace vesk
