#include "platform/graphics/image.h"

#include <cairo.h>

#include <cmath>
#include <utility>

#include "platform/graphics/cairo_handles.h"

namespace vesk {

std::shared_ptr<NSImage> NSImage::initWithSize(NSSize size, float scale) {
  return std::make_shared<NSImage>(size, scale);
}

bool NSImage::lockFocus() {
  if (!mContext) {
    constexpr float kMostPixels = 32767;
    const float width = std::ceil(mSize.width * mScale);
    const float height = std::ceil(mSize.height * mScale);
    if (!(width >= 0 && height >= 0 && width <= kMostPixels && height <= kMostPixels)) return false;
    const SurfacePtr surface(
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width), static_cast<int>(height)));
    const CairoPtr port(cairo_create(surface.get()));
    if (cairo_status(port.get()) != CAIRO_STATUS_SUCCESS) return false;
    cairo_surface_set_device_scale(surface.get(), static_cast<double>(mScale), static_cast<double>(mScale));
    mContext = NSGraphicsContext::graphicsContextWithGraphicsPort(port.get(), height / mScale, false);
  }
  mBefore = NSGraphicsContext::currentContext();
  NSGraphicsContext::setCurrentContext(mContext);
  return true;
}

void NSImage::unlockFocus() {
  NSGraphicsContext::setCurrentContext(std::exchange(mBefore, nullptr));
}

}  // namespace vesk
