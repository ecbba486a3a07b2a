#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/foundation/mutex.h"

namespace vesk {

/// Keeps the memory of finished sample buffers for the next ones, so that a recording allocates
/// nothing per frame and the kernel does not hand out and clear fresh pages for every picture.
///
/// Blocks come in classes of a power of two and its half steps; what is kept is bounded. Those of a page or
/// more begin on one, so that a disk can take them as they lie, and those of kHugePageBytes or more on one of these,
/// where the system has them: a disk takes them at half the cost.
/// Threads: safe from any thread.
class MemoryPool {
 public:
  /// Gives a block back to the pool it came from.
  struct Return {
    size_t classIndex = 0;
    void operator()(uint8_t* memory) const noexcept;
  };
  using Block = std::unique_ptr<uint8_t, Return>;
  static constexpr size_t kPageBytes = 4096;
  static constexpr size_t kHugePageBytes = size_t{2} << 20;

  /// The pool of the process.
  static MemoryPool& shared();

  /// A block of at least `length` bytes, aligned for any type, or to kPageBytes or kHugePageBytes when `length` is as
  /// much; null when there is no memory.
  Block allocate(size_t length);
  /// Takes back what `allocate` made for `length` bytes, for who has let go of its Block.
  void giveBack(uint8_t* memory, size_t length) noexcept;
  /// Whether what is given back is used again: not under the address sanitizer.
  static bool keepsBlocks();

  MemoryPool() = default;
  MemoryPool(const MemoryPool&) = delete;
  MemoryPool& operator=(const MemoryPool&) = delete;
  ~MemoryPool();

 private:
  static constexpr size_t kClasses = 48;                 ///< 512 bytes to 4 GiB, two classes an octave
  static constexpr size_t kMostKept = size_t{64} << 20;  ///< bytes kept over all classes

  void keep(uint8_t* memory, size_t classIndex) noexcept;

  Mutex mMutex;
  std::array<std::vector<uint8_t*>, kClasses> mFree VESK_GUARDED_BY(mMutex);
  size_t mKept VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk
