#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace vesk {

// Points, sizes and rectangles in 32-bit floats; y runs upwards.

struct NSPoint {
  float x = 0;
  float y = 0;
  bool operator==(const NSPoint&) const = default;
};

struct NSSize {
  float width = 0;
  float height = 0;
  bool operator==(const NSSize&) const = default;
};

struct NSRect {
  float x = 0;
  float y = 0;
  float width = 0;
  float height = 0;
  bool operator==(const NSRect&) const = default;
};

using CGPoint = NSPoint;
using CGSize = NSSize;
using CGRect = NSRect;

/// The rectangle that holds every other.
constexpr CGRect CGRectInfinite{-std::numeric_limits<float>::max() / 2, -std::numeric_limits<float>::max() / 2,
                                std::numeric_limits<float>::max(), std::numeric_limits<float>::max()};

inline bool NSEqualRects(const NSRect& a, const NSRect& b) {
  return a == b;
}
inline bool NSEqualSizes(const NSSize& a, const NSSize& b) {
  return a == b;
}
inline bool CGRectIsInfinite(const CGRect& rect) {
  return rect == CGRectInfinite;
}
/// Whether the width or the height is not above 0.
inline bool NSIsEmptyRect(const NSRect& rect) {
  return !(rect.width > 0 && rect.height > 0);
}
inline float CGRectGetHeight(const CGRect& rect) {
  return rect.height;
}

/// The smallest rectangle with whole-number edges that holds `rect`.
inline CGRect CGRectIntegral(const CGRect& rect) {
  const float left = std::floor(rect.x);
  const float bottom = std::floor(rect.y);
  return {left, bottom, std::ceil(rect.x + rect.width) - left, std::ceil(rect.y + rect.height) - bottom};
}

/// `rect` with its edges moved inwards by dx and dy (outwards when those are negative); the zero
/// rectangle when nothing remains.
inline CGRect CGRectInset(const CGRect& rect, float dx, float dy) {
  const CGRect inset{rect.x + dx, rect.y + dy, rect.width - 2 * dx, rect.height - 2 * dy};
  return inset.width < 0 || inset.height < 0 ? CGRect{} : inset;
}
/// The same without that last case: the result may have negative sides.
inline NSRect NSInsetRect(const NSRect& rect, float dx, float dy) {
  return {rect.x + dx, rect.y + dy, rect.width - 2 * dx, rect.height - 2 * dy};
}

/// What two rectangles have in common; the zero rectangle when that is nothing.
inline CGRect CGRectIntersection(const CGRect& a, const CGRect& b) {
  const float left = std::max(a.x, b.x);
  const float bottom = std::max(a.y, b.y);
  const float right = std::min(a.x + a.width, b.x + b.width);
  const float top = std::min(a.y + a.height, b.y + b.height);
  return right < left || top < bottom ? CGRect{} : CGRect{left, bottom, right - left, top - bottom};
}

/// The smallest rectangle that holds both; an empty one adds nothing.
inline NSRect NSUnionRect(const NSRect& a, const NSRect& b) {
  if (NSIsEmptyRect(a)) return NSIsEmptyRect(b) ? NSRect{} : b;
  if (NSIsEmptyRect(b)) return a;
  const float left = std::min(a.x, b.x);
  const float bottom = std::min(a.y, b.y);
  return {left, bottom, std::max(a.x + a.width, b.x + b.width) - left,
          std::max(a.y + a.height, b.y + b.height) - bottom};
}

/// Whether a point lies in `rect`, its lower and left edges included.
inline bool NSPointInRect(const NSPoint& point, const NSRect& rect) {
  return point.x >= rect.x && point.x < rect.x + rect.width && point.y >= rect.y && point.y < rect.y + rect.height;
}

}  // namespace vesk
