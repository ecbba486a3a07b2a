#include "platform/media/sample_arena.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/media/memory_pool.h"

namespace vesk {

std::span<uint8_t> SampleArena::room(size_t length) {
  if (length <= mFree.size()) return mFree.first(length);
  const size_t size = std::max(mPieceBytes, length);
  auto piece = MemoryPool::shared().allocate(size);
  if (!piece) return {};
  mFree = {piece.get(), size};
  try {
    mPiece = std::move(piece);
  } catch (const std::bad_alloc&) {
    mPiece = nullptr;
    mFree = {};
    return {};
  }
  return mFree.first(length);
}

CMBlockBufferRef SampleArena::take(size_t size) {
  auto block = CMBlockBuffer::wrap(mFree.first(size), mPiece);
  if (block) mFree = mFree.subspan(size);
  return block;
}

}  // namespace vesk
