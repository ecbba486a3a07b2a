#include "apps/vesk/argument_text.h"

#include <gtest/gtest.h>

#include <vesk/four_char_code.h>

namespace vesk::program {
namespace {

TEST(Durations, AreReadAsPeopleWriteThem) {
  struct Row {
    const char* text;
    double seconds;
  };
  for (const Row& row :
       {Row{"90", 90}, Row{"0.5", 0.5}, Row{"0", 0}, Row{"45s", 45}, Row{"1m30s", 90}, Row{"2h", 7200},
        Row{"1.5h", 5400}, Row{"1h30m", 5400}, Row{"1h1s", 3601}, Row{"1h2m3.5s", 3723.5}, Row{"90m", 5400}})
    EXPECT_EQ(readDuration(row.text), row.seconds) << row.text;
}

TEST(Durations, AreNothingElse) {
  for (const char* text :
       {"",     "nan",   "NaN",  "inf", "-inf", "infinity", "-1", "+1", "1e5",  "0x10", "1e400", "s",  "m30",
        "1m30", "30s1m", "1m1m", "1 m", " 1",   "1 ",       "1d", "1M", "1:30", "1,5",  ".5s",   "ten"})
    EXPECT_EQ(readDuration(text), std::nullopt) << text;
  EXPECT_EQ(readDuration(std::string(400, '9')), std::nullopt);
}

TEST(Formats, AreReadAsPeopleWriteThem) {
  constexpr uint32_t kH264 = kCMVideoCodecType_H264, kJPEG = kCMVideoCodecType_MotionJPEG,
                     kRaw = kCMPixelFormat_422YpCbCr8;
  struct Row {
    const char* text;
    std::optional<uint32_t> codec;
    int32_t width;
    int32_t height;
    std::optional<double> rate;
  };
  const std::optional<uint32_t> any;
  for (const Row& row :
       {Row{"h264", kH264, 0, 0, {}}, Row{"H264:1280x720@30", kH264, 1280, 720, 30},
        Row{"avc1:1280x720", kH264, 1280, 720, {}}, Row{"mjpeg", kJPEG, 0, 0, {}},
        Row{"dmb1:4k", kJPEG, 3840, 2160, {}}, Row{"raw:640X480", kRaw, 640, 480, {}}, Row{"2vuy", kRaw, 0, 0, {}},
        Row{"720p", any, 1280, 720, {}}, Row{"1080p@29.97", any, 1920, 1080, 29.97}, Row{"4K", any, 3840, 2160, {}},
        Row{"640x480:raw", kRaw, 640, 480, {}}, Row{"@25", any, 0, 0, 25},
        Row{"yuvs", fourCharCode("yuvs"), 0, 0, {}}}) {
    const auto wanted = readFormat(row.text);
    ASSERT_TRUE(wanted) << row.text;
    EXPECT_EQ(wanted->codec, row.codec) << row.text;
    EXPECT_EQ(wanted->width.value_or(0), row.width) << row.text;
    EXPECT_EQ(wanted->height.value_or(0), row.height) << row.text;
    EXPECT_EQ(wanted->rate, row.rate) << row.text;
  }
}

TEST(Formats, AreNothingElse) {
  for (const char* text :
       {"", "mp3", "h265x", "720", "h264:", ":720p", "h264:720p:1080p", "h264:mjpeg", "h264@", "@0", "@-5", "@nan",
        "@1e9", "h264@30@30", "0x480", "640x-480", "640x", "640x480x3", "99999999999x1"})
    EXPECT_FALSE(readFormat(text)) << text;
}

TEST(Formats, AreShownInTheWordsThatAreTyped) {
  EXPECT_EQ(codecName(kCMVideoCodecType_H264), "h264");
  EXPECT_EQ(codecName(kCMPixelFormat_422YpCbCr8), "raw");
  EXPECT_EQ(codecName(fourCharCode("yuvs")), "yuvs");
}

TEST(Endings, AreThoseOfTheLastPartOfTheName) {
  EXPECT_TRUE(hasEnding("a/lesson.MOV", {".mov", ".qt"}));
  EXPECT_FALSE(hasEnding("lesson.mov.mp4", {".mov", ".qt"}));
  EXPECT_FALSE(hasEnding("folder.mov/lesson", {".mov", ".qt"}));
  EXPECT_FALSE(hasEnding(".mov", {".mov"}));
}

}  // namespace
}  // namespace vesk::program
