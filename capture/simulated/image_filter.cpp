#include "capture/simulated/image_filter.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vesk::capture {
namespace {

constexpr int kOne = 4096;  // in the colour matrix
constexpr int kNeutral = 128;
constexpr int kFieldOfView = 64 * 3600;  // arc seconds across the image

uint8_t clampTo(int value, int low, int high) {
  return static_cast<uint8_t>(std::clamp(value, low, high));
}

/// The place within 0 to count - 1 that `place` is when the scene goes on endlessly.
int wrapped(int place, int count) {
  const int rest = place % count;
  return rest < 0 ? rest + count : rest;
}

}  // namespace

ImageFilter::ImageFilter(PatternLayout layout, int width, int height)
    : mLayout(layout),
      mWidth(width),
      mHeight(height),
      mColumns(static_cast<size_t>(width)),
      mRows(static_cast<size_t>(height)) {}

void ImageFilter::apply(const ImageSettings& settings, const PlaneMemory& scene, const PlaneMemory& image) {
  if (!mIsPrepared || settings != mSettings) prepare(settings);
  if (mLayout == PatternLayout::kPacked422)
    applyPacked(scene, image);
  else
    applyPlanes(scene, image);
}

void ImageFilter::prepare(const ImageSettings& settings) {
  prepareLuma(settings);
  prepareColour(settings);
  preparePlaces(settings);
  mSettings = settings;
  mIsPrepared = true;
}

void ImageFilter::prepareLuma(const ImageSettings& settings) {
  const bool isFull = mLayout == PatternLayout::k422Full;
  const int black = isFull ? 0 : 16, white = isFull ? 255 : 235;
  const double range = white - black, middle = black + range / 2;
  for (size_t luma = 0; luma < mLuma.size(); ++luma) {
    const double exposed = black + (static_cast<double>(luma) - black) * settings.gain;
    const double value = middle + (exposed - middle) * settings.contrast + settings.brightness * range;
    mLuma[luma] = clampTo(static_cast<int>(std::lround(value)), black, white);
  }
}

void ImageFilter::prepareColour(const ImageSettings& settings) {
  const double angle = settings.hueDegrees * std::numbers::pi / 180;
  const int cosine = static_cast<int>(std::lround(kOne * settings.saturation * std::cos(angle)));
  const int sine = static_cast<int>(std::lround(kOne * settings.saturation * std::sin(angle)));
  mColourMatrix = {cosine, -sine, sine, cosine};
  mWarmth = static_cast<int>(std::lround(settings.warmth * 255));
}

void ImageFilter::preparePlaces(const ImageSettings& settings) {
  const auto pixels = [this](int arcSeconds) {
    return static_cast<int>(std::lround(static_cast<double>(arcSeconds) * mWidth / kFieldOfView));
  };
  const auto source = [&settings](int place, int count) {
    const double middle = (count - 1) / 2.0;
    return static_cast<int>(std::lround(middle + (place - middle) / settings.zoom));
  };
  for (int x = 0; x < mWidth; ++x) {
    const int place = settings.isMirrored ? mWidth - 1 - x : x;
    mColumns[static_cast<size_t>(x)] = wrapped(source(place, mWidth) + pixels(settings.pan), mWidth);
  }
  for (int y = 0; y < mHeight; ++y)
    mRows[static_cast<size_t>(y)] = wrapped(source(y, mHeight) - pixels(settings.tilt), mHeight);
}

void ImageFilter::colour(uint8_t cb, uint8_t cr, uint8_t& toCb, uint8_t& toCr) const {
  const int low = mLayout == PatternLayout::k422Full ? 0 : 16, high = mLayout == PatternLayout::k422Full ? 255 : 240;
  const int blue = cb - kNeutral, red = cr - kNeutral;
  toCb = clampTo(kNeutral + (mColourMatrix[0] * blue + mColourMatrix[1] * red) / kOne - mWarmth, low, high);
  toCr = clampTo(kNeutral + (mColourMatrix[2] * blue + mColourMatrix[3] * red) / kOne + mWarmth, low, high);
}

/// Pixels lie in pairs of Cb Y Cr Y.
void ImageFilter::applyPacked(const PlaneMemory& scene, const PlaneMemory& image) const {
  for (size_t y = 0; y < mRows.size(); ++y) {
    const uint8_t* const from = scene.bytes[0] + static_cast<size_t>(mRows[y]) * scene.rowBytes[0];
    uint8_t* to = image.bytes[0] + y * image.rowBytes[0];
    for (size_t x = 0; x < mColumns.size(); x += 2, to += 4) {
      const auto left = static_cast<size_t>(mColumns[x]), right = static_cast<size_t>(mColumns[x + 1]);
      const uint8_t* const pair = from + left / 2 * 4;
      colour(pair[0], pair[2], to[0], to[2]);
      to[1] = mLuma[from[left * 2 + 1]];
      to[3] = mLuma[from[right * 2 + 1]];
    }
  }
}

void ImageFilter::applyPlanes(const PlaneMemory& scene, const PlaneMemory& image) const {
  for (size_t y = 0; y < mRows.size(); ++y) {
    const uint8_t* const from = scene.bytes[0] + static_cast<size_t>(mRows[y]) * scene.rowBytes[0];
    uint8_t* const to = image.bytes[0] + y * image.rowBytes[0];
    for (size_t x = 0; x < mColumns.size(); ++x) to[x] = mLuma[from[mColumns[x]]];
  }
  const size_t step = mLayout == PatternLayout::k420 ? 2 : 1;  // rows of luma to one of colour
  for (size_t y = 0; y < mRows.size() / step; ++y) {
    const size_t row = static_cast<size_t>(mRows[y * step]) / step;
    const uint8_t* const fromCb = scene.bytes[1] + row * scene.rowBytes[1];
    const uint8_t* const fromCr = scene.bytes[2] + row * scene.rowBytes[2];
    uint8_t* const toCb = image.bytes[1] + y * image.rowBytes[1];
    uint8_t* const toCr = image.bytes[2] + y * image.rowBytes[2];
    for (size_t x = 0; x < mColumns.size() / 2; ++x) {
      const auto column = static_cast<size_t>(mColumns[x * 2] / 2);
      colour(fromCb[column], fromCr[column], toCb[x], toCr[x]);
    }
  }
}

}  // namespace vesk::capture
