#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include <vesk/attributed_string.h>
#include <vesk/bezier_path.h>
#include <vesk/bitmap_image_rep.h>
#include "platform/graphics/graphics_context.h"
#include "platform/graphics/image.h"
#include "tests/support/font_caches.h"

namespace vesk {
namespace {

/// A bitmap of what `paint` paints into an image.
template <class Paint>
std::shared_ptr<NSBitmapImageRep> painted(NSSize size, Paint paint, float scale = 1) {
  const auto image = NSImage::initWithSize(size, scale);
  if (!image->lockFocus()) return nullptr;
  paint();
  auto bitmap = NSBitmapImageRep::initWithFocusedViewRect({0, 0, size.width, size.height});
  image->unlockFocus();
  return bitmap;
}

/// The pixels whose alpha is above `threshold` and whose colour passes, and the box around them.
struct Marks {
  int count = 0;
  int left = 1 << 20;
  int top = 1 << 20;
  int right = -1;
  int bottom = -1;
};

template <class Passes>
Marks marksOf(NSBitmapImageRep& bitmap, Passes passes) {
  Marks marks;
  for (int y = 0; y < bitmap.pixelsHigh(); ++y)
    for (int x = 0; x < bitmap.pixelsWide(); ++x) {
      if (!passes(bitmap.bitmapData() + (y * bitmap.pixelsWide() + x) * 4)) continue;
      ++marks.count;
      marks.left = std::min(marks.left, x);
      marks.right = std::max(marks.right, x);
      marks.top = std::min(marks.top, y);
      marks.bottom = std::max(marks.bottom, y);
    }
  return marks;
}

bool isRed(const uint8_t* pixel) {
  return pixel[3] > 128 && pixel[0] > 128;
}
bool isDark(const uint8_t* pixel) {
  return pixel[3] > 128 && pixel[0] < 64;
}

NSTextAttributes redText(float strokeWidth = 0) {
  NSTextAttributes attributes;
  attributes.font = NSFont::fontWithName("A family that nobody has", 40);
  attributes.foregroundColor = NSColor::redColor();
  attributes.strokeWidth = strokeWidth;
  return attributes;
}

Marks marksOfText(const std::string& text, const NSTextAttributes& attributes) {
  const auto string = NSAttributedString::initWithString(text, attributes);
  const auto bitmap = painted({120, 80}, [&] { string.drawAtPoint({20, 20}); });
  return marksOf(*bitmap, isRed);
}

TEST(NSAttributedString, IsPaintedUprightAboveItsPoint) {
  const Marks bar = marksOfText("L", redText());
  EXPECT_GT(bar.count, 50);
  EXPECT_GE(bar.left, 20);
  EXPECT_LT(bar.bottom, 60);  // 20 points above the lower edge of 80
  // An L has its foot below: more of it is marked in the lower half.
  const auto string = NSAttributedString::initWithString("L", redText());
  const auto bitmap = painted({120, 80}, [&] { string.drawAtPoint({20, 20}); });
  const int middle = (bar.top + bar.bottom) / 2;
  int above = 0;
  int below = 0;
  for (int y = bar.top; y <= bar.bottom; ++y)
    for (int x = bar.left; x <= bar.right; ++x)
      if (isRed(bitmap->bitmapData() + (y * bitmap->pixelsWide() + x) * 4)) ++(y < middle ? above : below);
  EXPECT_GT(below, above);
}

TEST(NSAttributedString, OutlinesBySignAndPercentOfItsSize) {
  const Marks filled = marksOfText("O", redText());
  const Marks fat = marksOfText("O", redText(-10));
  const Marks outlined = marksOfText("O", redText(3));
  EXPECT_GT(fat.count, filled.count);
  EXPECT_LT(outlined.count, filled.count);
  EXPECT_NEAR(filled.left - fat.left, 2, 1) << "half of 10 percent of 40 points";
  EXPECT_NEAR(fat.right - filled.right, 2, 1);
}

TEST(NSAttributedString, ThrowsItsShadowRightAndUpHoweverTheTextIsTurned) {
  NSTextAttributes attributes = redText();
  attributes.shadow = NSShadow{{6, 6}, 0, NSColor::blackColor()};
  const auto string = NSAttributedString::initWithString("I", attributes);
  for (const bool isFlipped : {false, true}) {
    const auto bitmap = painted({120, 80}, [&] {
      CGContextRef const port = NSGraphicsContext::currentContext()->graphicsPort();
      if (isFlipped) {
        CGContextTranslateCTM(port, 0, 80);
        CGContextScaleCTM(port, 1, -1);
      }
      string.drawAtPoint({20, 20});
    });
    const Marks text = marksOf(*bitmap, isRed);
    const Marks shadow = marksOf(*bitmap, isDark);
    EXPECT_NEAR(shadow.right - text.right, 6, 1);
    EXPECT_NEAR(text.top - shadow.top, 6, 1);
    EXPECT_LT(shadow.bottom, text.bottom);
  }
}

TEST(NSAttributedString, SoftensItsShadow) {
  NSTextAttributes attributes = redText();
  const auto facesOf = [&](float radius) {
    attributes.shadow = NSShadow{{50, 0}, radius, NSColor::colorWithDeviceRed(0, 0, 0, 100)};
    const auto string = NSAttributedString::initWithString("I", attributes);
    const auto bitmap = painted({120, 80}, [&] { string.drawAtPoint({10, 10}); });
    return marksOf(*bitmap, [](const uint8_t* pixel) { return pixel[3] > 8 && pixel[0] < 8; }).count;
  };
  EXPECT_GT(facesOf(6), facesOf(0) * 3 / 2);
}

TEST(NSAttributedString, MeasuresEmptyAndLongTexts) {
  const NSSize one = NSAttributedString::initWithString("Recording", redText()).size();
  const NSSize two = NSAttributedString::initWithString("RecordingRecording", redText()).size();
  EXPECT_NEAR(two.width, 2 * one.width, 3);
  EXPECT_EQ(two.height, one.height);
  EXPECT_EQ(one.width, std::floor(one.width));
  EXPECT_EQ(NSAttributedString::initWithString("", redText()).size().width, 0);
  NSAttributedString::initWithString("nowhere", redText()).drawAtPoint({0, 0});
}

TEST(NSBezierPath, RoundsRectanglesAsFarAsTheyAllow) {
  EXPECT_TRUE(NSBezierPath::bezierPathWithRoundedRect({1, 1, 0, 5}, 4).segments().empty());
  EXPECT_EQ(NSBezierPath::bezierPathWithRoundedRect({0, 0, 10, 4}, 0).segments().size(), 5U);
  const NSBezierPath path = NSBezierPath::bezierPathWithRoundedRect({10, 20, 10, 4}, 4);
  const auto& segments = path.segments();
  ASSERT_EQ(segments.size(), 10U);  // a start, four lines and arcs, the end
  const NSPoint ends[] = {{15, 24}, {12, 24}, {10, 22}, {10, 22}, {12, 20}, {18, 20}, {20, 22}, {20, 22}, {18, 24}};
  for (size_t i = 0; i < std::size(ends); ++i) {
    EXPECT_NEAR(segments[i].points[2].x, ends[i].x, 1e-4) << i;
    EXPECT_NEAR(segments[i].points[2].y, ends[i].y, 1e-4) << i;
  }
  // The middle of the first arc is one radius from its centre.
  const auto& [element, points] = segments[2];
  const float x = (segments[1].points[2].x + 3 * points[0].x + 3 * points[1].x + points[2].x) / 8;
  const float y = (segments[1].points[2].y + 3 * points[0].y + 3 * points[1].y + points[2].y) / 8;
  EXPECT_NEAR(std::hypot(x - 12, y - 22), 2, 0.01);
}

TEST(NSBezierPath, FillsAndStrokesInTheCurrentColour) {
  const auto bitmap = painted({20, 10}, [] {
    NSColor::colorWithDeviceRed(1, 0, 0, 0.5F).set();
    NSBezierPath path = NSBezierPath::bezierPathWithRoundedRect({2, 2, 16, 6}, 3);
    path.fill();
  });
  const uint8_t* const middle = bitmap->bitmapData() + (5 * 20 + 10) * 4;
  EXPECT_NEAR(middle[0], 128, 1) << "premultiplied";
  EXPECT_NEAR(middle[3], 128, 1);
  EXPECT_LT(bitmap->bitmapData()[(2 * 20 + 2) * 4 + 3], 60) << "a rounded corner";
}

TEST(NSImage, ScalesAndReadsBackPartsFromTheTop) {
  const auto image = NSImage::initWithSize({10, 10}, 2);
  ASSERT_TRUE(image->lockFocus());
  NSColor::redColor().set();
  NSBezierPath path;
  path.appendBezierPathWithRect({0, 8, 2, 2});  // the upper left
  path.fill();
  const auto whole = NSBitmapImageRep::initWithFocusedViewRect({0, 0, 10, 10});
  const auto part = NSBitmapImageRep::initWithFocusedViewRect({1, 7, 4, 2});
  image->unlockFocus();
  EXPECT_EQ(whole->pixelsWide(), 20);
  EXPECT_EQ(whole->bitmapData()[0], 255);
  EXPECT_EQ(marksOf(*whole, isRed).count, 16);
  EXPECT_EQ(part->pixelsWide(), 8);
  EXPECT_EQ(part->pixelsHigh(), 4);
  const Marks marks = marksOf(*part, isRed);
  EXPECT_EQ(marks.count, 4);
  EXPECT_EQ(marks.bottom, 1);
  EXPECT_EQ(NSBitmapImageRep::initWithFocusedViewRect({0, 0, 1, 1}), nullptr) << "nothing has the focus";
  EXPECT_FALSE(NSImage::initWithSize({1e6F, 1})->lockFocus());
}

}  // namespace
}  // namespace vesk
