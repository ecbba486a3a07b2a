#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "platform/media/memory_pool.h"

namespace vesk {

/// For std::allocate_shared: the object, its reference count and `behind` bytes more lie in one block of
/// MemoryPool, so that a sample costs nothing but blocks that are used again.
template <class T>
class PoolAllocator {
 public:
  using value_type = T;

  PoolAllocator() = default;
  /// @param bytes receives where the further bytes begin, aligned for any type
  PoolAllocator(size_t behind, uint8_t** bytes) : mBehind(behind), mBytes(bytes) {}
  template <class U>
  explicit PoolAllocator(const PoolAllocator<U>& other) : mBehind(other.mBehind), mBytes(other.mBytes) {}

  /// Of one object.
  T* allocate(size_t) {
    auto block = MemoryPool::shared().allocate(kObject + mBehind);
    if (!block) throw std::bad_alloc();
    uint8_t* const memory = block.release();
    if (mBytes) *mBytes = memory + kObject;
    return reinterpret_cast<T*>(memory);
  }
  void deallocate(T* object, size_t) noexcept {
    MemoryPool::shared().giveBack(reinterpret_cast<uint8_t*>(object), kObject + mBehind);
  }

  template <class U>
  bool operator==(const PoolAllocator<U>&) const {
    return true;
  }

 private:
  template <class U>
  friend class PoolAllocator;

  static constexpr size_t kAlignment = alignof(std::max_align_t);
  static constexpr size_t kObject = (sizeof(T) + kAlignment - 1) / kAlignment * kAlignment;

  size_t mBehind = 0;
  uint8_t** mBytes = nullptr;  ///< while the object is made
};

}  // namespace vesk
