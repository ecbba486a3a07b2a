#pragma once

#include <algorithm>

#include <vesk/export.h>

namespace vesk {

/// A colour in device RGB, not premultiplied; components outside of 0 to 1 are taken to the nearer end.
class VESK_EXPORT NSColor {
 public:
  static NSColor colorWithDeviceRed(float red, float green, float blue, float alpha) {
    const auto part = [](float value) { return std::clamp(value, 0.0F, 1.0F); };
    NSColor color;
    color.mRed = part(red);
    color.mGreen = part(green);
    color.mBlue = part(blue);
    color.mAlpha = part(alpha);
    return color;
  }
  static NSColor redColor() { return colorWithDeviceRed(1, 0, 0, 1); }
  static NSColor whiteColor() { return colorWithDeviceRed(1, 1, 1, 1); }
  static NSColor blackColor() { return colorWithDeviceRed(0, 0, 0, 1); }
  static NSColor clearColor() { return colorWithDeviceRed(0, 0, 0, 0); }

  float redComponent() const { return mRed; }
  float greenComponent() const { return mGreen; }
  float blueComponent() const { return mBlue; }
  float alphaComponent() const { return mAlpha; }

  /// Makes it the colour that the current graphics context fills and strokes with.
  void set() const;

  bool operator==(const NSColor&) const = default;

 private:
  float mRed = 0;
  float mGreen = 0;
  float mBlue = 0;
  float mAlpha = 1;
};

}  // namespace vesk
