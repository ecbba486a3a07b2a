#include <vesk/sample_buffer.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include <vesk/four_char_code.h>
#include "platform/media/memory_pool.h"
#include "platform/media/sample_arena.h"

namespace vesk {
namespace {

constexpr size_t kTooMuch = std::numeric_limits<size_t>::max();
const CMVideoFormatDescriptionRef kPicture = CMVideoFormatDescription::create(kCMVideoCodecType_H264, 640, 480);
const CMAudioFormatDescriptionRef kSound = CMAudioFormatDescription::create({.mSampleRate = 48000});

bool beginsOnPage(const uint8_t* memory) {
  return reinterpret_cast<uintptr_t>(memory) % MemoryPool::kPageBytes == 0;
}

TEST(BlockBuffer, KeepsWritesInside) {
  const auto block = CMBlockBuffer::create(4);
  const uint8_t bytes[] = {1, 2, 3};
  ASSERT_TRUE(block->fillDataBytes(9, 0, 4));
  EXPECT_TRUE(block->replaceDataBytes(bytes, 1));
  EXPECT_FALSE(block->replaceDataBytes(bytes, 2));
  EXPECT_FALSE(block->replaceDataBytes(bytes, kTooMuch));
  EXPECT_FALSE(block->fillDataBytes(0, 1, kTooMuch));
  EXPECT_EQ(std::vector<uint8_t>(block->data().begin(), block->data().end()), (std::vector<uint8_t>{9, 1, 2, 3}));
  EXPECT_FALSE(CMBlockBuffer::create(0));
  EXPECT_FALSE(CMBlockBuffer::create(kTooMuch));
}

TEST(SampleBuffer, TakesAPictureThatFitsItsBlock) {
  const auto block = CMBlockBuffer::create(100);
  const CMSampleTimingInfo timing{CMTimeMake(1, 30), CMTimeMake(5, 30), kCMTimeInvalid};
  const auto sample = CMSampleBuffer::create(block, kPicture, timing, 60);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->data().size(), 60U);
  EXPECT_EQ(sample->data().data(), block->data().data());
  EXPECT_EQ(sample->presentationTimeStamp().value, 5);
  EXPECT_TRUE(CMSampleBuffer::create(block, kPicture, timing, 100));
  EXPECT_FALSE(CMSampleBuffer::create(block, kPicture, timing, 101));
  EXPECT_FALSE(CMSampleBuffer::create(block, kPicture, timing, 0));
  EXPECT_FALSE(CMSampleBuffer::create(nullptr, kPicture, timing, 60));
  EXPECT_FALSE(CMSampleBuffer::create(block, nullptr, timing, 60));
}

TEST(SampleBuffer, TakesWholeImages) {
  const auto image = CVPixelBuffer::create(7, 3, kCMPixelFormat_422YpCbCr8);
  ASSERT_TRUE(image);
  const auto sample = CMSampleBuffer::createForImageBuffer(image, kPicture, {});
  EXPECT_EQ(sample->data().size(), size_t{7 * 2 * 3});
  EXPECT_EQ(sample->imageBuffer(), image);
  EXPECT_TRUE(beginsOnPage(sample->data().data()));
  EXPECT_FALSE(CVPixelBuffer::create(-1, 3, kCMPixelFormat_422YpCbCr8));
  EXPECT_FALSE(CVPixelBuffer::create(7, 3, kCMVideoCodecType_MotionJPEG));
  constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
  EXPECT_FALSE(CVPixelBuffer::create(kMost, kMost, kCMPixelFormat_422YpCbCr8));
}

TEST(SampleBuffer, TakesPacketsThatLieOneAfterTheOther) {
  using Packets = std::vector<AudioStreamPacketDescription>;
  const auto block = CMBlockBuffer::create(30);
  const auto make = [&](uint32_t count, const Packets& packets) {
    return CMSampleBuffer::createAudioWithPacketDescriptions(block, kSound, count, kCMTimeZero, packets);
  };
  const auto sample = make(3, {{0, 0, 10}, {10, 0, 5}, {15, 0, 12}});
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->numSamples(), 3U);
  EXPECT_EQ(sample->data().size(), 27U);
  EXPECT_EQ(std::vector<uint32_t>(sample->sampleSizes().begin(), sample->sampleSizes().end()),
            (std::vector<uint32_t>{10, 5, 12}));

