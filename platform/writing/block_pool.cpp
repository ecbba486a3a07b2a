#include "platform/writing/block_pool.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/writing/file_system.h"

namespace vesk {
namespace {

/// A live recording uses two or three. More pile up where the disk is slow for a while, and go again.
constexpr size_t kMostKept = 16;
constexpr size_t kMostBytesKept = size_t{16} << 20;
constexpr size_t kStep = size_t{256} << 10;

bool isSmaller(const BlockPool::Buffer& a, const BlockPool::Buffer& b) {
  return a.capacity < b.capacity;
}

}  // namespace

BlockPool::BlockPool() {
  mFree.reserve(kMostKept + 1);  // giving back never fails
}

BlockPool::Buffer BlockPool::take(size_t size) {
  {
    const MutexLock lock(mMutex);
    const auto fits =
        std::find_if(mFree.begin(), mFree.end(), [&](const Buffer& buffer) { return buffer.capacity >= size; });
    if (fits != mFree.end()) {
      Buffer buffer = std::move(*fits);
      mFree.erase(fits);
      mBytes -= buffer.capacity;
      return buffer;
    }
  }
  // With room for the next one, which may be somewhat larger.
  const size_t capacity = alignedUp(size + size / 4, kStep);
  auto* const bytes = static_cast<uint8_t*>(std::aligned_alloc(kDirectAlignment, capacity));
  if (!bytes) throw std::bad_alloc();
  return {std::unique_ptr<uint8_t, Free>(bytes), capacity};
}

void BlockPool::giveBack(Buffer buffer) {
  if (!buffer.bytes) return;
  const MutexLock lock(mMutex);
  mBytes += buffer.capacity;
  mFree.push_back(std::move(buffer));
  while (mFree.size() > kMostKept || mBytes > kMostBytesKept) {
    const auto smallest = std::min_element(mFree.begin(), mFree.end(), isSmaller);
    mBytes -= smallest->capacity;
    mFree.erase(smallest);
  }
}

}  // namespace vesk
