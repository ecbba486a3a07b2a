#include "apps/vesk/log_lines.h"

#include <gtest/gtest.h>

namespace vesk::program {
namespace {

using std::chrono::seconds;

constexpr LogLines::Clock::time_point kStart{};

TEST(LogLines, LeavesOutWhatCommandsSayThemselves) {
  LogLines lines;
  for (const char* line : {"[FATAL]: Failed to insert sample!!!", "[FATAL] dropping packet!",
                           "Asset writer failed [The movie could not be written]",
                           "Starting writing [a.mov] with audio = (nil)", "[WARNING]: Inserting 1 silence packets!!!"})
    EXPECT_EQ(lines.take(line, kStart), std::nullopt) << line;
  EXPECT_TRUE(lines.counts().empty());
}

TEST(LogLines, ShowsTheRestInWordsAndUnderTheProgramsName) {
  LogLines lines;
  EXPECT_EQ(lines.take("[WARNING]: Headset: sound was lost 3 times", kStart), "vesk: Headset: sound was lost 3 times");
  EXPECT_EQ(lines.take("vesk: arrivals are not seen", kStart), "vesk: arrivals are not seen");
  EXPECT_EQ(lines.take("*** [Error] in converting to box format!!!", kStart),
            "vesk: a damaged picture came from the camera");
}

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
