#include "platform/media/block_buffer.h"

#include <cstring>
#include <new>

namespace vesk {

std::shared_ptr<CMBlockBuffer> CMBlockBuffer::create(size_t length) {
  if (length == 0) return nullptr;
  auto memory = MemoryPool::shared().allocate(length);
  if (!memory) return nullptr;
  try {
    return std::make_shared<CMBlockBuffer>(std::move(memory), length);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool CMBlockBuffer::replaceDataBytes(std::span<const uint8_t> bytes, size_t offset) {
  if (offset > mLength || bytes.size() > mLength - offset) return false;
  if (!bytes.empty()) std::memcpy(mMemory.get() + offset, bytes.data(), bytes.size());
  return true;
}

bool CMBlockBuffer::fillDataBytes(uint8_t value, size_t offset, size_t length) {
  if (offset > mLength || length > mLength - offset) return false;
  std::memset(mMemory.get() + offset, value, length);
  return true;
}

}  // namespace vesk
