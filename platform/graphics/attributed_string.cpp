#include <vesk/attributed_string.h>

#include <pango/pangocairo.h>

#include <cmath>
#include <memory>
#include <vector>

#include "platform/graphics/cairo_handles.h"
#include "platform/graphics/graphics_context.h"

namespace vesk {
namespace {

struct UnrefObject {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};
using LayoutPtr = std::unique_ptr<PangoLayout, UnrefObject>;

struct FreeFont {
  void operator()(PangoFontDescription* font) const noexcept { pango_font_description_free(font); }
};
using FontPtr = std::unique_ptr<PangoFontDescription, FreeFont>;

LayoutPtr layoutOf(const NSAttributedString& text) {
  const std::unique_ptr<PangoContext, UnrefObject> context(
      pango_font_map_create_context(pango_cairo_font_map_get_default()));
  LayoutPtr layout(pango_layout_new(context.get()));
  const NSFont font = text.attributes().font.value_or(NSFont{});
  const FontPtr description(pango_font_description_new());
  pango_font_description_set_family(description.get(), font.name.c_str());
  pango_font_description_set_absolute_size(description.get(), static_cast<double>(font.size) * PANGO_SCALE);
  pango_layout_set_font_description(layout.get(), description.get());
  pango_layout_set_text(layout.get(), text.string().data(), static_cast<int>(text.string().size()));
  return layout;
}

/// Puts the glyphs' outlines into the port's path, the text's lower left corner at `point`.
void placeOutlines(cairo_t* port, PangoLayout* layout, NSPoint point, float height) {
  cairo_save(port);
  cairo_translate(port, static_cast<double>(point.x), static_cast<double>(point.y + height));
  cairo_scale(port, 1, -1);  // Pango's y runs downwards
  cairo_new_path(port);
  pango_cairo_layout_path(port, layout);
  cairo_restore(port);
}

/// Fills and outlines the glyphs in the port's source.
void paint(cairo_t* port, const NSTextAttributes& attributes) {
  const float percent = attributes.strokeWidth;
  if (percent <= 0) cairo_fill_preserve(port);
  if (percent != 0) {
    const float points = attributes.font.value_or(NSFont{}).size * std::abs(percent) / 100;
    cairo_set_line_width(port, static_cast<double>(points));
    cairo_set_line_join(port, CAIRO_LINE_JOIN_ROUND);  // mitres of a thick outline would spike
    cairo_stroke_preserve(port);
  }
  cairo_new_path(port);
}

/// One dimension of a blur over an 8-bit mask: `count` samples, `step` bytes apart.
void blurLine(uint8_t* samples, size_t count, size_t step, const std::vector<float>& weights,
              std::vector<float>& line) {
  const auto reach = static_cast<ptrdiff_t>(weights.size()) - 1;
  line.assign(count, 0);
  for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(count); ++i) {
    for (ptrdiff_t offset = -reach; offset <= reach; ++offset) {
      const ptrdiff_t at = i + offset;
      if (at < 0 || at >= static_cast<ptrdiff_t>(count)) continue;
      line[static_cast<size_t>(i)] +=
          weights[static_cast<size_t>(std::abs(offset))] * static_cast<float>(samples[static_cast<size_t>(at) * step]);
    }
  }
  for (size_t i = 0; i < count; ++i) samples[i * step] = static_cast<uint8_t>(std::lround(line[i]));
}

/// Softens a mask as a shadow's blur radius (in pixels) says: a Gaussian of half that deviation.
void blur(cairo_surface_t* mask, float radius) {
  const float deviation = radius / 2;
  if (!(deviation > 0)) return;
  std::vector<float> weights;  // from the middle outwards, up to three deviations
  float sum = 0;
  for (int i = 0; i <= static_cast<int>(std::ceil(3 * deviation)); ++i) {
    weights.push_back(std::exp(-static_cast<float>(i * i) / (2 * deviation * deviation)));
    sum += weights.back() * (i == 0 ? 1.0F : 2.0F);
  }
  for (float& weight : weights) weight /= sum;
  cairo_surface_flush(mask);
  uint8_t* const data = cairo_image_surface_get_data(mask);
  const auto width = static_cast<size_t>(cairo_image_surface_get_width(mask));
  const auto height = static_cast<size_t>(cairo_image_surface_get_height(mask));
  const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(mask));
  std::vector<float> line;
  for (size_t y = 0; y < height; ++y) blurLine(data + y * stride, width, 1, weights, line);
  for (size_t x = 0; x < width; ++x) blurLine(data + x, height, stride, weights, line);
  cairo_surface_mark_dirty(mask);
}

