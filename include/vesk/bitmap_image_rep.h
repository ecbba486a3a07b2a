#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <vesk/cg_image.h>
#include <vesk/ci_image.h>
#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// File formats that a bitmap can be written in.
enum NSBitmapImageFileType { NSJPEGFileType = 3, NSPNGFileType = 4 };

/// JPEG quality where nothing else is asked for, from 1 to 100.
constexpr int kJPEGQuality = 90;

/// A bitmap, to be looked at or to be written to a file. From any thread, by one at a time.
class VESK_EXPORT NSBitmapImageRep {
 public:
  /// Keeps the image and converts nothing before it must. Null without an image.
  static std::shared_ptr<NSBitmapImageRep> initWithCIImage(CIImageRef image);
  /// Null without an image.
  static std::shared_ptr<NSBitmapImageRep> initWithCGImage(CGImageRef image);
  /// The pixels painted so far inside `rect` of the current graphics context, which must be an image's
  /// (NSImage::lockFocus). Null when it is none.
  static std::shared_ptr<NSBitmapImageRep> initWithFocusedViewRect(NSRect rect);

  int32_t pixelsWide() const;
  int32_t pixelsHigh() const;
  /// Always: bitmapData is RGBA.
  bool hasAlpha() const { return true; }
  /// RGBA, premultiplied, the first row at the top, without padding; null when memory is short.
  const uint8_t* bitmapData();

  /// The bitmap as a file, upright and at full size. JPEG: baseline, quality kJPEGQuality, in the
  /// chroma layout that the picture has (4:2:0 from RGB); alpha is left out. PNG: with alpha. Empty
  /// when it cannot be (memory, or sides above 65,500 pixels for JPEG).
  std::vector<uint8_t> representationUsingType(NSBitmapImageFileType type);

  NSBitmapImageRep(CIImageRef image, CGImageRef bitmap) : mImage(std::move(image)), mBitmap(std::move(bitmap)) {}

 private:
  const CGImageRef& bitmap();

  CIImageRef mImage;   ///< null when made from a bitmap
  CGImageRef mBitmap;  ///< null until it is needed
};

}  // namespace vesk
