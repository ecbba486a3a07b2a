#include <vesk/bitmap_image_rep.h>

#include <cairo.h>
#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <new>

#include <vesk/ci_context.h>
#include "platform/graphics/cairo_handles.h"
#include "platform/graphics/graphics_context.h"
#include "platform/graphics/jpeg_encoder.h"
#include "platform/pixels/picture_planes.h"

namespace vesk {
namespace {

struct UnrefObject {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};

struct FreeMemory {
  void operator()(gchar* memory) const noexcept { g_free(memory); }
};

uint8_t unpremultiplied(uint8_t value, uint8_t alpha) {
  return alpha == 0 ? 0 : static_cast<uint8_t>(std::min((value * 255 + alpha / 2) / alpha, 255));
}

/// PNG keeps colours that are not premultiplied.
std::vector<uint8_t> encodePNG(const CGImage& image) {
  std::vector<uint8_t> pixels = image.pixels();
  for (size_t i = 0; i < pixels.size(); i += 4)
    for (size_t j = 0; j < 3; ++j) pixels[i + j] = unpremultiplied(pixels[i + j], pixels[i + 3]);
  const std::unique_ptr<GdkPixbuf, UnrefObject> pixbuf(
      gdk_pixbuf_new_from_data(pixels.data(), GDK_COLORSPACE_RGB, TRUE, 8, image.width(), image.height(),
                               static_cast<int>(image.bytesPerRow()), nullptr, nullptr));
  gchar* bytes = nullptr;
  gsize size = 0;
  if (!pixbuf || !gdk_pixbuf_save_to_bufferv(pixbuf.get(), &bytes, &size, "png", nullptr, nullptr, nullptr)) return {};
  const std::unique_ptr<gchar, FreeMemory> owner(bytes);
  return {bytes, bytes + size};
}

/// RGBA from a part of a Cairo image, whose pixels are 32-bit words with alpha highest. Null when
/// memory is short.
CGImageRef copyOf(cairo_surface_t* surface, PixelBox box) try {
  cairo_surface_flush(surface);
  const uint8_t* const data = cairo_image_surface_get_data(surface);
  const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(surface));
  std::vector<uint8_t> pixels(static_cast<size_t>(box.width) * static_cast<size_t>(box.height) * 4);
  uint8_t* to = pixels.data();
  for (int32_t y = 0; y < box.height; ++y) {
    const auto* const row = reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(box.y + y) * stride) + box.x;
    for (int32_t x = 0; x < box.width; ++x, to += 4) {
      to[0] = static_cast<uint8_t>(row[x] >> 16);
      to[1] = static_cast<uint8_t>(row[x] >> 8);
      to[2] = static_cast<uint8_t>(row[x]);
      to[3] = static_cast<uint8_t>(row[x] >> 24);
    }
  }
  return CGImage::create(box.width, box.height, std::move(pixels));
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

std::shared_ptr<NSBitmapImageRep> NSBitmapImageRep::initWithCIImage(CIImageRef image) {
  return image ? std::make_shared<NSBitmapImageRep>(std::move(image), nullptr) : nullptr;
}

std::shared_ptr<NSBitmapImageRep> NSBitmapImageRep::initWithCGImage(CGImageRef image) {
  return image ? std::make_shared<NSBitmapImageRep>(nullptr, std::move(image)) : nullptr;
}

std::shared_ptr<NSBitmapImageRep> NSBitmapImageRep::initWithFocusedViewRect(NSRect rect) {
  const auto context = NSGraphicsContext::currentContext();
  if (!context) return nullptr;
  cairo_surface_t* const surface = cairo_get_target(context->graphicsPort());
  if (cairo_surface_get_type(surface) != CAIRO_SURFACE_TYPE_IMAGE) return nullptr;
  double scale = 1;
  cairo_surface_get_device_scale(surface, &scale, &scale);
  const auto pixels = [scale](float points) { return static_cast<float>(static_cast<double>(points) * scale); };
  const auto height = static_cast<float>(cairo_image_surface_get_height(surface));
  const CGRect whole{0, 0, static_cast<float>(cairo_image_surface_get_width(surface)), height};
  const CGRect part = CGRectIntersection(
      CGRectIntegral({pixels(rect.x), pixels(rect.y), pixels(rect.width), pixels(rect.height)}), whole);
  return initWithCGImage(
      copyOf(surface, {static_cast<int32_t>(part.x), static_cast<int32_t>(height - part.y - part.height),
                       static_cast<int32_t>(part.width), static_cast<int32_t>(part.height)}));
}

int32_t NSBitmapImageRep::pixelsWide() const {
  return mImage ? mImage->imageBuffer()->width() : mBitmap->width();
}

int32_t NSBitmapImageRep::pixelsHigh() const {
  return mImage ? mImage->imageBuffer()->height() : mBitmap->height();
}

const CGImageRef& NSBitmapImageRep::bitmap() {
  if (!mBitmap) mBitmap = CIContext().createCGImage(mImage, mImage->extent());
  return mBitmap;
}

const uint8_t* NSBitmapImageRep::bitmapData() {
  return bitmap() ? bitmap()->pixels().data() : nullptr;
}

std::vector<uint8_t> NSBitmapImageRep::representationUsingType(NSBitmapImageFileType type) {
  try {
    switch (type) {
      case NSJPEGFileType: {
        const CIImageRef image = mImage ? mImage : CIImage::imageWithCGImage(mBitmap);
        return encodeJPEG(planesOf(*image->imageBuffer()), kJPEGQuality);
      }
      case NSPNGFileType:
        return bitmap() ? encodePNG(*bitmap()) : std::vector<uint8_t>{};
    }
  } catch (const std::bad_alloc&) {
    return {};
  }
  return {};
}

}  // namespace vesk
