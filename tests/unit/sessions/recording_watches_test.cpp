#include "sessions/recording_watches.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <vesk/four_char_code.h>
#include "sessions/sound_watch.h"

namespace vesk {
namespace {

using std::chrono::seconds;

constexpr WatchClock::time_point kStart{};

TEST(DiskWatch, WarnsOnceAndEndsInTime) {
  constexpr uint64_t kRate = 1'000'000;  // bytes a second
  struct Row {
    int second;
    uint64_t secondsOfRoom;
    DiskWatch::Verdict verdict;
  };
  DiskWatch watch;
  watch.restart(kStart);
  RecordingStatistics statistics;
  for (const Row& row : {Row{1, 100, DiskWatch::Verdict::kEnough},  // nobody knows the rate yet
                         Row{3, 100, DiskWatch::Verdict::kEnough},  // nor has it been seen for long
                         Row{6, 400, DiskWatch::Verdict::kEnough}, Row{7, 250, DiskWatch::Verdict::kFilling},
                         Row{8, 240, DiskWatch::Verdict::kEnough}, Row{9, 320, DiskWatch::Verdict::kEnough},
                         Row{10, 290, DiskWatch::Verdict::kEnough}, Row{11, 900, DiskWatch::Verdict::kEnough},
                         Row{12, 290, DiskWatch::Verdict::kFilling}, Row{13, 5, DiskWatch::Verdict::kEnough},
                         Row{14, 2, DiskWatch::Verdict::kEnough}, Row{15, 50, DiskWatch::Verdict::kEnough},
                         Row{16, 2, DiskWatch::Verdict::kEnough}, Row{17, 1, DiskWatch::Verdict::kFull}}) {
    statistics.duration = static_cast<uint64_t>(row.second) * 1'000'000;
    statistics.bytes = static_cast<uint64_t>(row.second) * kRate;
    const uint64_t room = row.secondsOfRoom * kRate + (256 << 10);
    EXPECT_EQ(watch.look(room, statistics, kStart + seconds(row.second)), row.verdict) << row.second;
    EXPECT_EQ(watch.secondsLeft().has_value(), row.second >= 2);
    if (watch.secondsLeft()) {
      EXPECT_NEAR(*watch.secondsLeft(), static_cast<double>(row.secondsOfRoom), 0.5);
    }
  }
}

TEST(DiskWatch, KeepsRoomForTheIndexAndForWhatGrowsFasterThanItsTime) {
  RecordingStatistics statistics{
      .videoFrames = 432'000, .audioPackets = 675'000, .duration = 14'400'000'000, .bytes = 1'000'000'000};
  DiskWatch watch;
  watch.restart(kStart);
  watch.look(uint64_t{1} << 40, statistics, kStart);
  const auto isFull = [&](uint64_t room) {
    watch.look(room, statistics, kStart + seconds(1));
    return watch.look(room, statistics, kStart + seconds(2)) == DiskWatch::Verdict::kFull;
  };
  EXPECT_TRUE(isFull(25'000'000)) << "an index of 27 MB";
  EXPECT_FALSE(isFull(29'000'000));
  statistics.isDiskShort = true;
  statistics.bytesReserved = 25'000'000;
  EXPECT_TRUE(isFull(900'000'000)) << "a quota leaves less than the disk has";
  statistics.isDiskShort = false;
  watch.look(900'000'000, statistics, kStart + seconds(3));
  statistics.bytes += 500'000'000;
  watch.look(900'000'000, statistics, kStart + seconds(4));
  statistics.bytes += 500'000'000;
  EXPECT_EQ(watch.look(900'000'000, statistics, kStart + seconds(5)), DiskWatch::Verdict::kFull) << "500 MB a second";
}

TEST(StallWatch, ReportsEachStallOnceAndItsEnd) {
  StallWatch watch;
  watch.restart(kStart);
  struct Row {
    int second;
    uint64_t count;
    StallWatch::Change change;
  };
  for (const Row& row : {Row{4, 0, StallWatch::Change::kNone}, Row{5, 0, StallWatch::Change::kStalled},
                         Row{9, 0, StallWatch::Change::kNone}, Row{10, 1, StallWatch::Change::kResumed},
                         Row{14, 1, StallWatch::Change::kNone}, Row{15, 1, StallWatch::Change::kStalled}})
    EXPECT_EQ(watch.look(row.count, kStart + seconds(row.second)), row.change) << row.second;
}

TEST(QuietWatch, ReportsEachSilenceOnceAndLaterEachTime) {
  QuietWatch watch;
  struct Row {
    double quiet;
    std::optional<double> reported;
  };
  for (const Row& row : {Row{9, {}}, Row{10, 10}, Row{11, {}}, Row{0, {}}, Row{15, {}}, Row{20, 20}, Row{25, {}},
                         Row{0, {}}, Row{30, {}}, Row{40, 40}})
    EXPECT_EQ(watch.look(row.quiet), row.reported) << row.quiet;
}

CMAudioFormatDescriptionRef format(uint32_t codec, uint32_t channels) {
  AudioStreamBasicDescription description;
  description.mFormatID = codec;
  description.mSampleRate = 48000;
  description.mChannelsPerFrame = channels;
  description.mBitsPerChannel = 16;
  return CMAudioFormatDescription::create(description);
}

/// `count` packets of 10 ms with this value in the last channel and nothing in the others.
void send(SoundWatch& watch, int count, int16_t value, uint32_t channels = 1) {
  std::vector<int16_t> packet(size_t{480} * channels);
  for (size_t i = channels - 1; i < packet.size(); i += channels) packet[i] = value;
  for (int i = 0; i < count; ++i)
    watch.didCaptureFrame(packet.data(), static_cast<uint32_t>(packet.size() * sizeof(int16_t)), i, nullptr);
}

TEST(SoundWatch, MeasuresTheLoudestChannel) {
  for (const uint32_t channels : {1U, 2U, 12U}) {
    SoundWatch watch(*format(kWaveFormatLinearPCM, channels));
    send(watch, 1, channels > 8 ? 0 : 3277, channels);
    if (channels > 8)
      EXPECT_TRUE(std::isinf(watch.level()));
    else
      EXPECT_NEAR(watch.level(), -20, 0.1);
  }
}

TEST(SoundWatch, KnowsForHowLongItHasBeenQuiet) {
  SoundWatch watch(*format(kWaveFormatLinearPCM, 2));
  EXPECT_EQ(watch.quietFor(), 0);
  send(watch, 500, 20, 2);  // -64 dB
  EXPECT_FALSE(watch.wasHeard());
  EXPECT_NEAR(watch.quietFor(), 5, 0.01);
  send(watch, 1, 60, 2);  // -55 dB
  EXPECT_TRUE(watch.wasHeard());
  EXPECT_EQ(watch.quietFor(), 0);
  send(watch, 100, 0, 2);
  EXPECT_NEAR(watch.quietFor(), 1, 0.01);
}

TEST(SoundWatch, DoesNotMeasureWhatIsNotPlainSound) {
  SoundWatch watch(*format(kWaveFormatAAC, 2));
  send(watch, 2000, 0, 2);
  EXPECT_FALSE(watch.isMeasuring());
  EXPECT_EQ(watch.quietFor(), 0);
}

TEST(SoundWatch, TakesPacketsOfAnyLength) {
  SoundWatch watch(*format(kWaveFormatLinearPCM, 2));
  std::vector<uint8_t> bytes(7, 0x7F);
  for (uint32_t length = 0; length <= bytes.size(); ++length) watch.didCaptureFrame(bytes.data(), length, 0, nullptr);
  EXPECT_NEAR(watch.level(), 0, 0.1);
}

}  // namespace
}  // namespace vesk
