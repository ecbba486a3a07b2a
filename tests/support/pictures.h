#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <vesk/cg_image.h>
#include <vesk/pixel_buffer.h>

namespace vesk::test {

struct Colour {
  int red = 0;
  int green = 0;
  int blue = 0;
};

/// The colours of a picture's quarters: upper left and right, lower left and right.
inline constexpr std::array<Colour, 4> kFields{Colour{235, 40, 30}, Colour{30, 200, 60}, Colour{40, 60, 230},
                                               Colour{250, 250, 250}};

inline std::string textOf(Colour colour) {
  return std::to_string(colour.red) + "," + std::to_string(colour.green) + "," + std::to_string(colour.blue);
}

inline bool isNear(Colour a, Colour b, int tolerance) {
  return std::abs(a.red - b.red) <= tolerance && std::abs(a.green - b.green) <= tolerance &&
         std::abs(a.blue - b.blue) <= tolerance;
}

/// A pixel of a bitmap, y downwards from the top.
inline Colour colourAt(const CGImage& image, int x, int y) {
  const uint8_t* const pixel = image.pixels().data() + (static_cast<size_t>(y) * image.bytesPerRow()) + x * 4;
  return {pixel[0], pixel[1], pixel[2]};
}

struct YCbCr {
  uint8_t y = 0;
  uint8_t cb = 128;
  uint8_t cr = 128;
};

/// The colour by the formulas of the recommendations, in floating point.
inline Colour rgbOf(YCbCr value, YCbCrColour colour) {
  const bool is709 = colour.matrix == YCbCrColour::Matrix::kBT709;
  const double kr = is709 ? 0.2126 : 0.299;
  const double kb = is709 ? 0.0722 : 0.114;
  const double y = colour.isFullRange ? value.y / 255.0 : (value.y - 16) / 219.0;
  const double pb = (value.cb - 128) / (colour.isFullRange ? 255.0 : 224.0);
  const double pr = (value.cr - 128) / (colour.isFullRange ? 255.0 : 224.0);
  const double red = y + 2 * (1 - kr) * pr;
  const double blue = y + 2 * (1 - kb) * pb;
  const double green = (y - kr * red - kb * blue) / (1 - kr - kb);
  const auto byte = [](double part) { return static_cast<int>(std::lround(std::clamp(part, 0.0, 1.0) * 255)); };
  return {byte(red), byte(green), byte(blue)};
}

/// The value of a colour, by the same formulas.
inline YCbCr ycbcrOf(Colour rgb, YCbCrColour colour) {
  const bool is709 = colour.matrix == YCbCrColour::Matrix::kBT709;
  const double kr = is709 ? 0.2126 : 0.299;
  const double kb = is709 ? 0.0722 : 0.114;
  const double red = rgb.red / 255.0;
  const double blue = rgb.blue / 255.0;
  const double y = kr * red + (1 - kr - kb) * rgb.green / 255.0 + kb * blue;
  const double pb = (blue - y) / (2 * (1 - kb));
  const double pr = (red - y) / (2 * (1 - kr));
  const auto byte = [](double value) { return static_cast<uint8_t>(std::lround(value)); };
  if (colour.isFullRange) return {byte(y * 255), byte(pb * 255 + 128), byte(pr * 255 + 128)};
  return {byte(y * 219 + 16), byte(pb * 224 + 128), byte(pr * 224 + 128)};
}

/// A layout of pictures with its colours, for tests of all that there are.
struct PictureFormat {
  const char* name;
  uint32_t format;
  YCbCrColour colour;
};

inline std::ostream& operator<<(std::ostream& stream, const PictureFormat& row) {
  return stream << row.name;
}

inline constexpr PictureFormat kPictureFormats[] = {
    {"Packed422", kCMPixelFormat_422YpCbCr8, {}},
    {"Packed422By709", kCMPixelFormat_422YpCbCr8, {YCbCrColour::Matrix::kBT709, false}},
    {"Packed422FullRange", kCMPixelFormat_422YpCbCr8, {YCbCrColour::Matrix::kBT601, true}},
    {"Packed422FullRangeBy709", kCMPixelFormat_422YpCbCr8, {YCbCrColour::Matrix::kBT709, true}},
    {"Planar420", kCVPixelFormat_420Planar, {}},
    {"Planar420By709", kCVPixelFormat_420Planar, {YCbCrColour::Matrix::kBT709, false}},
    {"Planar420FullRange", kCVPixelFormat_420Planar, {YCbCrColour::Matrix::kBT601, true}},
    {"Planar420FullRangeBy709", kCVPixelFormat_420Planar, {YCbCrColour::Matrix::kBT709, true}},
    {"Planar422", kCVPixelFormat_422Planar, {}},
    {"Planar422FullRange", kCVPixelFormat_422Planar, {YCbCrColour::Matrix::kBT601, true}},
    {"Planar444", kCVPixelFormat_444Planar, {}},
    {"Planar444By709", kCVPixelFormat_444Planar, {YCbCrColour::Matrix::kBT709, false}},
    {"BiPlanar420", kCVPixelFormat_420BiPlanar, {}},
    {"BiPlanar420By709", kCVPixelFormat_420BiPlanar, {YCbCrColour::Matrix::kBT709, false}},
    {"Gray", kCVPixelFormat_Gray, {}},
    {"GrayFullRange", kCVPixelFormat_Gray, {YCbCrColour::Matrix::kBT601, true}},
    {"RGBA", kCVPixelFormat_32RGBA, {}},
    {"BGRA", kCVPixelFormat_32BGRA, {}},
};

/// A picture over planes whose bytes `byteAt` gives for a plane, a column and a row, with gaps between its rows and
/// none after the last one.
template <class ByteAt>
CVPixelBufferRef filledPicture(int32_t width, int32_t height, uint32_t format, YCbCrColour colour, size_t gap,
                               ByteAt byteAt) {
  const auto half = [](int32_t size) { return (size + 1) / 2; };
  struct Shape {
    size_t rowBytes = 0;
    int32_t rows = 0;
  };
  std::array<Shape, CVPixelBuffer::kMostPlanes> shapes;
  const auto columns = static_cast<size_t>(width);
  const auto halfColumns = static_cast<size_t>(half(width));
  switch (format) {
    case kCMPixelFormat_422YpCbCr8:
      shapes[0] = {halfColumns * 4, height};  // a row ends with a whole group of two pixels
      break;
    case kCVPixelFormat_420Planar:
      shapes = {Shape{columns, height}, Shape{halfColumns, half(height)}, Shape{halfColumns, half(height)}};
      break;
    case kCVPixelFormat_422Planar:
      shapes = {Shape{columns, height}, Shape{halfColumns, height}, Shape{halfColumns, height}};
      break;
    case kCVPixelFormat_444Planar:
      shapes = {Shape{columns, height}, Shape{columns, height}, Shape{columns, height}};
      break;
    case kCVPixelFormat_420BiPlanar:
      shapes = {Shape{columns, height}, Shape{halfColumns * 2, half(height)}, Shape{}};
      break;
    case kCVPixelFormat_Gray:
      shapes[0] = {columns, height};
      break;
    default:
      shapes[0] = {columns * 4, height};
      break;
  }
  const auto memory = std::make_shared<std::array<std::vector<uint8_t>, 3>>();
  CVPixelBuffer::Planes planes;
  for (size_t plane = 0; plane < shapes.size() && shapes[plane].rowBytes != 0; ++plane) {
    const size_t rowBytes = shapes[plane].rowBytes + gap;
    auto& data = memory->at(plane);
    data.resize(rowBytes * static_cast<size_t>(shapes[plane].rows) - gap, 0x5A);
    for (size_t i = 0; i < data.size(); ++i)
      if (i % rowBytes < shapes[plane].rowBytes) data[i] = byteAt(plane, i % rowBytes, i / rowBytes);
    planes.at(plane) = {data.data(), rowBytes};
  }
  return CVPixelBuffer::wrap(width, height, format, planes, colour, memory);
}

/// A picture of 2 × 2 fields of one colour each, with padding after its rows: upper left, upper right,
/// lower left, lower right. The fields begin at even pixels.
inline CVPixelBufferRef fieldsPicture(int32_t width, int32_t height, uint32_t format,
                                      const std::array<Colour, 4>& colours, YCbCrColour colour = {}) {
  const auto field = [&](int32_t x, int32_t y) {
    return colours.at((std::min(x, width - 1) >= width / 4 * 2 ? 1 : 0) + (y >= height / 4 * 2 ? 2 : 0));
  };
  const auto value = [&](int32_t x, int32_t y) { return ycbcrOf(field(x, y), colour); };
  return filledPicture(width, height, format, colour, 6, [&](size_t plane, size_t at, size_t row) -> uint8_t {
    const auto x = static_cast<int32_t>(at);
    const auto y = static_cast<int32_t>(row);
    switch (format) {
      case kCMPixelFormat_422YpCbCr8: {
        const YCbCr left = value(x / 4 * 2, y);
        return std::array<uint8_t, 4>{left.cb, left.y, left.cr, value(x / 4 * 2 + 1, y).y}.at(at % 4);
      }
      case kCVPixelFormat_32RGBA:
      case kCVPixelFormat_32BGRA: {
        const Colour c = field(x / 4, y);
        const bool isRGBA = format == kCVPixelFormat_32RGBA;
        const std::array<int, 4> pixel{isRGBA ? c.red : c.blue, c.green, isRGBA ? c.blue : c.red, 255};
        return static_cast<uint8_t>(pixel.at(at % 4));
      }
      default:
        break;
    }
    if (plane == 0) return value(x, y).y;
    if (format == kCVPixelFormat_420BiPlanar) return at % 2 == 0 ? value(x, y * 2).cb : value(x - 1, y * 2).cr;
    const YCbCr both =
        value(format == kCVPixelFormat_444Planar ? x : x * 2, format == kCVPixelFormat_420Planar ? y * 2 : y);
    return plane == 1 ? both.cb : both.cr;
  });
}

/// A picture of one colour, as 4:2:0 planes.
inline CVPixelBufferRef plainPicture(int32_t width, int32_t height, Colour colour) {
  return fieldsPicture(width, height, kCVPixelFormat_420Planar, {colour, colour, colour, colour});
}

/// A picture in which every sample differs from its neighbours; opaque where it could be transparent.
template <class Random>
CVPixelBufferRef noisePicture(int32_t width, int32_t height, uint32_t format, YCbCrColour colour, Random& random) {
  const bool isRGB = format == kCVPixelFormat_32RGBA || format == kCVPixelFormat_32BGRA;
  constexpr std::array<size_t, 4> kGaps{0, 3, 4, 30};
  return filledPicture(width, height, format, colour, kGaps.at(random() % 4), [&](size_t, size_t x, size_t) {
    return isRGB && x % 4 == 3 ? uint8_t{255} : static_cast<uint8_t>(random() >> 8);
  });
}

/// Black and white columns of one pixel in turn.
inline CVPixelBufferRef stripedPicture(int32_t width, int32_t height, uint32_t format) {
  const bool isRGB = format == kCVPixelFormat_32RGBA || format == kCVPixelFormat_32BGRA;
  return filledPicture(width, height, format, {}, 0, [&](size_t plane, size_t x, size_t) -> uint8_t {
    if (isRGB) return x % 4 == 3 || x / 4 % 2 ? 255 : 0;
    if (format == kCMPixelFormat_422YpCbCr8) return x % 2 == 0 ? 128 : x / 2 % 2 ? 235 : 16;
    if (plane > 0) return 128;
    return x % 2 ? 235 : 16;
  });
}

}  // namespace vesk::test
