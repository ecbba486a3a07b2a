#include "sessions/recording_watches.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace vesk
