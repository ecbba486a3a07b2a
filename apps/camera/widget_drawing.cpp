#include "apps/camera/widget_drawing.h"

#include <epoxy/gl.h>
#include <gtk/gtk.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace vesk::camera {
namespace {

/// What Mesa calls its software renderers.
constexpr std::array<std::string_view, 4> kSoftware{"llvmpipe", "softpipe", "SWR", "Software Rasterizer"};

/// Cairo gets the live picture in a new piece of memory each time, a second one for what is on the screen. The kernel
/// would take these back and clear their pages 30 times a second, a quarter of all the work.
constexpr int kLargestPicture = 32 << 20;  // what the C library takes at most
constexpr int kKeptMemory = 2 * kLargestPicture;

/// False where there is no OpenGL: GTK does without by itself then.
bool isSoftwareGL(GdkDisplay* display) {
  GdkGLContext* const context = gdk_display_create_gl_context(display, nullptr);
  if (!context) return false;
  bool isSoftware = false;
  if (gdk_gl_context_realize(context, nullptr)) {
    gdk_gl_context_make_current(context);
    const auto* const name = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    const std::string_view renderer = name ? name : "";
    isSoftware = std::any_of(kSoftware.begin(), kSoftware.end(), [renderer](std::string_view known) {
      return renderer.find(known) != std::string_view::npos;
    });
    gdk_gl_context_clear_current();
  }
  g_object_unref(context);
  return isSoftware;
}

}  // namespace

void chooseWidgetDrawing() {
  GdkDisplay* const display = gdk_display_get_default();
  if (!display || g_getenv("GSK_RENDERER") || !isSoftwareGL(display)) return;
  // Where GTK looks before the environment, which other threads read by now and what is started here would inherit.
  static char cairo[] = "cairo";
  g_object_set_data(G_OBJECT(display), "gsk-renderer", cairo);
  mallopt(M_MMAP_THRESHOLD, kLargestPicture);
  mallopt(M_TRIM_THRESHOLD, kKeptMemory);
}

}  // namespace vesk::camera
