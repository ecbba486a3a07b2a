#include <vesk/bezier_path.h>

#include <cairo.h>

#include <algorithm>
#include <cmath>

#include "platform/graphics/graphics_context.h"

namespace vesk {
namespace {

struct Vector {
  double x;
  double y;
};

Vector operator*(Vector v, double scale) {
  return {v.x * scale, v.y * scale};
}

/// From `from` to `to`, one long; zero when both are the same.
Vector direction(NSPoint from, NSPoint to) {
  const double x = static_cast<double>(to.x) - static_cast<double>(from.x);
  const double y = static_cast<double>(to.y) - static_cast<double>(from.y);
  const double length = std::hypot(x, y);
  return length > 0 ? Vector{x / length, y / length} : Vector{0, 0};
}

NSPoint moved(NSPoint point, Vector by) {
  return {static_cast<float>(static_cast<double>(point.x) + by.x),
          static_cast<float>(static_cast<double>(point.y) + by.y)};
}

void addTo(cairo_t* port, const std::vector<NSBezierPath::Segment>& segments) {
  cairo_new_path(port);
  for (const auto& [element, points] : segments) {
    const auto x = [&points = points](size_t i) { return static_cast<double>(points[i].x); };
    const auto y = [&points = points](size_t i) { return static_cast<double>(points[i].y); };
    switch (element) {
      case NSBezierPathElement::kMoveTo:
        cairo_move_to(port, x(2), y(2));
        break;
      case NSBezierPathElement::kLineTo:
        cairo_line_to(port, x(2), y(2));
        break;
      case NSBezierPathElement::kCurveTo:
        cairo_curve_to(port, x(0), y(0), x(1), y(1), x(2), y(2));
        break;
      case NSBezierPathElement::kClosePath:
        cairo_close_path(port);
        break;
    }
  }
}

}  // namespace

NSBezierPath NSBezierPath::bezierPathWithRoundedRect(NSRect rect, float radius) {
  NSBezierPath path;
  path.appendBezierPathWithRoundedRect(rect, radius);
  return path;
}

NSPoint NSBezierPath::currentPoint() const {
  if (mSegments.empty()) return {};
  return mSegments.back().element == NSBezierPathElement::kClosePath ? mStart : mSegments.back().points[2];
}

void NSBezierPath::moveToPoint(NSPoint point) {
  mSegments.push_back({NSBezierPathElement::kMoveTo, {{}, {}, point}});
  mStart = point;
}

void NSBezierPath::lineToPoint(NSPoint point) {
  mSegments.push_back({NSBezierPathElement::kLineTo, {{}, {}, point}});
}

void NSBezierPath::curveToPoint(NSPoint end, NSPoint control1, NSPoint control2) {
  mSegments.push_back({NSBezierPathElement::kCurveTo, {control1, control2, end}});
}

void NSBezierPath::appendBezierPathWithArcFromPoint(NSPoint from, NSPoint to, float radius) {
  const Vector back = direction(from, currentPoint());
  const Vector ahead = direction(from, to);
  const double cosine = back.x * ahead.x + back.y * ahead.y;
  const double cross = back.x * ahead.y - back.y * ahead.x;
  if (!(radius > 0) || std::abs(cross) < 1e-9) {  // no corner to round
    lineToPoint(from);
    return;
  }
  const auto r = static_cast<double>(radius);
  const double halfAngle = std::acos(std::clamp(cosine, -1.0, 1.0)) / 2;
  const double tangent = r / std::tan(halfAngle);  // from the corner to where the arc touches
  const double sweep = std::acos(-1.0) - 2 * halfAngle;
  const double handle = tangent - r * 4 / 3 * std::tan(sweep / 4);
  lineToPoint(moved(from, back * tangent));
  curveToPoint(moved(from, ahead * tangent), moved(from, back * handle), moved(from, ahead * handle));
}

void NSBezierPath::appendBezierPathWithRect(NSRect rect) {
  moveToPoint({rect.x, rect.y});
  lineToPoint({rect.x + rect.width, rect.y});
  lineToPoint({rect.x + rect.width, rect.y + rect.height});
  lineToPoint({rect.x, rect.y + rect.height});
  closePath();
}

void NSBezierPath::appendBezierPathWithRoundedRect(NSRect rect, float radius) {
  if (NSIsEmptyRect(rect)) return;
  if (!(radius > 0)) {
    appendBezierPathWithRect(rect);
    return;
  }
  const double half = 0.5 * static_cast<double>(std::min(rect.width, rect.height));
  const auto r = static_cast<float>(std::min(static_cast<double>(radius), half));
  const float maxX = rect.x + rect.width;
  const float maxY = rect.y + rect.height;
  moveToPoint({rect.x + rect.width * 0.5F, maxY});
  appendBezierPathWithArcFromPoint({rect.x, maxY}, {rect.x, rect.y}, r);
  appendBezierPathWithArcFromPoint({rect.x, rect.y}, {maxX, rect.y}, r);
  appendBezierPathWithArcFromPoint({maxX, rect.y}, {maxX, maxY}, r);
  appendBezierPathWithArcFromPoint({maxX, maxY}, {rect.x, maxY}, r);
  closePath();
}

void NSBezierPath::closePath() {
  mSegments.push_back({NSBezierPathElement::kClosePath, {}});
}

void NSBezierPath::fill() const {
  const auto context = NSGraphicsContext::currentContext();
  if (!context) return;
  addTo(context->graphicsPort(), mSegments);
  cairo_fill(context->graphicsPort());
}

void NSBezierPath::stroke() const {
  const auto context = NSGraphicsContext::currentContext();
  if (!context) return;
  cairo_t* const port = context->graphicsPort();
  addTo(port, mSegments);
  cairo_set_line_width(port, static_cast<double>(mLineWidth));
  cairo_stroke(port);
}

}  // namespace vesk
