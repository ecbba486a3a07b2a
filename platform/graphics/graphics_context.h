#pragma once

#include <memory>

#include <vesk/cg_image.h>
#include <vesk/geometry.h>

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that cairo.h gives it
typedef struct _cairo cairo_t;

namespace vesk {

using CGContextRef = cairo_t*;

/// Where paths, text and images are painted: a Cairo context whose y runs upwards.
///
/// Threads: the current context is the main thread's.
class NSGraphicsContext {
 public:
  /// Paints into `port`, which it keeps, with the origin at the lower left of a page `height` units
  /// high. `isDrawingToScreen` is false for a printer's page or a picture.
  static std::shared_ptr<NSGraphicsContext> graphicsContextWithGraphicsPort(CGContextRef port, float height,
                                                                            bool isDrawingToScreen);

  /// Null when there is none.
  static std::shared_ptr<NSGraphicsContext> currentContext();
  /// Null leaves none.
  static void setCurrentContext(std::shared_ptr<NSGraphicsContext> context);
  /// Whether what is drawn now goes to the screen; so it does when nothing else is current.
  static bool currentContextDrawingToScreen();

  void setShouldAntialias(bool antialias);
  CGContextRef graphicsPort() const { return mPort; }
  bool isDrawingToScreen() const { return mIsDrawingToScreen; }

  NSGraphicsContext(CGContextRef port, bool isDrawingToScreen) : mPort(port), mIsDrawingToScreen(isDrawingToScreen) {}
  ~NSGraphicsContext();
  NSGraphicsContext(const NSGraphicsContext&) = delete;
  NSGraphicsContext& operator=(const NSGraphicsContext&) = delete;

 private:
  CGContextRef mPort;
  bool mIsDrawingToScreen;
};

void CGContextSaveGState(CGContextRef port);
void CGContextRestoreGState(CGContextRef port);
void CGContextTranslateCTM(CGContextRef port, float x, float y);
void CGContextScaleCTM(CGContextRef port, float x, float y);
/// Paints the image upright, scaled to fill `rect`.
void CGContextDrawImage(CGContextRef port, CGRect rect, const CGImageRef& image);

}  // namespace vesk
