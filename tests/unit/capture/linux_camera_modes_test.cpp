#include <gtest/gtest.h>

#include <vesk/four_char_code.h>
#include "capture/interface/frame_intervals.h"
#include "capture/linux/cameras/camera_modes.h"
#include "capture/linux/cameras/frame_clock.h"
#include "capture/linux/cameras/pixel_formats.h"
#include "capture/linux/nodes/open_node.h"
#include "tests/support/fake_v4l2.h"

namespace vesk::capture {
namespace {

using test::FakeV4L2;
using Intervals = std::vector<uint32_t>;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRaw = kCMPixelFormat_422YpCbCr8;

std::vector<CameraMode> modesOf(std::vector<FakeV4L2::Format> formats) {
  FakeV4L2 calls;
  calls.addNode("camera", {.formats = std::move(formats)});
  const int descriptor = calls.open("camera");
  std::vector<CameraMode> modes;
  addModes(calls, descriptor, 0, modes);
  calls.close(descriptor);
  return modes;
}

TEST(LinuxCameraModes, JoinsTheFormatsThatAreDeliveredAlike) {
  const auto modes = modesOf({{V4L2_PIX_FMT_YUYV, {{640, 480, {{1, 30}}}, {320, 240, {{1, 30}}}}},
                              {V4L2_PIX_FMT_UYVY, {{640, 480, {{1, 15}}}}},
                              {V4L2_PIX_FMT_MJPEG, {{1280, 720, {{1001, 30000}, {1, 10}, {1, 0}}}}},
                              {V4L2_PIX_FMT_SBGGR8, {{640, 480}}},
                              {V4L2_PIX_FMT_H264, {{0, 480}, {1920, 1080, {}}}}});
  const auto formats = formatsOf(modes);
  ASSERT_EQ(formats.size(), 3u);
  EXPECT_EQ(formats[0].codec, kCMVideoCodecType_H264);
  ASSERT_EQ(formats[0].sizes.size(), 1u);
  EXPECT_EQ(formats[0].sizes[0].intervals, Intervals({333333})) << "none listed";
  EXPECT_EQ(formats[1].codec, kCMVideoCodecType_MotionJPEG);
  EXPECT_EQ(formats[1].sizes[0].intervals, Intervals({333667, 1000000}));
  EXPECT_EQ(formats[2].codec, kRaw);
  ASSERT_EQ(formats[2].sizes.size(), 2u);
  EXPECT_EQ(formats[2].sizes[0].width, 320);
  EXPECT_EQ(formats[2].sizes[1].intervals, Intervals({333333, 666667}));
}

TEST(LinuxCameraModes, FindsTheFormatWithTheNearestInterval) {
  const auto modes =
      modesOf({{V4L2_PIX_FMT_YUYV, {{640, 480, {{1, 30}, {1, 15}}}}}, {V4L2_PIX_FMT_UYVY, {{640, 480, {{1, 15}}}}}});
  const auto found = [&](VideoParameters parameters) {
    const CameraMode* const mode = findMode(modes, parameters);
    return mode ? mode->format->fourcc : 0;
  };
  EXPECT_EQ(found({kRaw, 640, 480, 666667, 10000000, 0}), V4L2_PIX_FMT_UYVY) << "needs no conversion";
  EXPECT_EQ(found({kRaw, 640, 480, 1, 30, 0}), V4L2_PIX_FMT_YUYV);
  EXPECT_EQ(found({kRaw, 640, 480, 1, 25, 0}), V4L2_PIX_FMT_YUYV);
  EXPECT_EQ(found({kRaw, 640, 480, 1, 10, 0}), V4L2_PIX_FMT_UYVY);
  EXPECT_EQ(found({kRaw, 640, 480, 0, 0, 0}), 0u);
  EXPECT_EQ(found({kRaw, 640, 360, 1, 30, 0}), 0u);
  EXPECT_EQ(found({kCMVideoCodecType_H264, 640, 480, 1, 30, 0}), 0u);
}

TEST(LinuxCameraModes, TakesNoFasterModeForAnIntervalThatSteadyMoviesTake) {
  const auto modes =
      modesOf({{V4L2_PIX_FMT_YUYV, {{640, 480, {{1, 60}}}}}, {V4L2_PIX_FMT_UYVY, {{640, 480, {{1, 15}, {1, 50}}}}}});
  struct Row {
    VideoParameters asked;
    uint32_t fourcc;
    uint32_t interval;
  };
  for (const Row& row : {Row{{kRaw, 640, 480, 333333, 10000000, 0}, V4L2_PIX_FMT_UYVY, 666667},
                         Row{{kRaw, 640, 480, 166667, 10000000, 0}, V4L2_PIX_FMT_YUYV, 166667},
                         Row{{kRaw, 640, 480, 1, 50, 0}, V4L2_PIX_FMT_UYVY, 200000}}) {
    const CameraMode* const mode = findMode(modes, row.asked);
    ASSERT_NE(mode, nullptr);
    EXPECT_EQ(mode->format->fourcc, row.fourcc);
    EXPECT_EQ(nearestOf(*mode, row.asked).first, row.interval);
  }
}

TEST(LinuxCameraModes, OffersTheUsualOfWhatIsFreelyChosen) {
  const v4l2_frmsize_stepwise wide = {320, 1280, 16, 180, 720, 4};
  const v4l2_frmival_stepwise rates = {{1, 30}, {1, 10}, {1, 1}};
  const auto usual = formatsOf(modesOf({{V4L2_PIX_FMT_NV12, {}, wide, rates}}));
  ASSERT_EQ(usual.size(), 1u);
  const auto& sizes = usual[0].sizes;
  ASSERT_GE(sizes.size(), 5u);
  EXPECT_EQ(sizes.front().width, 320);
  EXPECT_EQ(sizes.back().width, 1280);
  EXPECT_EQ(sizes.back().height, 720);
  EXPECT_EQ(sizes.back().intervals, Intervals({333333, 400000, 416667, 500000, 666667, 1000000}));
  for (const FrameSize& size : sizes) EXPECT_TRUE(size.width % 16 == 0 && size.height % 4 == 0) << size.width;
  for (const v4l2_fract& endless : {v4l2_fract{1, 0}, v4l2_fract{1000, 1}}) {  // more than a number holds
    const auto open = formatsOf(modesOf({{V4L2_PIX_FMT_NV12, {}, wide, {{{1, 1000}, endless, {1, 1}}}}}));
    EXPECT_EQ(open[0].sizes.back().intervals.front(), 166667u);
    EXPECT_EQ(open[0].sizes.back().intervals.back(), 2000000u);
  }
  const v4l2_frmsize_stepwise odd = {1000, 1002, 2, 700, 702, 2};
  const auto fallback = formatsOf(modesOf({{V4L2_PIX_FMT_NV12, {}, odd, rates}}));
  ASSERT_EQ(fallback[0].sizes.size(), 1u);
  EXPECT_EQ(fallback[0].sizes[0].width, 1002);
}

/// One pixel pair has U 10, V 20, Y 30 and 40; the next U 11, V 21, Y 31 and 41; and so on.
struct Sample {
  uint32_t fourcc;
  Bytes pair;  ///< U is 0, V 1, first Y 2, second Y 3
};

TEST(LinuxPixelFormats, BringsPackedPicturesIntoOrderWithoutTheirPadding) {
  const Sample samples[] = {{V4L2_PIX_FMT_UYVY, {0, 2, 1, 3}},
                            {V4L2_PIX_FMT_YUYV, {2, 0, 3, 1}},
                            {V4L2_PIX_FMT_YVYU, {2, 1, 3, 0}},
                            {V4L2_PIX_FMT_VYUY, {1, 2, 0, 3}}};
  constexpr int kWidth = 38;
  constexpr int kHeight = 3;
  constexpr uint32_t kRow = kWidth * 2 + 12;
  for (const Sample& sample : samples) {
    Bytes picture(kRow * (kHeight - 1) + kWidth * 2);
    Bytes expected;
    for (int row = 0; row < kHeight; ++row) {
      for (int pair = 0; pair < kWidth / 2; ++pair) {
        const auto value = [&](uint8_t which) { return static_cast<uint8_t>(10 + 60 * which + row * 19 + pair); };
        for (size_t at = 0; at < 4; ++at) picture[row * kRow + pair * 4 + at] = value(sample.pair[at]);
        for (const uint8_t which : {0, 2, 1, 3}) expected.push_back(value(which));
      }
    }
    PixelConverter converter({pixelFormat(sample.fourcc), kWidth, kHeight, kRow, false});
    EXPECT_EQ(converter.neededBytes(), picture.size());
    const auto converted = converter.convert(picture);
    EXPECT_EQ(Bytes(converted.begin(), converted.end()), expected) << sample.fourcc;
    EXPECT_TRUE(converter.convert({picture.data(), picture.size() - 1}).empty());
  }
}

TEST(LinuxPixelFormats, GivesWhatIsReadyWithoutACopy) {
  Bytes picture(64 * 4 * 2 + 100);
  PixelConverter converter({pixelFormat(V4L2_PIX_FMT_UYVY), 64, 4, 128, false});
  const auto converted = converter.convert(picture);
  EXPECT_EQ(converted.data(), picture.data());
  EXPECT_EQ(converted.size(), 512u);
}

TEST(LinuxPixelFormats, ConvertsPlanes) {
  constexpr int kWidth = 16;
  constexpr int kHeight = 4;
  constexpr uint32_t kRow = 32;
  const auto planes = [](std::initializer_list<std::pair<size_t, uint8_t>> parts) {
    Bytes bytes;
    for (const auto& [count, value] : parts) bytes.insert(bytes.end(), count, value);
    return bytes;
  };
  constexpr size_t kLuma = kRow * kHeight;
  constexpr size_t kQuarter = kRow / 2 * kHeight / 2;
  Bytes semi = planes({{kLuma, 100}, {kLuma / 2, 50}});
  for (size_t at = kLuma; at < semi.size(); at += 2) semi[at] = 200;
  struct Row {
    uint32_t fourcc;
    Bytes picture;
    uint8_t u, v;
  } rows[] = {{V4L2_PIX_FMT_NV12, semi, 200, 50},
              {V4L2_PIX_FMT_NV21, semi, 50, 200},
              {V4L2_PIX_FMT_YUV420, planes({{kLuma, 100}, {kQuarter, 200}, {kQuarter, 50}}), 200, 50},
              {V4L2_PIX_FMT_YVU420, planes({{kLuma, 100}, {kQuarter, 200}, {kQuarter, 50}}), 50, 200},
              {V4L2_PIX_FMT_YUV422P, planes({{kLuma, 100}, {kLuma / 2, 200}, {kLuma / 2, 50}}), 200, 50},
              {V4L2_PIX_FMT_GREY, planes({{kLuma, 100}}), 128, 128}};
  for (Row& row : rows) {
    PixelConverter converter({pixelFormat(row.fourcc), kWidth, kHeight, kRow, false});
    const auto converted = converter.convert(row.picture);
    ASSERT_EQ(converted.size(), size_t{kWidth * kHeight * 2}) << row.fourcc;
    for (size_t at = 0; at < converted.size(); at += 4) {
      ASSERT_EQ(Bytes(converted.begin() + at, converted.begin() + at + 4), Bytes({row.u, 100, row.v, 100}))
          << row.fourcc << " at " << at;
    }
  }
}

TEST(LinuxPixelFormats, BringsTheFullRangeToVideoLevels) {
  Bytes white(16 * 2 * 2, 255);
  for (size_t at = 1; at < white.size(); at += 2) white[at] = 128;
  PixelConverter full({pixelFormat(V4L2_PIX_FMT_YUYV), 16, 2, 32, true});
  const auto squeezed = full.convert(white);
  ASSERT_EQ(squeezed.size(), 64u);
  EXPECT_EQ(Bytes(squeezed.begin(), squeezed.begin() + 4), Bytes({128, 235, 128, 235}));
}

TEST(LinuxFrameClock, BelievesWhatCanBe) {
  constexpr int64_t kInterval = 33'333;
  constexpr int64_t kReal = 1'700'000'000'000'000;
  const auto stampOf = [](int64_t stamp, bool isMonotonic) {
    FrameClock clock(kInterval);
    return clock.stamp({stamp, isMonotonic, 10'000'000, kReal, 9'990'000});
  };
  EXPECT_EQ(stampOf(9'980'000, true), 9'980'000);
  EXPECT_EQ(stampOf(10'500'000, true), 10'000'000) << "in the future";
  EXPECT_EQ(stampOf(9'500'000, true), 10'000'000) << "long before the driver had it";
  EXPECT_EQ(stampOf(0, true), 10'000'000);
  EXPECT_EQ(stampOf(kReal - 15'000, false), 9'985'000) << "the wall clock's";
  EXPECT_EQ(stampOf(1'234, false), 10'000'000) << "another clock's";
  FrameClock clock(kInterval);
  EXPECT_EQ(clock.stamp({9'995'000, true, 10'000'000, kReal, 9'990'000}), 9'995'000);
  EXPECT_EQ(clock.stamp({9'994'000, true, 10'000'100, kReal, 9'990'000}), 10'000'100) << "does not go back";
  EXPECT_EQ(clock.stamp({9'994'000, true, 10'000'100, kReal, 9'990'000}), 10'000'101);
}

TEST(FrameIntervals, TheNearestIsTakenAndNoneTooFastForSteadyMoviesUnasked) {
  const struct {
    const char* label;
    std::vector<uint32_t> offered;
    uint64_t asked;
    std::optional<uint32_t> taken;
  } rows[] = {{"the very one", {166667, 333333, 666667}, 333333, 333333},
              {"cut off in writing", {166667, 333667, 666667}, 166666, 166667},
              {"the nearest", {333333, 400000, 666667}, 416667, 400000},
              {"30 a second: 60 is too fast", {166667, 666667}, 333333, 666667},
              {"33 a second: 34 is too fast", {294117, 1000000}, 303030, 1000000},
              {"30 ms are not", {300000, 1000000}, 333333, 300000},
              {"there is no other", {83333, 166667}, 333333, 166667},
              {"60 asked for", {166667, 333333}, 166667, 166667},
              {"50 asked for", {166667, 333333}, 200000, 166667},
              {"nothing", {}, 333333, std::nullopt}};
  for (const auto& row : rows) EXPECT_EQ(nearestInterval(row.offered, row.asked), row.taken) << row.label;
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
