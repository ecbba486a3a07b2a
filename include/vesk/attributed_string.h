#pragma once

#include <optional>
#include <string>
#include <utility>

#include <vesk/color.h>
#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// A font by family name and size in points. Where the family is missing, the system's nearest one
/// serves; where that lacks a character, another does.
struct NSFont {
  std::string name = "Sans";
  float size = 12;
  static NSFont fontWithName(std::string name, float size) { return {std::move(name), size}; }
};

/// The shadow of what is painted. Offset and blur are in the unflipped coordinates of the whole
/// picture, whatever the drawing transform is: a positive offset leads right and up.
struct NSShadow {
  NSSize shadowOffset;
  float shadowBlurRadius = 0;
  NSColor shadowColor = NSColor::blackColor();
};

/// How a text is painted.
struct NSTextAttributes {
  std::optional<NSFont> font;
  std::optional<NSColor> foregroundColor;  ///< else the current colour
  /// Of the outline, in percent of the font's size: above 0 the glyphs are only outlined, below 0
  /// filled and outlined, both in the foreground colour.
  float strokeWidth = 0;
  std::optional<NSShadow> shadow;
};

/// A text in UTF-8, all of it painted in one way.
class VESK_EXPORT NSAttributedString {
 public:
  NSAttributedString() = default;
  static NSAttributedString initWithString(std::string string, NSTextAttributes attributes = {}) {
    NSAttributedString text;
    text.mString = std::move(string);
    text.mAttributes = std::move(attributes);
    return text;
  }

  const std::string& string() const { return mString; }
  const NSTextAttributes& attributes() const { return mAttributes; }

  /// What it takes in points, in whole ones; outline and shadow may reach beyond.
  NSSize size() const;
  /// Paints it into the current graphics context, its lower left corner at `point`. Nothing without a
  /// context.
  void drawAtPoint(NSPoint point) const;

 private:
  std::string mString;
  NSTextAttributes mAttributes;
};

}  // namespace vesk
