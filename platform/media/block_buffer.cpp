#include <vesk/block_buffer.h>

#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "platform/media/pool_allocator.h"

namespace vesk {

std::shared_ptr<CMBlockBuffer> CMBlockBuffer::create(size_t length) {
  constexpr size_t kMost = std::numeric_limits<size_t>::max() / 2;
  if (length == 0 || length > kMost) return nullptr;
  try {
    uint8_t* bytes = nullptr;
    auto block = std::allocate_shared<CMBlockBuffer>(PoolAllocator<CMBlockBuffer>(length, &bytes));
    block->mBytes = bytes;
    block->mLength = length;
    return block;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

std::shared_ptr<CMBlockBuffer> CMBlockBuffer::wrap(std::span<uint8_t> bytes, std::shared_ptr<const void> owner) {
  if (bytes.empty()) return nullptr;
  try {
    auto block = std::allocate_shared<CMBlockBuffer>(PoolAllocator<CMBlockBuffer>());
    block->mBytes = bytes.data();
    block->mLength = bytes.size();
    block->mOwner = std::move(owner);
    return block;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool CMBlockBuffer::replaceDataBytes(std::span<const uint8_t> bytes, size_t offset) {
  if (offset > mLength || bytes.size() > mLength - offset) return false;
  if (!bytes.empty()) std::memcpy(mBytes + offset, bytes.data(), bytes.size());
  return true;
}

bool CMBlockBuffer::fillDataBytes(uint8_t value, size_t offset, size_t length) {
  if (offset > mLength || length > mLength - offset) return false;
  std::memset(mBytes + offset, value, length);
  return true;
}

}  // namespace vesk
