#pragma once

#include <cstdint>

#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// Shapes of the pointer that a view may ask for.
enum class NSCursor { kArrow };

/// What carries a view: a window of a program's own, or a widget of its toolkit. Implemented by the host, which
/// also feeds the view (NSOpenGLView). All of it belongs to the main thread. Widgets of GTK 4 and Qt 6 are there, in
/// <vesk/gtk4.h> and <vesk/qt6.h>; `examples/preview_glfw.cpp` has a window, in a page of code.
///
/// **Context.** OpenGL 2.1, OpenGL 3.2 with any profile or OpenGL ES 2, or later; the view draws with what it
/// finds, and shows the same. In another nothing is drawn, and the log says so once.
///
/// **Life.** When the context is there (a widget is realised), `view->setWindow(&window)`. Before it goes
/// (unrealised, closed), `view->setWindow(nullptr)`: the view deletes what it made there, and keeps its image and
/// all of its settings for the next context. The window must outlive the view's stay.
///
/// **Size.** `view->setFrame({x, y, width, height})` with each change, in pixels of the surface from its lower left
/// corner: the view draws a pixel for a point, so a host on a scaled screen multiplies by the scale and leaves
/// backingScale at 1. A view that does not fill the surface gives its place in it; several may share one.
///
/// **Drawing.** The view calls requestRedraw; the host then calls `view->displayIfNeeded()`, in this turn of its
/// loop or at the next refresh. A toolkit that says itself when to draw (GtkGLArea's "render", paintGL) is asked
/// by requestRedraw to do so, and calls `view->display()` then. Drawing goes into the framebuffer that
/// makeContextCurrent has bound, and leaves the host's GL state as it was. A window that is hidden asks for no
/// drawing as long as its toolkit calls none: a newer image takes the place of one that waits.
///
/// **Pointer.** `view->pointerMovedTo(point)` in the view's own pixels, y upwards; `view->pointerLeft()`.
class VESK_EXPORT HostWindow {
 public:
  virtual ~HostWindow() = default;

  /// Makes the window's GL context current, with the surface or the framebuffer object bound that the view is to
  /// draw into. Called before each drawing and wherever the view makes or deletes something of its own. False
  /// when there is no context any more.
  virtual bool makeContextCurrent() = 0;
  /// Leaves no context current.
  virtual void clearCurrentContext() = 0;
  /// The view's size has changed; called with the context current, before the next drawing.
  virtual void updateContext() {}

  /// Shows what was drawn (swaps, or copies to the screen); called once after each drawing. Empty where the
  /// toolkit does that itself.
  virtual void present() = 0;
  /// Whether the surface still holds the last drawing when the next begins. A double-buffered window and the
  /// widgets of toolkits answer false: then every drawing covers the whole view instead of the part that changed.
  virtual bool keepsContents() const { return false; }
  /// Screen refreshes from one present to the next; 0 not to wait.
  virtual void setSwapInterval(int32_t /*interval*/) {}

  /// Pixels a point.
  virtual float backingScale() const { return 1.0F; }

  /// Asks for a call of the view's displayIfNeeded in this turn of the main loop or the next. Not
  /// called again before that call.
  virtual void requestRedraw() = 0;

  /// Whether the view wants to hear of pointer moves while no button is down.
  virtual void setAcceptsMouseMovedEvents(bool /*accepts*/) {}
  /// Whether the window has the keyboard's focus.
  virtual bool isKeyWindow() const { return true; }
  virtual void setCursor(NSCursor /*cursor*/) {}
};

}  // namespace vesk
