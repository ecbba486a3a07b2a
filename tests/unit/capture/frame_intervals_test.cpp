#include "capture/interface/frame_intervals.h"

#include <gtest/gtest.h>

namespace vesk::capture {
namespace {

TEST(FrameIntervals, TheNearestIsTakenAndNoneTooFastForSteadyMoviesUnasked) {
  struct Row {
    const char* label;
    std::vector<uint32_t> offered;
    uint64_t asked;
    std::optional<uint32_t> taken;
  };
  const Row rows[] = {{"the very one", {166667, 333333, 666667}, 333333, 333333},
                      {"cut off in writing", {166667, 333667, 666667}, 166666, 166667},
                      {"the nearest", {333333, 400000, 666667}, 416667, 400000},
                      {"30 a second: 60 is too fast", {166667, 666667}, 333333, 666667},
                      {"33 a second: 34 is too fast", {294117, 1000000}, 303030, 1000000},
                      {"30 ms are not", {300000, 1000000}, 333333, 300000},
                      {"there is no other", {83333, 166667}, 333333, 166667},
                      {"60 asked for", {166667, 333333}, 166667, 166667},
                      {"50 asked for", {166667, 333333}, 200000, 166667},
                      {"nothing", {}, 333333, std::nullopt}};
  for (const Row& row : rows) EXPECT_EQ(nearestInterval(row.offered, row.asked), row.taken) << row.label;
}

TEST(FrameIntervals, RatesAreThoseThatPeopleWrite) {
  EXPECT_EQ(rateText(333333), "30");
  EXPECT_EQ(rateText(333667), "29.97");
  EXPECT_EQ(rateText(166667), "60");
  EXPECT_EQ(rateText(1333333), "7.5");
  EXPECT_TRUE(isSameRate(333667, 333333));
  EXPECT_FALSE(isSameRate(400000, 416667)) << "25 and 24";
  EXPECT_EQ(askedInterval({0, 0, 0, 1, 60, 0}), 166666u);
  EXPECT_EQ(askedInterval({0, 0, 0, 1, 0, 0}), 0u);
}

}  // namespace
}  // namespace vesk::capture
