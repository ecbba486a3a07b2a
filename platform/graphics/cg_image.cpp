#include "platform/graphics/cg_image.h"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <cstring>

namespace vesk {
namespace {

struct UnrefObject {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};
using PixbufPtr = std::unique_ptr<GdkPixbuf, UnrefObject>;

struct FreeError {
  void operator()(GError* error) const noexcept { g_error_free(error); }
};

uint8_t premultiplied(uint8_t value, uint8_t alpha) {
  return static_cast<uint8_t>((value * alpha + 127) / 255);
}

/// One row of 8-bit RGB or RGBA, not premultiplied, as GdkPixbuf has them.
void convertRow(const uint8_t* from, int32_t width, bool hasAlpha, uint8_t* to) {
  const size_t step = hasAlpha ? 4 : 3;
  for (int32_t x = 0; x < width; ++x, from += step, to += 4) {
    const uint8_t alpha = hasAlpha ? from[3] : 0xFF;
    for (size_t i = 0; i < 3; ++i) to[i] = premultiplied(from[i], alpha);
    to[3] = alpha;
  }
}

bool isAcceptable(int64_t width, int64_t height) {
  return width > 0 && height > 0 && width <= kMostImagePixels / height;
}

}  // namespace

CGImageRef CGImage::create(int32_t width, int32_t height, std::vector<uint8_t> pixels) {
  if (width <= 0 || height <= 0 || pixels.size() / 4 / static_cast<size_t>(width) != static_cast<size_t>(height))
    return nullptr;
  return std::make_shared<const CGImage>(width, height, std::move(pixels));
}

CGImageRef CGImageCreateWithFile(const std::string& path, std::string* why) {
  const auto fail = [why](const std::string& reason) {
    if (why) *why = reason;
    return nullptr;
  };
  // The size is in the header: what is too large is not decoded at all.
  int width = 0;
  int height = 0;
  if (gdk_pixbuf_get_file_info(path.c_str(), &width, &height) && !isAcceptable(width, height))
    return fail("it is too large");
  GError* error = nullptr;
  const PixbufPtr pixbuf(gdk_pixbuf_new_from_file(path.c_str(), &error));
  const std::unique_ptr<GError, FreeError> ownedError(error);
  if (!pixbuf) return fail(error ? error->message : "it holds no picture");
  width = gdk_pixbuf_get_width(pixbuf.get());
  height = gdk_pixbuf_get_height(pixbuf.get());
  if (!isAcceptable(width, height)) return fail("it is too large");
  const bool hasAlpha = gdk_pixbuf_get_has_alpha(pixbuf.get()) != 0;
  const auto rowBytes = static_cast<size_t>(gdk_pixbuf_get_rowstride(pixbuf.get()));
  const uint8_t* const rows = gdk_pixbuf_read_pixels(pixbuf.get());
  try {
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (int32_t y = 0; y < height; ++y) {
      const auto row = static_cast<size_t>(y);
      convertRow(rows + row * rowBytes, width, hasAlpha, pixels.data() + row * static_cast<size_t>(width) * 4);
    }
    return CGImage::create(width, height, std::move(pixels));
  } catch (const std::bad_alloc&) {
    return fail("memory is short");
  }
}

}  // namespace vesk
