#include <vesk/sample_buffer.h>

#include <new>
#include <utility>

#include "platform/media/pool_allocator.h"

namespace vesk {
namespace {

/// An empty sample buffer, or null when there is no memory.
CMSampleBufferRef makeEmpty() {
  try {
    return std::allocate_shared<CMSampleBuffer>(PoolAllocator<CMSampleBuffer>());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

CMSampleBufferRef CMSampleBuffer::create(CMBlockBufferRef block, CMFormatDescriptionRef format,
                                         const CMSampleTimingInfo& timing, size_t size) {
  if (!block || !format || size == 0 || size > block->length()) return nullptr;
  auto sample = makeEmpty();
  if (!sample) return nullptr;
  sample->mFormat = std::move(format);
  sample->mBytes = block->data().data();
  sample->mBlock = std::move(block);
  sample->mSize = size;
  sample->mCount = 1;
  sample->mTiming = timing;
  return sample;
}

CMSampleBufferRef CMSampleBuffer::createForImageBuffer(CVPixelBufferRef image, CMFormatDescriptionRef format,
                                                       const CMSampleTimingInfo& timing) {
  if (!image || !format) return nullptr;
  auto sample = makeEmpty();
  if (!sample) return nullptr;
  sample->mFormat = std::move(format);
  sample->mBytes = image->data().data();
  sample->mSize = image->dataSize();
  sample->mImage = std::move(image);
  sample->mCount = 1;
  sample->mTiming = timing;
  return sample;
}

CMSampleBufferRef CMSampleBuffer::createAudioWithPacketDescriptions(
    CMBlockBufferRef block, CMAudioFormatDescriptionRef format, uint32_t count, const CMTime& presentationTime,
    std::span<const AudioStreamPacketDescription> descriptions) {
  if (!block || !format || count == 0) return nullptr;
  if (!descriptions.empty() && descriptions.size() != count) return nullptr;
  if (descriptions.empty() && block->length() % count != 0) return nullptr;
  auto sample = makeEmpty();
  if (!sample) return nullptr;
  size_t size = block->length();
  if (!descriptions.empty()) {
    size = 0;
    try {
      sample->mSizes.reserve(count);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    for (const auto& description : descriptions) {
      if (description.mStartOffset < 0 || static_cast<size_t>(description.mStartOffset) != size) return nullptr;
      if (description.mDataByteSize > block->length() - size) return nullptr;
      size += description.mDataByteSize;
      sample->mSizes.push_back(description.mDataByteSize);
    }
  }
  sample->mFormat = std::move(format);
  sample->mBytes = block->data().data();
  sample->mBlock = std::move(block);
  sample->mSize = size;
  sample->mCount = count;
  sample->mTiming = {kCMTimeInvalid, presentationTime, kCMTimeInvalid};
  return sample;
}

std::shared_ptr<const void> CMSampleBuffer::memory() const {
  if (mImage) return mImage;
  if (mBlock && mBlock->owner()) return mBlock->owner();
  return mBlock;
}

}  // namespace vesk
