#include "platform/metering/power_meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

namespace vesk {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kRate = 48000;
const PowerMeter::Clock::time_point kNow{1h};

/// `frames` frames with a sine of `peak` (1 is full scale) in the channel and silence in the others.
std::vector<int16_t> sine(double peak, uint32_t channels, uint32_t channel, size_t frames) {
  std::vector<int16_t> samples(frames * channels);
  for (size_t i = 0; i < frames; ++i) {
    const double angle = 2 * std::numbers::pi * 997.0 * static_cast<double>(i) / kRate;
    samples[i * channels + channel] = static_cast<int16_t>(std::lrint(peak * 32767 * std::sin(angle)));
  }
  return samples;
}

TEST(PowerMeter, TellsTheMeanSquareOfEachChannel) {
  for (const uint32_t channels : {1U, 2U, 3U, 8U, 10U}) {
    for (uint32_t loud = 0; loud < std::min(channels, PowerMeter::kMostChannels); ++loud) {
      PowerMeter meter(channels, kRate);
      meter.add(sine(0.1, channels, loud, kRate / 10), kNow);
      for (uint32_t channel = 0; channel < meter.channels(); ++channel)
        EXPECT_NEAR(meter.averagePowerLevel(channel, kNow), channel == loud ? -23.01F : kSilenceLevel, 0.05F)
            << channel << " of " << channels;
    }
  }
}

TEST(PowerMeter, StaysRightAtTheExtremes) {
  PowerMeter loudest(2, kRate);
  for (int i = 0; i < 100; ++i) loudest.add(std::vector<int16_t>(8192, INT16_MIN), kNow);
  EXPECT_FLOAT_EQ(loudest.averagePowerLevel(0, kNow), 0.0F);
  EXPECT_FLOAT_EQ(loudest.averagePowerLevel(1, kNow), 0.0F);

  PowerMeter silent(1, kRate);
  silent.add(std::vector<int16_t>(4800), kNow);
  EXPECT_EQ(silent.averagePowerLevel(0, kNow), kSilenceLevel);
  EXPECT_EQ(silent.averagePowerLevel(7, kNow), kSilenceLevel);

  PowerMeter none(0, 0);
  none.add(std::vector<int16_t>(10, 1000), kNow);
  EXPECT_EQ(none.channels(), 0U);
  EXPECT_EQ(none.averagePowerLevel(0, kNow), kSilenceLevel);
}

TEST(PowerMeter, ForgetsWhatLiesBehindItsWindow) {
  PowerMeter meter(1, kRate);
  meter.add(sine(0.5, 1, 0, kRate), kNow);  // a packet longer than the window
  for (int i = 0; i < 2; ++i) meter.add(std::vector<int16_t>(1024), kNow);
  EXPECT_GT(meter.averagePowerLevel(0, kNow), -40.0F) << "two short packets do not fill the window";
  meter.add(std::vector<int16_t>(1024), kNow);
  EXPECT_EQ(meter.averagePowerLevel(0, kNow), kSilenceLevel);
  meter.add(sine(0.01, 1, 0, 4800), kNow);
  EXPECT_NEAR(meter.averagePowerLevel(0, kNow), -43.0F, 0.2F);
}

TEST(PowerMeter, FallsSilentWhenNothingComesAnyMore) {
  PowerMeter meter(1, kRate);
  meter.add(sine(0.5, 1, 0, 4800), kNow);
  EXPECT_GT(meter.averagePowerLevel(0, kNow + 400ms), -10.0F);
  EXPECT_EQ(meter.averagePowerLevel(0, kNow + 600ms), kSilenceLevel);
}

}  // namespace
}  // namespace vesk
