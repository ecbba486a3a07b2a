#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <vesk/block_buffer.h>

namespace vesk {

/// Lays the samples of a track one behind the other in large pieces of memory, which a disk takes as they lie: a
/// sample's bytes are copied here and no further. A piece goes back to the pool with the last sample in it.
///
/// Threads: one call at a time. What was taken may be read and let go on any.
class SampleArena {
 public:
  /// @param pieceBytes that are allocated at once, or more for a larger sample
  explicit SampleArena(size_t pieceBytes) : mPieceBytes(pieceBytes) {}

  /// Room for `length` bytes behind what was taken last; empty when there is no memory. It is the arena's until take.
  std::span<uint8_t> room(size_t length);
  /// The first `size` bytes of the last room, `size` of its length at most. Null when there is no memory.
  CMBlockBufferRef take(size_t size);

 private:
  const size_t mPieceBytes;
  std::shared_ptr<uint8_t> mPiece;
  std::span<uint8_t> mFree;  ///< of the piece
};

}  // namespace vesk
