#include "platform/graphics/graphics_context.h"

#include <cairo.h>

#include <utility>

#include <vesk/color.h>
#include "platform/graphics/cairo_handles.h"

namespace vesk {
namespace {

std::shared_ptr<NSGraphicsContext>& current() {
  static std::shared_ptr<NSGraphicsContext> context;
  return context;
}

/// A Cairo surface of its own: 32-bit words with alpha highest, premultiplied.
SurfacePtr surfaceOf(const CGImage& image) {
  SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, image.width(), image.height()));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(surface.get()));
  const uint8_t* from = image.pixels().data();
  for (int32_t y = 0; y < image.height(); ++y) {
    auto* const row =
        reinterpret_cast<uint32_t*>(cairo_image_surface_get_data(surface.get()) + static_cast<size_t>(y) * stride);
    for (int32_t x = 0; x < image.width(); ++x, from += 4)
      row[x] = uint32_t{from[3]} << 24 | uint32_t{from[0]} << 16 | uint32_t{from[1]} << 8 | from[2];
  }
  cairo_surface_mark_dirty(surface.get());
  return surface;
}

}  // namespace

std::shared_ptr<NSGraphicsContext> NSGraphicsContext::graphicsContextWithGraphicsPort(CGContextRef port, float height,
                                                                                      bool isDrawingToScreen) {
  if (!port) return nullptr;
  cairo_translate(port, 0, static_cast<double>(height));
  cairo_scale(port, 1, -1);
  return std::make_shared<NSGraphicsContext>(cairo_reference(port), isDrawingToScreen);
}

NSGraphicsContext::~NSGraphicsContext() {
  cairo_destroy(mPort);
}

std::shared_ptr<NSGraphicsContext> NSGraphicsContext::currentContext() {
  return current();
}

void NSGraphicsContext::setCurrentContext(std::shared_ptr<NSGraphicsContext> context) {
  current() = std::move(context);
}

bool NSGraphicsContext::currentContextDrawingToScreen() {
  return !current() || current()->isDrawingToScreen();
}

void NSGraphicsContext::setShouldAntialias(bool antialias) {
  cairo_set_antialias(mPort, antialias ? CAIRO_ANTIALIAS_DEFAULT : CAIRO_ANTIALIAS_NONE);
}

void NSColor::set() const {
  if (const auto& context = current())
    cairo_set_source_rgba(context->graphicsPort(), static_cast<double>(mRed), static_cast<double>(mGreen),
                          static_cast<double>(mBlue), static_cast<double>(mAlpha));
}

void CGContextSaveGState(CGContextRef port) {
  cairo_save(port);
}

void CGContextRestoreGState(CGContextRef port) {
  cairo_restore(port);
}

void CGContextTranslateCTM(CGContextRef port, float x, float y) {
  cairo_translate(port, static_cast<double>(x), static_cast<double>(y));
}

void CGContextScaleCTM(CGContextRef port, float x, float y) {
  cairo_scale(port, static_cast<double>(x), static_cast<double>(y));
}

void CGContextDrawImage(CGContextRef port, CGRect rect, const CGImageRef& image) {
  if (!port || !image || NSIsEmptyRect(rect)) return;
  const SurfacePtr surface = surfaceOf(*image);
  if (!surface) return;
  cairo_save(port);
  cairo_translate(port, static_cast<double>(rect.x), static_cast<double>(rect.y + rect.height));
  cairo_scale(port, static_cast<double>(rect.width) / image->width(),
              -static_cast<double>(rect.height) / image->height());
  cairo_set_source_surface(port, surface.get(), 0, 0);
  cairo_pattern_set_extend(cairo_get_source(port), CAIRO_EXTEND_PAD);  // no soft edges where it is scaled
  cairo_rectangle(port, 0, 0, image->width(), image->height());
  cairo_fill(port);
  cairo_restore(port);
}

}  // namespace vesk
