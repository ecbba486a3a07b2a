#include "platform/media/sound_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "platform/media/sound_resampler.h"
#include "tests/support/drifting_microphone.h"

namespace vesk {
namespace {

using test::DriftingMicrophone;

constexpr uint32_t kRate = 48000;
constexpr int64_t kStart = 86'400'000'000;  // a day of running before the capture

class SoundClockDrift : public testing::TestWithParam<double> {};

TEST_P(SoundClockDrift, StampsFollowTheDeviceForAnHourWithoutJitterOrStepsBack) {
  DriftingMicrophone device(kRate, GetParam(), 8000, kStart);
  SoundClock clock(kRate);
  std::mt19937 sizes{3};
  std::uniform_int_distribution<uint64_t> size(200, 1300);
  int64_t last = 0;
  double worst = 0;
  double worstSettled = 0;
  while (device.truth() < kStart + 3600e6) {
    const uint64_t frames = size(sizes);
    const auto stamp = clock.next(device.measure(), frames);
    ASSERT_GE(stamp.time, last);
    ASSERT_EQ(stamp.missingTime, 0);
    last = stamp.time;
    const double error = std::abs(static_cast<double>(stamp.time) - device.truth());
    worst = std::max(worst, error);
    if (device.truth() > kStart + 120e6) worstSettled = std::max(worstSettled, error);
    device.advance(frames);
  }
  EXPECT_LT(worst, 20'000);
  EXPECT_LT(worstSettled, 1'500);
  EXPECT_NEAR(clock.speed(), 1 + GetParam() / 1e6, 60e-6);
}

INSTANTIATE_TEST_SUITE_P(Crystals, SoundClockDrift, testing::Values(-500.0, 0.0, 200.0));

TEST(SoundClock, IgnoresOutliersAndFollowsALastingJump) {
  DriftingMicrophone device(kRate, 0, 0, kStart);
  SoundClock clock(kRate);
  const auto next = [&](int64_t off) {
    const auto stamp = clock.next(device.measure() + off, 480);
    const auto error = static_cast<int64_t>(std::llround(static_cast<double>(stamp.time) - device.truth()));
    device.advance(480);
    return std::pair(error, stamp.missingTime);
  };
  for (int i = 0; i < 100; ++i) next(0);
  EXPECT_EQ(next(300'000), std::pair(int64_t{0}, int64_t{0}));
  EXPECT_EQ(next(0), std::pair(int64_t{0}, int64_t{0}));
  // A server's latency may be wrong by so much, but not for long; by more it never is.
  for (const auto& [jump, outliers] : {std::pair(300'000, 99), std::pair(600'000, 2)}) {
    for (int i = 0; i < outliers; ++i) EXPECT_EQ(next(jump), std::pair(int64_t{0}, int64_t{0})) << i;
    const auto [error, missing] = next(jump);
    EXPECT_NEAR(static_cast<double>(error), jump, 1);
    EXPECT_NEAR(static_cast<double>(missing), jump, 1);
    device.advance(static_cast<uint64_t>(jump) * kRate / 1'000'000);
  }
  // Time that seems to go back holds the stamps until the device has caught up.
  int64_t last = 0;
  for (int i = 0; i < 100; ++i) {
    const auto stamp = clock.next(device.measure() - 100'000, 480);
    EXPECT_GE(stamp.time, last);
    last = stamp.time;
    device.advance(480);
  }
}

TEST(SoundClock, KnowsWhatWasLostFromTheCountOrFromTheNextMeasurement) {
  DriftingMicrophone device(kRate, 0, 0, kStart);
  SoundClock clock(kRate);
  clock.next(device.measure(), 480);
  device.advance(480 + 4800);
  clock.lose(4800);
  auto stamp = clock.next(device.measure(), 480);
  EXPECT_NEAR(static_cast<double>(stamp.time), device.truth(), 1);
  device.advance(480 + 1440);  // 30 ms: too little to be noticed without being told
  clock.lose(0);
  stamp = clock.next(device.measure(), 480);
  EXPECT_NEAR(static_cast<double>(stamp.time), device.truth(), 1);
  EXPECT_NEAR(static_cast<double>(stamp.missingTime), 30'000, 1);
}

/// High ones as well: they must not tremble as the position goes from frame to frame.
TEST(SoundResampler, KeepsTonesPureWhileItShiftsTheRate) {
  for (const double frequency : {1'000.0, 6'000.0, 15'000.0}) {
    SCOPED_TRACE(frequency);
    SoundResampler resampler(1);
    std::vector<int16_t> in(48000);
    const double turn = 2 * std::numbers::pi * frequency / kRate;
    for (size_t i = 0; i < in.size(); ++i) {
      in[i] = static_cast<int16_t>(std::lround(20000 * std::sin(turn * static_cast<double>(i))));
    }
    std::vector<int16_t> out;
    constexpr double kSpeed = 1.0005;
    for (size_t at = 0; at < in.size(); at += 480) resampler.process(std::span(in).subspan(at, 480), kSpeed, out);
    EXPECT_NEAR(static_cast<double>(out.size()), 48000 / kSpeed, 10);
    double worst = 0;
    for (size_t i = 16; i < out.size(); ++i)
      worst = std::max(worst, std::abs(out[i] - 20000 * std::sin(turn * static_cast<double>(i) * kSpeed)));
    EXPECT_LT(worst, 3);
  }
}

}  // namespace
}  // namespace vesk
