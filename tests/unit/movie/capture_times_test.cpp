#include "movie/capture_times.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace vesk {
namespace {

struct Camera {
  double rate;           ///< frames a second
  double jitter = 0;     ///< milliseconds that a stamp may be early or late
  double lost = 0;       ///< of all frames
  double laterRate = 0;  ///< from the middle on; 0 for the same
  int seconds = 60;
};

struct Frame {
  uint64_t stamp;
  double time;  ///< when it was really taken
  uint64_t placed;
};

std::vector<Frame> film(const Camera& camera) {
  std::mt19937 random(static_cast<unsigned>(camera.rate * 1000 + camera.jitter));
  std::uniform_real_distribution<double> jitter(-camera.jitter * 1000, camera.jitter * 1000);
  std::uniform_real_distribution<double> chance(0, 1);
  const auto count = static_cast<int>(camera.rate * camera.seconds);
  CaptureTimes times;
  std::vector<Frame> frames;
  double time = 100'000;
  uint64_t last = 0;
  for (int i = 0; i < count; ++i) {
    time += 1e6 / (camera.laterRate > 0 && i >= count / 2 ? camera.laterRate : camera.rate);
    if (i > 0 && chance(random) < camera.lost) continue;
    last = std::max(last, static_cast<uint64_t>(std::llround(time + jitter(random))));
    frames.push_back({last, time, times.place(last)});
  }
  return frames;
}

double farthest(const Camera& camera) {
  return std::min(250'000 / camera.rate, 8'000.0) + 1;
}

TEST(CaptureTimes, GiveACameraOfConstantRateConstantDurations) {
  for (const double rate : {15.0, 24.0, 25.0, 30'000 / 1001.0, 30.0, 50.0, 60'000 / 1001.0, 60.0, 120.0}) {
    for (const double jitter : {0.0, 2.0, 5.0}) {
      for (const double lost : {0.0, 0.01}) {
        const Camera camera{rate, jitter, lost};
        SCOPED_TRACE(testing::Message() << rate << " a second, jitter " << jitter << " ms, lost " << lost);
        // Where stamps scatter by more than a quarter of the interval, none says at once whether a frame is
        // late or one was lost.
        const bool isClear = lost == 0 || jitter * 1000 <= 250'000 / rate;
        const auto frames = film(camera);
        const double interval = 1e6 / rate;
        std::vector<double> unevenness;
        for (size_t i = 1; i < frames.size(); ++i) {
          const auto placed = static_cast<double>(frames[i].placed);
          ASSERT_GT(frames[i].placed, frames[i - 1].placed) << i;
          ASSERT_LE(std::abs(placed - static_cast<double>(frames[i].stamp)), 8'001) << i;
          if (frames[i].time < 600'000 || !isClear) continue;  // the rate is known after half a second
          ASSERT_LE(std::abs(placed - frames[i].time), farthest(camera)) << i;
          if (frames[i].time < 1e6) continue;
          const auto duration = static_cast<double>(frames[i].placed - frames[i - 1].placed);
          const double intervals = std::round((frames[i].time - frames[i - 1].time) / interval);
          unevenness.push_back(std::abs(duration / intervals - interval));
        }
        if (!isClear) continue;
        std::sort(unevenness.begin(), unevenness.end());
        EXPECT_LE(unevenness[unevenness.size() / 2], 5);
        EXPECT_LE(unevenness[unevenness.size() * 95 / 100], jitter == 0 ? 1 : 300);
        EXPECT_LE(unevenness.back(), jitter == 0 ? 1 : interval / 4);
      }
    }
  }
}

TEST(CaptureTimes, FollowARateThatChangesWithinHalfASecond) {
  for (const auto& [before, after] : {std::pair{30.0, 15.0}, {15.0, 30.0}, {30.0, 25.0}, {30.0, 29.0}, {60.0, 20.0}}) {
    const Camera camera{before, 1, 0, after, 20};
    SCOPED_TRACE(testing::Message() << before << " to " << after);
    const auto frames = film(camera);
    const size_t change = frames.size() / 2;
    for (size_t i = change; i < frames.size(); ++i) {
      const double error = static_cast<double>(frames[i].placed) - static_cast<double>(frames[i].stamp);
      ASSERT_LE(std::abs(error), std::min(250'000 / std::min(before, after), 8'000.0) + 1) << i - change;
      if (frames[i].time - frames[change].time < 500'000) continue;
      const auto duration = static_cast<double>(frames[i].placed - frames[i - 1].placed);
      ASSERT_NEAR(duration, 1e6 / after, 2'500) << i - change;
    }
  }
}

TEST(CaptureTimes, ShowGapsAsTheyAre) {
  CaptureTimes times;
  uint64_t stamp = 1'000'000;
  uint64_t last = 0;
  for (int i = 0; i < 60; ++i) last = times.place(stamp += 40'000);
  EXPECT_EQ(last, stamp);
  EXPECT_EQ(times.place(stamp += 120'000), stamp) << "two lost";
  EXPECT_EQ(times.duration(), 120'000U);
  EXPECT_EQ(times.place(stamp += 1'800'000'000), stamp) << "half an hour";
  EXPECT_LE(times.duration(), 1'000'000U) << "the last frame of a movie lasts a second at most";
  EXPECT_EQ(times.place(stamp += 40'000), stamp);
  EXPECT_EQ(times.place(stamp), stamp + 1) << "equal stamps";
  EXPECT_EQ(times.place(stamp), stamp + 2);
}

TEST(CaptureTimes, StayNearAnyStamps) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    CaptureTimes times;
    uint64_t stamp = random() % 1000;
    uint64_t last = 0;
    for (int i = 0; i < 200; ++i) {
      const uint64_t placed = times.place(stamp);
      ASSERT_TRUE(i == 0 || placed > last);
      ASSERT_LE(placed, std::max(stamp + 8'000, last + 1));
      ASSERT_GE(placed + 8'000, stamp);
      last = placed;
      stamp += random() % (random() % 4 == 0 ? 2'000'000 : 50'000);
    }
  }
}

}  // namespace
}  // namespace vesk
