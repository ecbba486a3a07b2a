#pragma once

#include <memory>

#include <vesk/cg_image.h>
#include <vesk/ci_image.h>
#include <vesk/export.h>
#include <vesk/geometry.h>
#include <vesk/open_gl_context.h>
#include <vesk/open_gl_pixel_format.h>

namespace vesk {

/// Draws images into a GL context, or into bitmaps. Textures and scratch memory are used again for
/// frames of the same size.
///
/// Drawing takes place in the coordinates of the current matrices, which must not turn or shear, or in those of
/// NSOpenGLContext::setCoordinates. It fills whole pixels of the surface: an unscaled picture keeps each of its own
/// wherever it is put, and one that becomes much smaller is averaged. It leaves the current colour opaque white
/// and everything else as it was. Without the context current nothing is drawn.
///
/// Threads: the main thread only.
class VESK_EXPORT CIContext {
 public:
  /// For drawing into `context`; null still serves createCGImage. Colours are not managed.
  static std::shared_ptr<CIContext> contextWithCGLContext(const CGLContextObj& context,
                                                          std::shared_ptr<const NSOpenGLPixelFormat> pixelFormat);

  /// Whether the context that it draws into is the current one.
  bool isCurrent() const;

  /// Draws the part of `image` inside `fromRect` unscaled, with the rectangle's origin at `atPoint`.
  void drawImage(const CIImageRef& image, CGPoint atPoint, CGRect fromRect);
  /// Draws the part of `image` inside `fromRect`, the whole rectangle scaled to fill `inRect`.
  void drawImage(const CIImageRef& image, CGRect inRect, CGRect fromRect);

  /// A rectangle of the image as a bitmap, its edges rounded outwards to whole pixels; transparent
  /// where the image has nothing. Null without an image, for an empty rectangle and for one of more
  /// than kMostImagePixels.
  CGImageRef createCGImage(const CIImageRef& image, CGRect fromRect);

  /// Lets go of the images drawn so far, which no drawing keeps for longer than it takes. Textures and memory for
  /// the next frame are kept.
  void clearCaches();

  CIContext();
  explicit CIContext(const CGLContextObj& context);
  ~CIContext();
  CIContext(const CIContext&) = delete;
  CIContext& operator=(const CIContext&) = delete;

 private:
  struct VESK_LOCAL State;
  std::unique_ptr<State> mState;
};

}  // namespace vesk
