#include "platform/decompression/decompression_session.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/decompression/session_under_test.h"

namespace vesk {
namespace {

using test::at;
using test::describe;
using test::SessionUnderTest;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t k2vuy = kCMPixelFormat_422YpCbCr8;

Bytes packedFrame(size_t size, uint8_t first) {
  Bytes frame(size);
  for (uint8_t& byte : frame) byte = first++;
  return frame;
}

TEST(DecompressionSession, EmitsEachPictureWhenItIsCalledForWithItsOwnTime) {
  SessionUnderTest test(describe(k2vuy, 4, 2));
  ASSERT_EQ(test.created, noErr);
  int first = 0;
  int second = 0;
  EXPECT_EQ(test.session->decodeFrame(packedFrame(16, 1), at(-5), &first), noErr);
  EXPECT_EQ(test.session->decodeFrame(packedFrame(16, 9), at(std::numeric_limits<int32_t>::max()), &second), noErr);
  EXPECT_TRUE(test.calls.empty());
  EXPECT_EQ(test.session->setNonScheduledDisplayTime(0, 0, 0), paramErr);
  EXPECT_EQ(test.session->setNonScheduledDisplayTime(0, 1, 1), paramErr);
  EXPECT_TRUE(test.calls.empty());
  EXPECT_EQ(test.session->setNonScheduledDisplayTime(-5, 10'000'000, 0), noErr);
  ASSERT_EQ(test.calls.size(), 2U);
  EXPECT_EQ(test.calls[0].displayTime, -5);
  EXPECT_EQ(test.calls[0].refCon, &first);
  EXPECT_EQ(test.calls[0].image->data()[0], 1);
  EXPECT_EQ(test.calls[1].displayTime, std::numeric_limits<int32_t>::max());
  EXPECT_EQ(test.calls[1].refCon, &second);
  for (const auto& call : test.calls) {
    EXPECT_EQ(call.result, noErr);
    EXPECT_EQ(call.flags, kICMDecompressionTracking_EmittingFrame | kICMDecompressionTracking_LastCall);
  }
}

TEST(DecompressionSession, TellsOfFramesThatAreNotEmitted) {
  SessionUnderTest test(describe(k2vuy, 4, 2));
  EXPECT_EQ(test.session->decodeFrame(packedFrame(15, 0), at(7), &test), codecBadDataErr);
  ASSERT_EQ(test.calls.size(), 1U);
  EXPECT_EQ(test.calls[0].result, codecBadDataErr);
  EXPECT_EQ(test.calls[0].flags, kICMDecompressionTracking_FrameDropped | kICMDecompressionTracking_LastCall);
  EXPECT_EQ(test.calls[0].displayTime, 7);
  EXPECT_EQ(test.calls[0].image, nullptr);

  EXPECT_EQ(test.session->decodeFrame(packedFrame(16, 0), at(8), nullptr), noErr);
  test.session.reset();
  ASSERT_EQ(test.calls.size(), 2U);
  EXPECT_EQ(test.calls[1].result, noErr);
  EXPECT_EQ(test.calls[1].flags, kICMDecompressionTracking_FrameDropped | kICMDecompressionTracking_LastCall);
}

TEST(DecompressionSession, EmitsScheduledFramesAtOnceAndRefusesWrongRecords) {
  SessionUnderTest test(describe(k2vuy, 4, 2));
  EXPECT_EQ(test.session->decodeFrame(packedFrame(16, 0), at(1, 0), nullptr), noErr);
  EXPECT_EQ(test.calls.size(), 1U);
  EXPECT_EQ(test.session->decodeFrame({}, at(1), nullptr), paramErr);
  auto record = at(1);
  record.recordSize = 48;
  EXPECT_EQ(test.session->decodeFrame(packedFrame(16, 0), record, nullptr), paramErr);
  EXPECT_EQ(test.calls.size(), 1U);
}

TEST(DecompressionSession, IsMadeOnlyForWhatCanBeDecoded) {
  const PixelBufferAttributes other = {{kCVPixelBufferWidthKey, PropertyList(int64_t{8})}};
  const PixelBufferAttributes wrong = {{kCVPixelBufferHeightKey, PropertyList(true)}};
  const PixelBufferAttributes same = {{kCVPixelBufferWidthKey, PropertyList(int64_t{4})},
                                      {kCVPixelBufferHeightKey, PropertyList(int64_t{2})},
                                      {kCVPixelBufferOpenGLCompatibilityKey, PropertyList(true)}};
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 4, 2), same).created, noErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 4, 2), other).created, paramErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 4, 2), wrong).created, paramErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 0, 2)).created, paramErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 16386, 2)).created, paramErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 16384, 16384)).created, paramErr);
  EXPECT_EQ(SessionUnderTest(describe(k2vuy, 3, 2)).created, noCodecErr);
  EXPECT_EQ(SessionUnderTest(describe(fourCharCode("zzzz"), 4, 2)).created, noCodecErr);
}

TEST(DecompressionSession, PackedPicturesAreCopiesWithTheDescribedColours) {
  auto description = describe(k2vuy, 4, 2, 16);
  const uint8_t colours[] = {'n', 'c', 'l', 'c', 0, 1, 0, 1, 0, 1};
  ICMImageDescriptionSetProperty(description, kQTPropertyClass_ImageDescription,
                                 kICMImageDescriptionPropertyID_NCLCColorInfo, colours);
  SessionUnderTest test(description);
  Bytes frame = packedFrame(16, 3);
  const Bytes sent = frame;
  ASSERT_EQ(test.show(frame), noErr);
  frame.assign(frame.size(), 0);
  const auto picture = test.picture();
  EXPECT_EQ(Bytes(picture->data().begin(), picture->data().end()), sent);
  EXPECT_EQ(picture->pixelFormat(), k2vuy);
  EXPECT_EQ(picture->colour(), (YCbCrColour{YCbCrColour::Matrix::kBT709, false}));
  EXPECT_EQ(test.show(packedFrame(17, 0)), codecBadDataErr);
}

TEST(DecompressionSessionOptions, TakeAnAccuracyOfFourBytes) {
  const auto options = ICMDecompressionSessionOptions::create();
  const uint32_t accuracy = 0x300;
  const auto bytes = std::as_bytes(std::span(&accuracy, 1));
  constexpr uint32_t kClass = kQTPropertyClass_ICMDecompressionSessionOptions;
  constexpr uint32_t kAccuracy = kICMDecompressionSessionOptionsPropertyID_Accuracy;
  EXPECT_EQ(options->setProperty(kClass, kAccuracy, bytes.first(2)), paramErr);
  EXPECT_EQ(options->setProperty(kClass, kClass, bytes), kICMPropertyNotFoundErr);
  EXPECT_EQ(options->accuracy(), codecNormalQuality);
  EXPECT_EQ(options->setProperty(kClass, kAccuracy, bytes), noErr);
  EXPECT_EQ(options->accuracy(), accuracy);
}

}  // namespace
}  // namespace vesk