/// A mask as large as what the port can paint on, its transform the port's own.
struct Mask {
  SurfacePtr surface;
  CairoPtr port;
  double x = 0;  ///< of its upper left corner on the port's surface, untransformed
  double y = 0;
  double scale = 1;  ///< pixels a unit
};

Mask maskFor(cairo_t* port) {
  Mask mask;
  double right = 0;
  double bottom = 0;
  cairo_save(port);
  cairo_identity_matrix(port);
  cairo_clip_extents(port, &mask.x, &mask.y, &right, &bottom);
  cairo_restore(port);
  cairo_surface_get_device_scale(cairo_get_target(port), &mask.scale, &mask.scale);
  const double width = std::ceil((right - mask.x) * mask.scale);
  const double height = std::ceil((bottom - mask.y) * mask.scale);
  constexpr double kMostPixels = 32767;
  if (!(width > 0 && height > 0 && width <= kMostPixels && height <= kMostPixels)) return mask;
  mask.surface.reset(cairo_image_surface_create(CAIRO_FORMAT_A8, static_cast<int>(width), static_cast<int>(height)));
  cairo_surface_set_device_scale(mask.surface.get(), mask.scale, mask.scale);
  mask.port.reset(cairo_create(mask.surface.get()));
  cairo_matrix_t transform;
  cairo_get_matrix(port, &transform);
  transform.x0 -= mask.x;
  transform.y0 -= mask.y;
  cairo_set_matrix(mask.port.get(), &transform);
  cairo_set_antialias(mask.port.get(), cairo_get_antialias(port));
  return mask;
}

void paintShadow(cairo_t* port, PangoLayout* layout, NSPoint point, float height, const NSTextAttributes& attributes) {
  const NSShadow& shadow = *attributes.shadow;
  const Mask mask = maskFor(port);
  if (!mask.port || cairo_status(mask.port.get()) != CAIRO_STATUS_SUCCESS) return;
  placeOutlines(mask.port.get(), layout, point, height);
  paint(mask.port.get(), attributes);
  blur(mask.surface.get(), shadow.shadowBlurRadius * static_cast<float>(mask.scale));
  cairo_save(port);
  cairo_identity_matrix(port);
  shadow.shadowColor.set();
  cairo_mask_surface(port, mask.surface.get(), mask.x + static_cast<double>(shadow.shadowOffset.width),
                     mask.y - static_cast<double>(shadow.shadowOffset.height));
  cairo_restore(port);
}

NSSize sizeOf(PangoLayout* layout) {
  PangoRectangle logical;
  pango_layout_get_extents(layout, nullptr, &logical);
  const auto points = [](int units) { return std::ceil(static_cast<float>(units) / PANGO_SCALE); };
  return {points(logical.width), points(logical.height)};
}

}  // namespace

NSSize NSAttributedString::size() const {
  return sizeOf(layoutOf(*this).get());
}

void NSAttributedString::drawAtPoint(NSPoint point) const {
  const auto context = NSGraphicsContext::currentContext();
  if (!context) return;
  cairo_t* const port = context->graphicsPort();
  const LayoutPtr layout = layoutOf(*this);
  const float height = sizeOf(layout.get()).height;
  cairo_save(port);
  if (mAttributes.shadow) paintShadow(port, layout.get(), point, height, mAttributes);
  if (mAttributes.foregroundColor) mAttributes.foregroundColor->set();
  placeOutlines(port, layout.get(), point, height);
  paint(port, mAttributes);
  cairo_restore(port);
}

}  // namespace vesk
