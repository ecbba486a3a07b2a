#include "capture/linux/sound/packetizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <vesk/four_char_code.h>
#include "tests/support/drifting_microphone.h"

namespace vesk::capture {
namespace {

using test::DriftingMicrophone;

constexpr uint32_t kRate = 48000;
constexpr int64_t kStart = 86'400'000'000;  // a day of running before the capture
constexpr uint32_t kSpeechRate = 8000;
constexpr uint32_t kLowRate = 1000;

class SoundPacketizerDrift : public testing::TestWithParam<double> {};

/// The movie counts frames and does not look at stamps: the count must follow the clock as well. How many
/// frames there are a second makes no difference to that, only to the time that it takes.
TEST_P(SoundPacketizerDrift, CountOfFramesStaysWithTheMonotonicClockForFourHours) {
  DriftingMicrophone device(kLowRate, GetParam(), 8000, kStart);
  int64_t first = 0;
  int64_t packets = 0;
  double worst = 0;
  int64_t lastStamp = 0;
  SoundPacketizer packetizer({kWaveFormatLinearPCM, 1, kLowRate, 16},
                             [&](uint8_t*, uint32_t length, int64_t timestamp) {
                               EXPECT_EQ(length, 40U);
                               if (packets == 0) first = timestamp;
                               EXPECT_GE(timestamp, lastStamp);
                               lastStamp = timestamp;
                               ++packets;
                               return true;
                             });
  const std::vector<uint8_t> portion(10 * 2);
  while (device.truth() < kStart + 4 * 3600e6) {
    packetizer.add(portion, device.measure());
    device.advance(10);
    const double counted = static_cast<double>(first + packets * 20'000);
    if (packets > 0) worst = std::max(worst, std::abs(counted - device.truth()));
  }
  EXPECT_LT(worst, 40'000);  // up to one packet of it waits to be completed
}

INSTANTIATE_TEST_SUITE_P(Crystals, SoundPacketizerDrift, testing::Values(-500.0, 500.0));

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

/// A movie fills a jump of whole packets exactly.
TEST(SoundPacketizer, LeavesWhatWasLostAsAGapOfWholePacketsBetweenSilence) {
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
    EXPECT_EQ(packets[2].timestamp, kStart + 40'000);
    EXPECT_EQ(packets[3].timestamp, kStart + 240'000);
    EXPECT_EQ(packets[3].samples[479], 0);
    EXPECT_EQ(packets[3].samples[480], 1000) << "at 250 ms";
  }
}

/// The server's latency is wrong for a while, by turns or once. What the movie counts stays with what was
/// recorded, and hardly any silence is put in for sound that was never lost.
TEST(SoundPacketizer, GlitchesOfTheLatencyNeitherAddUpNorLast) {
  const struct {
    const char* label;
    int64_t by;              ///< microseconds that the measurement is off
    int every, for_, until;  ///< hundredths of a second
    double afterwards;       ///< microseconds that the count may be off half a minute later
    int64_t silence;         ///< microseconds, at most
  } rows[] = {
      {"late for a moment", -200'000, 100'000, 20, 6000, 1'000, 0},
      {"late for ten seconds", -200'000, 100'000, 1000, 6000, 2'000, 35'000},
      {"early for a moment", 200'000, 100'000, 20, 6000, 1'000, 0},
      {"early for ten seconds", 200'000, 100'000, 1000, 6000, 120'000, 205'000},
      {"late each second", -60'000, 100, 30, 6000, 1'000, 0},
      {"early each second", 60'000, 100, 30, 6000, 1'000, 0},
      {"late every few seconds", -60'000, 300, 150, 6000, 5'000, 70'000},
      {"early every few seconds", 60'000, 300, 150, 6000, 45'000, 130'000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    int64_t packets = 0;
    int64_t gaps = 0;
    int64_t last = kStart - 20'000;
    SoundPacketizer packetizer({kWaveFormatLinearPCM, 1, kSpeechRate, 16}, [&](uint8_t*, uint32_t, int64_t timestamp) {
      gaps += std::max<int64_t>(timestamp - last - 20'000, 0);
      last = timestamp;
      ++packets;
      return true;
    });
    const std::vector<uint8_t> portion(80 * 2);
    DriftingMicrophone device(kSpeechRate, 0, 2'000, kStart);
    for (int i = 0; i < row.until + 3000; ++i) {
      const int phase = (i - 1000) % row.every;
      const bool isOff = i >= 1000 && i < row.until && phase < row.for_;
      packetizer.add(portion, device.measure() + (isOff ? row.by : 0));
      device.advance(80);
    }
    EXPECT_NEAR(static_cast<double>(last), device.truth() - 20'000, 20'000 + row.afterwards);
    EXPECT_LE(gaps, row.silence + 1'000);
  }
}

}  // namespace
}  // namespace vesk::capture
