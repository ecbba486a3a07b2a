#include <vesk/cm_time.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vesk {
namespace {

constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
constexpr int64_t kLeast = std::numeric_limits<int64_t>::min();
constexpr int32_t kMostScale = std::numeric_limits<int32_t>::max();

TEST(CMTime, ConvertsByTheMethodOfRounding) {
  struct Row {
    int64_t value;
    int32_t from, to;
    int64_t half, zero;
  };
  for (const auto& [value, from, to, half, zero] :
       {Row{1, 2, 1, 1, 0}, Row{-1, 2, 1, -1, 0}, Row{1, 3, 1, 0, 0}, Row{2, 3, 1, 1, 0}, Row{-2, 3, 1, -1, 0},
        Row{1000000, 1000000, 600, 600, 600}, Row{33333, 1000000, 600, 20, 19}, Row{7, 600, 1000000, 11667, 11666},
        Row{kMost, 1000000, 1, 9223372036855, 9223372036854}, Row{kLeast, 2, 1, kLeast / 2, kLeast / 2}}) {
    const auto time = CMTimeMake(value, from);
    EXPECT_EQ(CMTimeConvertScale(time, to).value, half) << value << "/" << from;
    EXPECT_EQ(CMTimeConvertScale(time, to, CMTimeRoundingMethod::kCMTimeRoundingMethod_RoundTowardZero).value, zero)
        << value << "/" << from;
  }
}

TEST(CMTime, AddsExactlyWhereAScaleHoldsBoth) {
  const auto sum = CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 4));
  EXPECT_EQ(sum.value, 7);
  EXPECT_EQ(sum.timescale, 12);
  const auto difference = CMTimeSubtract(CMTimeMake(1, 1000000), CMTimeMake(1, 48000));
  EXPECT_EQ(difference.timescale, 6000000);
  EXPECT_EQ(difference.value, 6 - 125);

  // No 32-bit number is a multiple of both: the larger scale, rounded.
  const auto rounded = CMTimeAdd(CMTimeMake(1, kMostScale), CMTimeMake(1, kMostScale - 1));
  EXPECT_EQ(rounded.timescale, kMostScale);
  EXPECT_EQ(rounded.value, 2);
}

TEST(CMTime, IsInvalidRatherThanWrong) {
  EXPECT_FALSE(CMTimeMake(1, 0).valid);
  EXPECT_FALSE(CMTimeMake(1, -600).valid);
  EXPECT_FALSE(CMTimeAdd(CMTimeMake(kMost, 1), CMTimeMake(1, 1)).valid);
  EXPECT_TRUE(CMTimeAdd(CMTimeMake(kMost - 1, 1), CMTimeMake(1, 1)).valid);
  EXPECT_FALSE(CMTimeSubtract(CMTimeMake(kLeast, 1), CMTimeMake(1, 1)).valid);
  EXPECT_FALSE(CMTimeMultiply(CMTimeMake(kMost / 2 + 1, 1), 2).valid);
  EXPECT_FALSE(CMTimeConvertScale(CMTimeMake(kMost, 1), 2).valid);
  EXPECT_FALSE(CMTimeConvertScale(CMTimeMake(1, 1), 0).valid);
  EXPECT_FALSE(CMTimeAdd(kCMTimeInvalid, kCMTimeZero).valid);
  EXPECT_TRUE(std::isnan(CMTimeGetSeconds(kCMTimeInvalid)));
}

TEST(CMTime, ComparesAcrossScalesWithoutOverflow) {
  EXPECT_EQ(CMTimeCompare(CMTimeMake(1, 2), CMTimeMake(500000, 1000000)), 0);
  EXPECT_LT(CMTimeCompare(CMTimeMake(kMost - 1, kMostScale), CMTimeMake(kMost, kMostScale)), 0);
  EXPECT_GT(CMTimeCompare(CMTimeMake(kMost, 1), CMTimeMake(kMost, 2)), 0);
  EXPECT_LT(CMTimeCompare(CMTimeMake(kLeast, 1), CMTimeMake(kLeast, kMostScale)), 0);
  EXPECT_GT(CMTimeCompare(kCMTimeInvalid, CMTimeMake(kMost, 1)), 0);
  EXPECT_EQ(CMTimeCompare(kCMTimeInvalid, CMTimeMake(0, 0)), 0);
}

}  // namespace
}  // namespace vesk
