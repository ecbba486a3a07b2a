#include "apps/vesk/log_lines.h"

#include <gtest/gtest.h>

namespace vesk::program {
namespace {

using std::chrono::seconds;

constexpr LogLines::Clock::time_point kStart{};

TEST(LogLines, CountsWhatComesAgain) {
  LogLines lines;
  EXPECT_TRUE(lines.take("sound was lost 1 time", kStart));
  EXPECT_TRUE(lines.take("the camera is late", kStart));
  for (int i = 2; i < 12; ++i)
    EXPECT_FALSE(lines.take("sound was lost " + std::to_string(i) + " time", kStart + seconds(i)));
  EXPECT_EQ(lines.take("sound was lost 99 time", kStart + seconds(60)),
            "vesk: sound was lost 99 time (11 times since it was last said)");
  EXPECT_FALSE(lines.take("sound was lost 100 time", kStart + seconds(61)));
  EXPECT_EQ(lines.counts(), std::vector<std::string>{"vesk: 1 more like this: sound was lost 99 time"});
  EXPECT_TRUE(lines.counts().empty());
}

TEST(LogLines, DoesNotGrowWithoutEnd) {
  LogLines lines;
  for (char first = 'a'; first <= 'z'; ++first)
    for (char second = 'a'; second <= 'z'; ++second) EXPECT_TRUE(lines.take(std::string{'x', first, second}, kStart));
  EXPECT_TRUE(lines.take("xaa", kStart)) << "forgotten meanwhile";
}

}  // namespace
}  // namespace vesk::program
