#pragma once

#include <vector>

#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

enum class NSBezierPathElement { kMoveTo, kLineTo, kCurveTo, kClosePath };

/// An outline of lines and cubic curves, painted into the current graphics context in its current
/// colour.
class VESK_EXPORT NSBezierPath {
 public:
  struct Segment {
    NSBezierPathElement element;
    NSPoint points[3];  ///< the end point last; unused ones are zero
  };

  static NSBezierPath bezierPath() { return {}; }
  /// A new path that holds a rounded rectangle.
  static NSBezierPath bezierPathWithRoundedRect(NSRect rect, float radius);

  void moveToPoint(NSPoint point);
  void lineToPoint(NSPoint point);
  void curveToPoint(NSPoint end, NSPoint control1, NSPoint control2);
  /// An arc of `radius` that touches the lines from the current point to `from` and from there to `to`,
  /// with a line to its start, as PostScript's arct. Ends where the arc touches the second line.
  void appendBezierPathWithArcFromPoint(NSPoint from, NSPoint to, float radius);
  void appendBezierPathWithRect(NSRect rect);
  /// Begins in the middle of the upper edge and goes left, down, right and up. The radius is at most
  /// half of the shorter side; one that is not above 0 gives a plain rectangle, an empty rectangle
  /// nothing.
  void appendBezierPathWithRoundedRect(NSRect rect, float radius);
  void closePath();

  void setLineWidth(float width) { mLineWidth = width; }
  float lineWidth() const { return mLineWidth; }
  void fill() const;
  void stroke() const;

  const std::vector<Segment>& segments() const { return mSegments; }

 private:
  NSPoint currentPoint() const;

  std::vector<Segment> mSegments;
  NSPoint mStart;  ///< of the part under way
  float mLineWidth = 1;
};

}  // namespace vesk