  EXPECT_FALSE(make(2, {{0, 0, 10}})) << "fewer descriptions than packets";
  EXPECT_FALSE(make(2, {{0, 0, 10}, {11, 0, 5}})) << "a gap";
  EXPECT_FALSE(make(2, {{0, 0, 10}, {-1, 0, 5}})) << "before the block";
  EXPECT_FALSE(make(2, {{0, 0, 10}, {10, 0, 21}})) << "beyond the block";
  EXPECT_FALSE(make(1, {{0, 0, 0xFFFFFFFF}})) << "far beyond the block";
  EXPECT_TRUE(make(15, {}));
  EXPECT_FALSE(make(7, {})) << "frames that do not fill the block";
  EXPECT_FALSE(make(0, {}));
}

TEST(SampleAttachments, TellFalseFromAbsent) {
  SampleAttachments attachments;
  attachments.addValue(kCMSampleAttachmentKey_NotSync, true);
  attachments.addValue(kCMSampleAttachmentKey_NotSync, false);
  attachments.addValue(kCMSampleAttachmentKey_DoNotDisplay, true);
  EXPECT_EQ(attachments.value(kCMSampleAttachmentKey_NotSync), false);
  EXPECT_EQ(attachments.value(kCMSampleAttachmentKey_DoNotDisplay), true);
  EXPECT_EQ(attachments.value(kCMSampleAttachmentKey_DependsOnOthers), std::nullopt);
  EXPECT_TRUE(attachments.valueOr(kCMSampleAttachmentKey_DependsOnOthers, true));
}

TEST(MemoryPool, BlocksHoldWhatWasAskedForAndAreUsedAgain) {
  // Each size class and its edges are written to the last byte: the sanitizer sees a short block.
  for (size_t octave = 8; octave < 20; ++octave)
    for (const size_t base : {size_t{1} << octave, (size_t{1} << octave) + (size_t{1} << (octave - 1))})
      for (const size_t length : {base - 1, base, base + 1}) {
        const auto block = MemoryPool::shared().allocate(length);
        std::memset(block.get(), 1, length);
        EXPECT_TRUE(length < MemoryPool::kPageBytes || beginsOnPage(block.get())) << length;
      }

  const uint8_t* first = nullptr;
  {
    const auto block = MemoryPool::shared().allocate(700000);
    first = block.get();
  }  // given back at once
  if (MemoryPool::keepsBlocks()) {
    EXPECT_EQ(MemoryPool::shared().allocate(700000).get(), first);
  }
  EXPECT_FALSE(MemoryPool::shared().allocate(kTooMuch));
}

TEST(SampleArena, LaysSamplesOneBehindTheOtherUntilAPieceIsFull) {
  CMBlockBufferRef last;
  {
    SampleArena arena(MemoryPool::kPageBytes);
    ASSERT_EQ(arena.room(3000).size(), 3000U);
    const auto first = arena.take(1000);
    EXPECT_TRUE(beginsOnPage(first->data().data()));
    ASSERT_EQ(arena.room(3000).size(), 3000U);
    const auto second = arena.take(3000);
    EXPECT_EQ(second->data().data(), first->data().data() + 1000) << "behind what was taken of the first";
    EXPECT_EQ(arena.room(200).size(), 200U) << "in another piece";
    const auto third = arena.take(200);
    EXPECT_TRUE(beginsOnPage(third->data().data()));
    ASSERT_EQ(arena.room(2 * MemoryPool::kHugePageBytes).size(), 2 * MemoryPool::kHugePageBytes);
    last = arena.take(2 * MemoryPool::kHugePageBytes);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(last->data().data()) % MemoryPool::kHugePageBytes, 0U);
    EXPECT_TRUE(arena.room(kTooMuch).empty());
    EXPECT_FALSE(arena.take(0));
  }
  std::memset(last->data().data(), 1, last->length());  // the arena is gone, its memory is not
}

TEST(MemoryPool, GivesABlockToOneThreadAtATime) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([thread] {
      for (int round = 0; round < 500; ++round) {
        const auto block = MemoryPool::shared().allocate(2000);
        std::memset(block.get(), thread, 2000);
        EXPECT_EQ(block.get()[1999], thread);
      }
    });
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace vesk
