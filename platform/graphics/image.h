#pragma once

#include <memory>

#include <vesk/geometry.h>
#include "platform/graphics/graphics_context.h"

namespace vesk {

/// An offscreen picture to paint into. Threads: the main thread.
class NSImage {
 public:
  /// A transparent image of `size` points, with `scale` pixels a point; broken pixels count whole.
  static std::shared_ptr<NSImage> initWithSize(NSSize size, float scale = 1);

  /// Makes the image the current graphics context, until unlockFocus. False when there is no memory
  /// for it, or it is larger than Cairo's images can be (32,767 pixels a side).
  bool lockFocus();
  void unlockFocus();

  NSImage(NSSize size, float scale) : mSize(size), mScale(scale) {}

 private:
  NSSize mSize;
  float mScale;
  std::shared_ptr<NSGraphicsContext> mContext;  ///< made with the first focus
  std::shared_ptr<NSGraphicsContext> mBefore;
};

}  // namespace vesk
