#pragma once

#include <cairo.h>

#include <memory>

namespace vesk {

struct DestroySurface {
  void operator()(cairo_surface_t* surface) const noexcept { cairo_surface_destroy(surface); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, DestroySurface>;

struct DestroyCairo {
  void operator()(cairo_t* port) const noexcept { cairo_destroy(port); }
};
using CairoPtr = std::unique_ptr<cairo_t, DestroyCairo>;

}  // namespace vesk
