#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "capture/linux/sound_clock.h"
#include "capture/linux/sound_packetizer.h"
#include "platform/media/four_char_code.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kRate = 48000;
constexpr int64_t kStart = 86'400'000'000;  // a day of running before the capture

/// A microphone whose crystal is off, read through a server that measures with jitter.
class Device {
 public:
  Device(double partsPerMillion, double jitter) : mPeriod(1e6 / kRate / (1 + partsPerMillion / 1e6)), mJitter(jitter) {}

  double truth() const { return kStart + static_cast<double>(mFrame) * mPeriod; }
  int64_t measure() {
    std::uniform_real_distribution<double> spread(-mJitter, mJitter);
    return std::llround(truth() + spread(mRandom));
  }
  void advance(uint64_t frames) { mFrame += frames; }

 private:
  const double mPeriod;
  const double mJitter;
  uint64_t mFrame = 0;
  std::mt19937 mRandom{7};
};

class Drift : public testing::TestWithParam<double> {};

TEST_P(Drift, StampsFollowTheDeviceForAnHourWithoutJitterOrStepsBack) {
  Device device(GetParam(), 8000);
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

/// The movie counts frames and does not look at stamps: the count must follow the clock as well.
TEST_P(Drift, CountOfFramesStaysWithTheMonotonicClockForAnHour) {
  Device device(GetParam(), 8000);
  int64_t first = 0;
  int64_t packets = 0;
  double worst = 0;
  int64_t lastStamp = 0;
  SoundPacketizer packetizer({kWaveFormatLinearPCM, 1, kRate, 16}, [&](uint8_t*, uint32_t length, int64_t timestamp) {
    EXPECT_EQ(length, 1920U);
    if (packets == 0) first = timestamp;
    EXPECT_GE(timestamp, lastStamp);
    lastStamp = timestamp;
    ++packets;
    return true;
  });
  const std::vector<uint8_t> portion(480 * 2);
  while (device.truth() < kStart + 3600e6) {
    packetizer.add(portion, device.measure());
    device.advance(480);
    const double counted = static_cast<double>(first + packets * 20'000);
    if (packets > 0) worst = std::max(worst, std::abs(counted - device.truth()));
  }
  EXPECT_LT(worst, 40'000);  // up to one packet of it waits to be completed
}

INSTANTIATE_TEST_SUITE_P(Crystals, Drift, testing::Values(-200.0, 0.0, 200.0));

TEST(SoundClock, IgnoresOutliersAndFollowsALastingJump) {
  Device device(0, 0);
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
  Device device(0, 0);
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

struct Packet {
  std::vector<int16_t> samples;
  int64_t timestamp;
};

SoundPacketizer collecting(const WaveFormat& format, std::vector<Packet>& packets) {
  return {format, [&packets](const uint8_t* bytes, uint32_t length, int64_t timestamp) {
            const auto* samples = reinterpret_cast<const int16_t*>(bytes);
            packets.push_back({{samples, samples + length / 2}, timestamp});
            return true;
          }};
}

TEST(SoundPacketizer, MakesEqualPacketsOfPortionsThatSplitFrames) {
  std::vector<Packet> packets;
  auto packetizer = collecting({kWaveFormatLinearPCM, 2, 16000, 16}, packets);
  std::vector<uint8_t> bytes;
  for (int16_t frame = 0; frame < 3200; ++frame) {  // left counts up, right counts down
    for (const int16_t sample : {frame, static_cast<int16_t>(-frame)}) {
      bytes.push_back(static_cast<uint8_t>(sample & 0xFF));
      bytes.push_back(static_cast<uint8_t>(sample >> 8 & 0xFF));
    }
  }
  size_t at = 0;
  for (size_t size = 1; at < bytes.size(); size = size % 97 + 1) {
    const size_t count = std::min(size, bytes.size() - at);
    packetizer.add(std::span(bytes).subspan(at, count), kStart + static_cast<int64_t>(at / 4) * 1'000'000 / 16000);
    at += count;
  }
  ASSERT_EQ(packets.size(), 9U);  // the tenth lacks the frames that the interpolation holds back
  int expected = 0;
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(packets[i].timestamp),
                static_cast<double>(kStart + static_cast<int64_t>(i) * 20'000), 100);
    ASSERT_EQ(packets[i].samples.size(), 640U);
    for (size_t sample = 0; sample < 640; sample += 2, ++expected) {
      ASSERT_NEAR(packets[i].samples[sample], expected, 1);
      ASSERT_NEAR(packets[i].samples[sample + 1], -expected, 1);
    }
  }
}

TEST(SoundPacketizer, LeavesWhatWasLostAsAGapAfterAPacketFilledWithSilence) {
  struct Row {
    const char* label;
    uint64_t told;  ///< frames that lose() is told
  };
  for (const Row& row : {Row{"counted", 9600}, Row{"uncounted", 0}}) {
    SCOPED_TRACE(row.label);
    std::vector<Packet> packets;
    auto packetizer = collecting({kWaveFormatLinearPCM, 1, kRate, 16}, packets);
    const std::vector<int16_t> loud(480, 1000);
    const std::span<const uint8_t> portion(reinterpret_cast<const uint8_t*>(loud.data()), 960);
    for (int i = 0; i < 5; ++i) packetizer.add(portion, kStart + i * 10'000);
    packetizer.lose(row.told);
    for (int i = 25; i < 35; ++i) packetizer.add(portion, kStart + i * 10'000);
    ASSERT_GE(packets.size(), 6U);
    EXPECT_EQ(packets[2].samples.front(), 1000);
    EXPECT_EQ(packets[2].samples.back(), 0);
    EXPECT_EQ(packets[3].samples.front(), 1000);
    EXPECT_NEAR(static_cast<double>(packets[2].timestamp), kStart + 40'000, 200);
    EXPECT_NEAR(static_cast<double>(packets[3].timestamp), kStart + 250'000, 200);
  }
}

/// The server's latency is wrong for a while, by turns or once. What the movie counts stays with what was
/// recorded, and hardly any silence is put in for sound that was never lost.
TEST(SoundPacketizer, GlitchesOfTheLatencyNeitherAddUpNorLast) {
  struct Row {
    const char* label;
    int64_t by;              ///< microseconds that the measurement is off
    int every, for_, until;  ///< hundredths of a second
    double afterwards;       ///< microseconds that the count may be off half a minute later
    int64_t silence;         ///< microseconds, at most
  };
  const Row rows[] = {
      {"late for a moment", -200'000, 100'000, 20, 6000, 1'000, 0},
      {"late for ten seconds", -200'000, 100'000, 1000, 6000, 2'000, 35'000},
      {"early for a moment", 200'000, 100'000, 20, 6000, 1'000, 0},
      {"early for ten seconds", 200'000, 100'000, 1000, 6000, 120'000, 205'000},
      {"late each second", -60'000, 100, 30, 6000, 1'000, 0},
      {"early each second", 60'000, 100, 30, 6000, 1'000, 0},
      {"late every few seconds", -60'000, 300, 150, 6000, 5'000, 70'000},
      {"early every few seconds", 60'000, 300, 150, 6000, 45'000, 130'000},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    int64_t packets = 0;
    int64_t gaps = 0;
    int64_t last = kStart - 20'000;
    SoundPacketizer packetizer({kWaveFormatLinearPCM, 1, kRate, 16}, [&](uint8_t*, uint32_t, int64_t timestamp) {
      gaps += std::max<int64_t>(timestamp - last - 20'000, 0);
      last = timestamp;
      ++packets;
      return true;
    });
    const std::vector<uint8_t> portion(480 * 2);
    Device device(0, 2'000);
    for (int i = 0; i < row.until + 3000; ++i) {
      const int phase = (i - 1000) % row.every;
      const bool isOff = i >= 1000 && i < row.until && phase < row.for_;
      packetizer.add(portion, device.measure() + (isOff ? row.by : 0));
      device.advance(480);
    }
    EXPECT_NEAR(static_cast<double>(last), device.truth() - 20'000, 20'000 + row.afterwards);
    EXPECT_LE(gaps, row.silence + 1'000);
  }
}

TEST(SoundResampler, KeepsATonePureWhileItShiftsTheRate) {
  SoundResampler resampler(1);
  std::vector<int16_t> in(48000);
  const double turn = 2 * std::numbers::pi * 1000 / kRate;
  for (size_t i = 0; i < in.size(); ++i) {
    in[i] = static_cast<int16_t>(std::lround(20000 * std::sin(turn * static_cast<double>(i))));
  }
  std::vector<int16_t> out;
  constexpr double kSpeed = 1.0005;
  for (size_t at = 0; at < in.size(); at += 480) resampler.process(std::span(in).subspan(at, 480), kSpeed, out);
  EXPECT_NEAR(static_cast<double>(out.size()), 48000 / kSpeed, 3);
  for (size_t i = 4; i < out.size(); ++i) {
    ASSERT_NEAR(out[i], 20000 * std::sin(turn * static_cast<double>(i) * kSpeed), 12) << i;
  }
}

}  // namespace
}  // namespace vesk::capture
