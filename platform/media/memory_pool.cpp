#include "platform/media/memory_pool.h"

#include <sys/mman.h>

#include <bit>
#include <cstddef>
#include <cstdlib>

namespace vesk {
namespace {

constexpr size_t kSmallestShift = 9;  // 512 bytes

// The address sanitizer is to see who uses a block that was given back.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeepsBlocks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kKeepsBlocks = false;
#else
constexpr bool kKeepsBlocks = true;
#endif
#else
constexpr bool kKeepsBlocks = true;
#endif

/// Size of the blocks of a class: 2^n, then 1.5 × 2^n.
size_t classSize(size_t index) {
  const size_t base = size_t{1} << (kSmallestShift + index / 2);
  return index % 2 == 0 ? base : base + base / 2;
}

/// The smallest class whose blocks hold `length` bytes.
size_t classFor(size_t length) {
  if (length <= (size_t{1} << kSmallestShift)) return 0;
  const size_t octave = std::bit_width(length - 1) - 1;  // 2^octave < length <= 2^(octave + 1)
  const size_t half = (size_t{1} << octave) + (size_t{1} << (octave - 1));
  return (octave - kSmallestShift) * 2 + (length <= half ? 1 : 2);
}

uint8_t* fresh(size_t size) {
  const size_t alignment = size < MemoryPool::kPageBytes       ? alignof(std::max_align_t)
                           : size < MemoryPool::kHugePageBytes ? MemoryPool::kPageBytes
                                                               : MemoryPool::kHugePageBytes;
  void* memory = nullptr;
  if (posix_memalign(&memory, alignment, size) != 0) return nullptr;
  if (size >= MemoryPool::kHugePageBytes) madvise(memory, size, MADV_HUGEPAGE);  // a hint
  return static_cast<uint8_t*>(memory);
}

}  // namespace

MemoryPool& MemoryPool::shared() {
  // Never destroyed: buffers may outlive the static objects of a host.
  static auto* const pool = new MemoryPool();
  return *pool;
}

bool MemoryPool::keepsBlocks() {
  return kKeepsBlocks;
}

MemoryPool::Block MemoryPool::allocate(size_t length) {
  const size_t index = classFor(length);
  if (index >= kClasses) return nullptr;
  {
    MutexLock lock(mMutex);
    auto& free = mFree[index];
    if (!free.empty()) {
      uint8_t* const memory = free.back();
      free.pop_back();
      mKept -= classSize(index);
      return Block(memory, Return{index});
    }
  }
  return Block(fresh(classSize(index)), Return{index});
}

void MemoryPool::giveBack(uint8_t* memory, size_t length) noexcept {
  keep(memory, classFor(length));
}

void MemoryPool::keep(uint8_t* memory, size_t classIndex) noexcept {
  {
    MutexLock lock(mMutex);
    if (kKeepsBlocks && mKept + classSize(classIndex) <= kMostKept) {
      try {
        mFree[classIndex].push_back(memory);
        mKept += classSize(classIndex);
        return;
      } catch (...) {
        // No memory for the list itself: the block is freed below.
      }
    }
  }
  std::free(memory);
}

MemoryPool::~MemoryPool() {
  MutexLock lock(mMutex);
  for (auto& free : mFree)
    for (uint8_t* memory : free) std::free(memory);
}

void MemoryPool::Return::operator()(uint8_t* memory) const noexcept {
  if (memory) MemoryPool::shared().keep(memory, classIndex);
}

}  // namespace vesk
