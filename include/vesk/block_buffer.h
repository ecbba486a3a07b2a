#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <vesk/export.h>

namespace vesk {

/// A run of bytes that sample buffers share. Written by its maker, then read only.
class VESK_EXPORT CMBlockBuffer {
 public:
  /// A block of `length` bytes whose memory is allocated at once and not cleared; null when there
  /// is not enough, or when `length` is 0.
  static std::shared_ptr<CMBlockBuffer> create(size_t length);
  /// A block of somebody else's memory, which `owner` keeps; null when there is none, or no memory for the block.
  static std::shared_ptr<CMBlockBuffer> wrap(std::span<uint8_t> bytes, std::shared_ptr<const void> owner);

  /// Copies `bytes` to `offset`. False, and nothing copied, when they do not fit.
  bool replaceDataBytes(std::span<const uint8_t> bytes, size_t offset);
  /// Fills `length` bytes from `offset` with `value`. False, and nothing filled, when they do not fit.
  bool fillDataBytes(uint8_t value, size_t offset, size_t length);

  size_t length() const { return mLength; }
  /// Who keeps the bytes; null when it is the block itself.
  const std::shared_ptr<const void>& owner() const { return mOwner; }
  std::span<uint8_t> data() { return {mBytes, mLength}; }
  std::span<const uint8_t> data() const { return {mBytes, mLength}; }

  /// For the factory above; use that.
  CMBlockBuffer() = default;

 private:
  uint8_t* mBytes = nullptr;  ///< behind this object, in the same memory, or mOwner's
  size_t mLength = 0;
  std::shared_ptr<const void> mOwner;
};

using CMBlockBufferRef = std::shared_ptr<CMBlockBuffer>;

}  // namespace vesk
