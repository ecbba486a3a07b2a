#include "platform/pixels/picture_conversion.h"

#include <gtest/gtest.h>

#include <cmath>

#include <vesk/pixel_buffer.h>
#include "tests/support/bytes.h"

namespace vesk {
namespace {

using test::Bytes;

constexpr int kWidth = 34;
constexpr int kHeight = 6;

/// A picture of one colour, or of two values of luma where pixels differ in turn, with padding after its rows.
struct Sample {
  PixelLayout layout;
  /// For each plane: its rows, bytes that repeat in a row, and how many times.
  struct Plane {
    int rows;
    Bytes pattern;
    int times;
  };
  std::vector<Plane> planes;
  std::vector<Bytes> memory = {};

  RawPicture picture(bool isBottomFirst = false) {
    constexpr int kPadding = 10;
    RawPicture raw{layout, kWidth, kHeight};
    memory.clear();
    for (size_t plane = 0; plane < planes.size(); ++plane) {
      const auto& [rows, pattern, times] = planes[plane];
      Bytes& bytes = memory.emplace_back();
      for (int row = 0; row < rows; ++row) {
        for (int time = 0; time < times; ++time) bytes.insert(bytes.end(), pattern.begin(), pattern.end());
        bytes.insert(bytes.end(), kPadding, 0xEE);
      }
      const int rowBytes = static_cast<int>(bytes.size()) / rows;
      raw.data[plane] = bytes.data() + (isBottomFirst ? rowBytes * (rows - 1) : 0);
      raw.rowBytes[plane] = isBottomFirst ? -rowBytes : rowBytes;
    }
    return raw;
  }
};

constexpr int kHalf = kWidth / 2;

/// Luma 100, Cb 200, Cr 50.
std::vector<Sample> ycbcrSamples() {
  using enum PixelLayout;
  const auto planar = [](PixelLayout layout, int across, int down) {
    const int width = (kWidth + across - 1) / across;
    const int height = (kHeight + down - 1) / down;
    return Sample{layout, {{kHeight, {100}, kWidth}, {height, {200}, width}, {height, {50}, width}}};
  };
  const auto deep = [](PixelLayout layout, int rows) {
    return Sample{layout, {{kHeight, {0x90, 1}, kWidth}, {rows, {0x20, 3}, kHalf}, {rows, {0xC8, 0}, kHalf}}};
  };
  return {planar(k420Planar, 2, 2),
          planar(k422Planar, 2, 1),
          planar(k444Planar, 1, 1),
          planar(k440Planar, 1, 2),
          planar(k411Planar, 4, 1),
          planar(k410Planar, 4, 4),
          deep(k420Planar10, kHeight / 2),
          deep(k422Planar10, kHeight),
          {k420BiPlanar, {{kHeight, {100}, kWidth}, {kHeight / 2, {200, 50}, kHalf}}},
          {k420BiPlanarCrFirst, {{kHeight, {100}, kWidth}, {kHeight / 2, {50, 200}, kHalf}}},
          {kUYVY, {{kHeight, {200, 100, 50, 100}, kHalf}}},
          {kYUYV, {{kHeight, {100, 200, 100, 50}, kHalf}}},
          {kYVYU, {{kHeight, {100, 50, 100, 200}, kHalf}}},
          {kVYUY, {{kHeight, {50, 100, 200, 100}, kHalf}}}};
}

/// Red 255, green 128, blue 0.
std::vector<Sample> rgbSamples() {
  using enum PixelLayout;
  const auto packed = [](PixelLayout layout, Bytes pixel) {
    return Sample{layout, {{kHeight, std::move(pixel), kWidth}}};
  };
  Bytes palette(1024, 7);
  palette[12] = 0;  // the third colour: blue, green, red, alpha
  palette[13] = 128;
  palette[14] = 255;
  return {packed(kRGB, {255, 128, 0}),
          packed(kBGR, {0, 128, 255}),
          packed(kRGBA, {255, 128, 0, 9}),
          packed(kBGRA, {0, 128, 255, 9}),
          packed(kARGB, {9, 255, 128, 0}),
          packed(kABGR, {9, 0, 128, 255}),
          packed(kRGBX, {255, 128, 0, 9}),
          packed(kBGRX, {0, 128, 255, 9}),
          packed(kXRGB, {9, 255, 128, 0}),
          packed(kXBGR, {9, 0, 128, 255}),
          packed(kRGB565, {0x00, 0xFC}),
          packed(kRGB555, {0x00, 0x7E}),
          {kPalette, {{kHeight, {3}, kWidth}, {1, std::move(palette), 1}}}};
}

void expectAll(const Bytes& pixels, const Bytes& group, int tolerance) {
  for (size_t at = 0; at < pixels.size(); ++at)
    ASSERT_NEAR(pixels[at], group[at % group.size()], tolerance) << "at " << at;
}

TEST(Packed422, IsMadeOfEveryLayout) {
  Packed422Converter converter;
  Bytes out(kWidth * kHeight * 2);
  const auto convert = [&](Sample& sample, bool isBottomFirst = false) {
    SCOPED_TRACE(static_cast<int>(sample.layout));
    EXPECT_TRUE(Packed422Converter::canConvert(sample.layout));
    out.assign(out.size(), 0);
    EXPECT_TRUE(converter.convert(sample.picture(isBottomFirst), out.data()));
  };
  for (Sample& sample : ycbcrSamples()) {
    convert(sample);
    expectAll(out, {200, 100, 50, 100}, 0);
  }
  for (Sample& sample : rgbSamples()) {
    convert(sample);
    expectAll(out, {53, 146, 193, 146}, 2);  // by BT.601; of 5 bits green is 132
  }
  Sample gray{PixelLayout::kGray, {{kHeight, {100}, kWidth}}};
  convert(gray);
  expectAll(out, {128, 100, 128, 100}, 0);
  convert(gray, true);
  expectAll(out, {128, 100, 128, 100}, 0);
  EXPECT_FALSE(Packed422Converter::canConvert(PixelLayout::kNone));
  EXPECT_FALSE(converter.convert({PixelLayout::kNone, kWidth, kHeight}, out.data()));
}

TEST(Packed422, ScalesIntoTheMiddleOfBlack) {
  Packed422Converter converter;
  Bytes picture;
  for (int pair = 0; pair < 8 * 4 / 2; ++pair) picture.insert(picture.end(), {200, 100, 50, 100});
  Bytes out(12 * 12 * 2);
  ASSERT_TRUE(converter.fit(picture, 8, 4, 12, 12, out.data()));
  for (size_t row = 0; row < 12; ++row) {
    const bool isInside = row >= 3 && row < 9;
    const auto begin = out.begin() + static_cast<ptrdiff_t>(row * 24);
    expectAll(Bytes(begin, begin + 24), isInside ? Bytes{200, 100, 50, 100} : Bytes{128, 16, 128, 16}, 0);
  }
  EXPECT_FALSE(converter.fit(std::span(picture).first(60), 8, 4, 12, 12, out.data()));
}

/// Whether the middle of a long row or its end, and in packed pixels or in planes.
TEST(FullRange, BecomesTheNearestLevelOfVideo) {
  constexpr int kAcross = 2 * 262;
  Bytes luma(kAcross);
  Bytes chroma(kAcross / 2);
  for (size_t at = 0; at < luma.size(); ++at) luma[at] = static_cast<uint8_t>(at);
  for (size_t at = 0; at < chroma.size(); ++at) chroma[at] = static_cast<uint8_t>(at);
  const RawPicture picture{PixelLayout::k420Planar,
                           kAcross,
                           2,
                           {luma.data(), chroma.data(), chroma.data()},
                           {0, 0, 0},  // the same row again
                           true};
  const auto level = [](int value, int middle, int steps, int base) {
    return static_cast<uint8_t>(std::lround(base + (value - middle) * steps / 255.0));
  };
  Bytes packed(kAcross * 2 * 2);
  ASSERT_TRUE(Packed422Converter().convert(picture, packed.data()));
  Bytes planes(kAcross * 3);
  const size_t half = kAcross / 2;
  ASSERT_TRUE(convertTo420(picture, {{planes.data(), planes.data() + kAcross * 2, planes.data() + kAcross * 2 + half},
                                     {kAcross, half, half}}));
  for (size_t at = 0; at < kAcross; ++at) {
    const uint8_t y = level(luma[at], 0, 219, 16);
    const uint8_t c = level(chroma[at / 2], 128, 224, 128);
    ASSERT_EQ(packed[at * 2 + 1], y) << at;
    ASSERT_EQ(packed[at * 2], c) << at;
    ASSERT_EQ(planes[at], y) << at;
    ASSERT_EQ(planes[kAcross * 2 + at / 2], c) << at;
  }
}

TEST(Planar420, IsMadeOfWhatCamerasGiveToEncode) {
  Bytes planes(kWidth * kHeight * 3 / 2);
  const size_t luma = kWidth * kHeight;
  const PlaneMemory memory{{planes.data(), planes.data() + luma, planes.data() + luma + luma / 4},
                           {kWidth, kHalf, kHalf}};
  const auto expectPlanes = [&](Sample& sample, Bytes expected, int tolerance) {
    SCOPED_TRACE(static_cast<int>(sample.layout));
    planes.assign(planes.size(), 0);
    ASSERT_TRUE(convertTo420(sample.picture(), memory));
    expectAll(Bytes(planes.begin(), planes.begin() + luma), {expected[0]}, tolerance);
    expectAll(Bytes(planes.begin() + luma, planes.begin() + luma + luma / 4), {expected[1]}, tolerance);
    expectAll(Bytes(planes.begin() + luma + luma / 4, planes.end()), {expected[2]}, tolerance);
  };
  for (Sample& sample : ycbcrSamples()) {
    const bool isTaken = sample.planes.size() == 3 && sample.planes[0].pattern.size() == 1;
    if (isTaken || sample.layout == PixelLayout::kUYVY)
      expectPlanes(sample, {100, 200, 50}, 0);
    else
      EXPECT_FALSE(convertTo420(sample.picture(), memory));
  }
  Sample gray{PixelLayout::kGray, {{kHeight, {100}, kWidth}}};
  expectPlanes(gray, {100, 128, 128}, 0);
  Sample colours{PixelLayout::kRGBA, {{kHeight, {255, 128, 0, 9}, kWidth}}};
  expectPlanes(colours, {146, 53, 193}, 2);
}

}  // namespace
}  // namespace vesk
