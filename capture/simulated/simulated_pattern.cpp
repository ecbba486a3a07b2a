#include "capture/simulated/simulated_pattern.h"

#include <algorithm>
#include <cstring>

#include "capture/simulated/image_filter.h"

namespace vesk::capture {
namespace {

// The number's squares: two rows of sixteen, the most significant bit first. Below the number's 24
// bits stand 8 that check them, so that no other frame is taken for a number.
constexpr int kSquaresAcross = 16;
constexpr int kSquareRows = 2;
constexpr uint32_t kCounterMask = 0xFFFFFF;
constexpr uint8_t kBlack = 16, kWhite = 235, kNeutral = 128;
constexpr int kNoiseShare = 8;           // of the height
constexpr uint32_t kNoisePlaces = 4096;  // from which a row of it may begin
constexpr uint8_t kNoiseLow = 96, kNoiseRange = 64;
constexpr int kMovingBarShare = 16;  // of the width
constexpr int kMovePixels = 4;       // from frame to frame

/// The side of a square: whole macroblocks, larger in larger frames.
int squareSide(int width) {
  return 16 * std::max(1, width / 640);
}

uint32_t withCheck(uint32_t counter) {
  const uint32_t check = (counter >> 16 ^ counter >> 8 ^ counter ^ 0xA5) & 0xFF;
  return counter << 8 | check;
}

/// The next of a row of numbers without order, always the same ones.
uint32_t scramble(uint32_t number) {
  number = number * 1664525 + 1013904223;
  return number ^ number >> 16;
}

/// The mean of the samples in a rectangle, every second one in both directions.
int meanLuma(const uint8_t* luma, size_t rowBytes, int step, int x, int y, int width, int height) {
  int64_t sum = 0, count = 0;
  for (int row = y; row < y + height; row += 2) {
    for (int column = x; column < x + width; column += 2, ++count) {
      sum += luma[static_cast<size_t>(row) * rowBytes + static_cast<size_t>(column) * static_cast<size_t>(step)];
    }
  }
  return count ? static_cast<int>(sum / count) : 0;
}

}  // namespace

SimulatedPattern::SimulatedPattern(PatternLayout layout, int width, int height)
    : mLayout(layout), mWidth(width), mHeight(height), mBackground(makePlanes()) {
  paintBackground();
  makeNoise();
}

SimulatedPattern::~SimulatedPattern() = default;

std::array<std::vector<uint8_t>, 3> SimulatedPattern::makePlanes() const {
  std::array<std::vector<uint8_t>, 3> planes;
  for (int plane = 0; plane < planeCount(); ++plane) {
    planes[static_cast<size_t>(plane)].resize(bytesAcross(plane) * static_cast<size_t>(rowsOf(plane)));
  }
  return planes;
}

size_t SimulatedPattern::bytesAcross(int plane) const {
  if (mLayout == PatternLayout::kPacked422) return static_cast<size_t>(mWidth) * 2;
  return static_cast<size_t>(plane == 0 ? mWidth : mWidth / 2);
}

PlaneMemory SimulatedPattern::planesOf(std::array<std::vector<uint8_t>, 3>& bytes) const {
  PlaneMemory planes;
  for (size_t plane = 0; plane < 3; ++plane) {
    planes.bytes[plane] = bytes[plane].data();
    planes.rowBytes[plane] = bytesAcross(static_cast<int>(plane));
  }
  return planes;
}

void SimulatedPattern::paintBackground() {
  // Bars of three quarters of full strength, by BT.601 and BT.709.
  constexpr Colour kBars[2][8] = {{{180, 128, 128},
                                   {162, 44, 142},
                                   {131, 156, 44},
                                   {112, 72, 58},
                                   {84, 184, 198},
                                   {65, 100, 212},
                                   {35, 212, 114},
                                   {16, 128, 128}},
                                  {{180, 128, 128},
                                   {168, 44, 136},
                                   {145, 147, 44},
                                   {133, 63, 52},
                                   {63, 193, 204},
                                   {51, 109, 212},
                                   {28, 212, 120},
                                   {16, 128, 128}}};
  const auto& bars = kBars[mLayout == PatternLayout::k420 && mHeight >= kFirstHighDefinitionLine];
  const int count = static_cast<int>(std::size(bars));
  const int barWidth = mWidth / count & ~1;
  for (int bar = 0; bar < count; ++bar) {
    const int x = bar * barWidth;
    fill({x, 0, bar == count - 1 ? mWidth - x : barWidth, mHeight}, bars[bar], planesOf(mBackground));
  }
}

void SimulatedPattern::paint(uint32_t counter, bool isFlash, const ImageSettings& settings, const PlaneMemory& frame) {
  if (settings == ImageSettings{}) {
    paintScene(counter, isFlash, frame);
  } else {
    if (!mFilter) {
      mFilter = std::make_unique<ImageFilter>(mLayout, mWidth, mHeight);
      mScene = makePlanes();
    }
    paintScene(counter, isFlash, planesOf(mScene));
    mFilter->apply(settings, planesOf(mScene), frame);
  }
  paintCounter(counter, frame);
}

void SimulatedPattern::paintScene(uint32_t counter, bool isFlash, const PlaneMemory& frame) const {
  if (isFlash) {
    fill({0, 0, mWidth, mHeight}, {kWhite, kNeutral, kNeutral}, frame);
  } else {
    copyBackground(frame);
    const int barWidth = mWidth / kMovingBarShare & ~1;
    const auto places = static_cast<uint32_t>((mWidth - barWidth) / kMovePixels);
    const int x = static_cast<int>(counter % places) * kMovePixels;
    fill({x, 0, barWidth, mHeight}, {200, kNeutral, kNeutral}, frame);
    paintNoise(counter, frame);
  }
}

void SimulatedPattern::copyBackground(const PlaneMemory& frame) const {
  for (int number = 0; number < planeCount(); ++number) {
    const auto plane = static_cast<size_t>(number);
    const size_t bytes = bytesAcross(number);
    for (size_t row = 0; row < static_cast<size_t>(rowsOf(number)); ++row) {
      std::memcpy(frame.bytes[plane] + row * frame.rowBytes[plane], &mBackground[plane][row * bytes], bytes);
    }
  }
}

void SimulatedPattern::makeNoise() {
  mNoise.resize(bytesAcross(0) + kNoisePlaces);
  uint32_t number = 0;
  for (size_t i = 0; i < mNoise.size(); ++i) {
    number = scramble(number);
    const bool isColour = mLayout == PatternLayout::kPacked422 && i % 2 == 0;
    mNoise[i] = isColour ? kNeutral : static_cast<uint8_t>(kNoiseLow + number % kNoiseRange);
  }
}

/// Each row of each frame begins at another place of the noise, so that none predicts the next.
void SimulatedPattern::paintNoise(uint32_t counter, const PlaneMemory& frame) const {
  uint32_t number = scramble(counter);
  for (int row = mHeight - mHeight / kNoiseShare; row < mHeight; ++row) {
    number = scramble(number);
    const size_t place = number % kNoisePlaces & ~size_t{1};
    std::memcpy(frame.bytes[0] + static_cast<size_t>(row) * frame.rowBytes[0], &mNoise[place], bytesAcross(0));
  }
}

void SimulatedPattern::paintCounter(uint32_t counter, const PlaneMemory& frame) const {
  const int side = squareSide(mWidth);
  const uint32_t bits = withCheck(counter & kCounterMask);
  for (int square = 0; square < kSquaresAcross * kSquareRows; ++square) {
    const uint8_t luma = bits >> (31 - square) & 1 ? kWhite : kBlack;
    fill({square % kSquaresAcross * side, square / kSquaresAcross * side, side, side}, {luma, kNeutral, kNeutral},
         frame);
  }
}

SimulatedPattern::Colour SimulatedPattern::adapted(Colour colour) const {
  if (mLayout != PatternLayout::k422Full) return colour;
  const auto widen = [](int value, int low, int range) {
    return static_cast<uint8_t>(std::clamp((value - low) * 255 / range, 0, 255));
  };
  return {widen(colour.y, 16, 219), widen(colour.cb, 16, 224), widen(colour.cr, 16, 224)};
}

/// Fills a rectangle whose edges are even.
void SimulatedPattern::fill(const Rectangle& where, Colour asked, const PlaneMemory& frame) const {
  const Colour colour = adapted(asked);
  const auto x = static_cast<size_t>(where.x), width = static_cast<size_t>(where.width);
  for (int row = where.y; row < where.y + where.height; ++row) {
    uint8_t* const first = frame.bytes[0] + static_cast<size_t>(row) * frame.rowBytes[0];
    if (mLayout == PatternLayout::kPacked422) {
      const uint8_t pair[] = {colour.cb, colour.y, colour.cr, colour.y};
      for (size_t at = x * 2; at < (x + width) * 2; at += sizeof pair) std::memcpy(first + at, pair, sizeof pair);
      continue;
    }
    std::memset(first + x, colour.y, width);
    if (mLayout == PatternLayout::k420 && row % 2 != 0) continue;
    const auto chromaRow = static_cast<size_t>(mLayout == PatternLayout::k420 ? row / 2 : row);
    std::memset(frame.bytes[1] + chromaRow * frame.rowBytes[1] + x / 2, colour.cb, width / 2);
    std::memset(frame.bytes[2] + chromaRow * frame.rowBytes[2] + x / 2, colour.cr, width / 2);
  }
}

std::optional<uint32_t> readFrameCounter(const uint8_t* luma, size_t rowBytes, int width, int height, int step) {
  constexpr int kMiddle = 126;
  const int side = squareSide(width);
  if (!luma || width < side * kSquaresAcross || height < side * kSquareRows) return std::nullopt;
  uint32_t bits = 0;
  for (int square = 0; square < kSquaresAcross * kSquareRows; ++square) {
    const int x = square % kSquaresAcross * side, y = square / kSquaresAcross * side;
    const int mean = meanLuma(luma, rowBytes, step, x + side / 4, y + side / 4, side / 2, side / 2);
    bits = bits << 1 | (mean > kMiddle ? 1 : 0);
  }
  const uint32_t counter = bits >> 8;
  if (withCheck(counter) != bits) return std::nullopt;
  return counter;
}

bool readFlash(const uint8_t* luma, size_t rowBytes, int width, int height, int step) {
  constexpr int kBright = 200;  // the bars' mean is near 100
  const int top = squareSide(width) * kSquareRows;
  return luma && height > top && meanLuma(luma, rowBytes, step, 0, top, width, height - top) > kBright;
}

}  // namespace vesk::capture
