#pragma once

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vesk/ci_image.h>
#include <vesk/preview_view.h>

namespace vesk::test {

/// Width of the pictures whose uploads are counted: of no other texture in a window.
constexpr int32_t kWidth = 203;
constexpr int32_t kHeight = 151;

/// Pixels of a framebuffer or a screen: three bytes each, the top row first.
struct Pixels {
  Pixels() = default;
  Pixels(int32_t wide, int32_t high)
      : width(wide), height(high), bytes(static_cast<size_t>(wide) * static_cast<size_t>(high) * 3) {}

  uint8_t* at(int32_t x, int32_t y) {
    return bytes.data() + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3;
  }
  int middle() { return width == 0 ? -1 : *at(width / 2, height / 2); }

  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> bytes;
};

/// A picture of one level of gray.
CIImageRef gray(int level);
CIImageRef noise(int32_t width, int32_t height);

/// What is in the framebuffer that is bound. Fails the test when there is a GL error.
Pixels readFramebuffer(const NSRect& frame);
/// What the X server shows, from the upper left corner.
Pixels readScreen(int32_t width, int32_t height);

/// Whether the picture is there unscaled, in the middle of these pixels.
bool isExact(Pixels shown, const CIImageRef& picture);

/// Uploads of pictures that are kWidth wide, since countUploads. Call that after the first drawing, when the library
/// has found the function.
extern int gUploads;
void countUploads();

/// Serves the toolkit's loop, for some milliseconds at most. Each toolkit's test has its own.
void serveLoop();
/// Serves it until that is so.
::testing::AssertionResult comes(const std::function<bool()>& isSo);
void runFor(std::chrono::milliseconds time);

/// Shows a picture of this level, and waits for it. A widget has a `view`, counts what it `draws`, and keeps what it
/// has `shown`.
template <class Widget>
::testing::AssertionResult shows(Widget& widget, int level) {
  widget.view->refresh(gray(level));
  return comes([&] { return widget.shown.middle() == level; });
}

/// @param turns counts the moments at which the toolkit has drawn what is new
template <class Widget>
void expectToDrawOnlyTheNewest(Widget& widget, const int& turns) {
  runFor(std::chrono::milliseconds(100));
  const int drawsBefore = widget.draws;
  gUploads = 0;
  for (int i = 0; i < 30; ++i) {
    const int turnsBefore = turns;
    for (int waiting = 3; waiting >= 0; --waiting) widget.view->refresh(gray(100 + 3 * i - 40 * waiting % 100));
    ASSERT_TRUE(comes([&] { return turns > turnsBefore; }));
    EXPECT_EQ(widget.shown.middle(), 100 + 3 * i) << "in the first drawing";
  }
  EXPECT_EQ(widget.draws - drawsBefore, 30);
  EXPECT_EQ(gUploads, 30);
  runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(widget.draws - drawsBefore, 30) << "nothing new, and drawn";
}

/// Something that takes a widget out of sight, and back.
struct Hiding {
  std::string name;
  std::function<void()> hide, show;
};
template <class Widget>
void expectNoCostWhileHidden(Widget& widget, const std::vector<Hiding>& ways) {
  int level = 60;
  for (const Hiding& way : ways) {
    if (way.name == "minimized" && !std::getenv("VESK_HAS_WINDOW_MANAGER")) continue;
    SCOPED_TRACE(way.name);
    way.hide();
    runFor(std::chrono::milliseconds(100));
    const int draws = widget.draws;
    gUploads = 0;
    for (int i = 0; i < 20; ++i) {
      widget.view->refresh(gray(++level));
      runFor(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(widget.draws, draws);
    EXPECT_EQ(gUploads, 0);
    way.show();
    EXPECT_TRUE(comes([&] { return widget.draws > draws && widget.shown.middle() == level; }));
    EXPECT_TRUE(shows(widget, ++level));
  }
}

/// Pictures that are a little smaller than the window, whose size in the toolkit's units `resize` sets.
template <class Widget>
void expectExactPicturesAtOddSizes(Widget& widget, double scale, const std::function<void(int, int)>& resize) {
  std::mt19937 random(1);
  for (int i = 0; i < 12; ++i) {
    const int width = 230 + static_cast<int>(random() % 90);
    const int height = 140 + static_cast<int>(random() % 40);
    resize(width, height);
    const auto wide = static_cast<int32_t>(std::lround(width * scale));
    const auto high = static_cast<int32_t>(std::lround(height * scale));
    const auto picture = noise(wide - static_cast<int>(random() % 40) - 1, high - static_cast<int>(random() % 30) - 1);
    ASSERT_TRUE(VeskPreviewView::showsUnscaled({picture->extent().width, picture->extent().height}));
    widget.view->refresh(picture);
    ASSERT_TRUE(comes([&] { return widget.shown.width == wide && widget.shown.height == high; }));
    EXPECT_TRUE(comes([&] { return isExact(widget.shown, picture); })) << width << " x " << height;
    EXPECT_TRUE(comes([&] { return isExact(readScreen(wide, high), picture); })) << "on the screen";
  }
}

}  // namespace vesk::test
