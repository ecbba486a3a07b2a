#pragma once

#include <cstdint>

#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// Shapes of the pointer that a view may ask for.
enum class NSCursor { kArrow };

/// What carries a view: a window of a program's own, or a widget of its toolkit. Implemented by the
/// host, which also feeds the view (NSOpenGLView): its size, the pointer, and displayIfNeeded.
///
/// The context is an OpenGL 2.1 compatibility context, or a later one with the compatibility profile; in
/// another nothing is drawn, and the log says so once. The preview view draws a pixel for a point: a
/// host on a scaled screen gives it a frame in pixels, and leaves backingScale at 1, or scales what
/// was drawn itself. Threads: the main thread only.
class VESK_EXPORT HostWindow {
 public:
  virtual ~HostWindow() = default;

  /// Makes the window's GL context current, with the surface (or framebuffer object) bound that the
  /// view is to draw into, at the view's size. False when there is no context any more.
  virtual bool makeContextCurrent() = 0;
  /// Leaves no context current.
  virtual void clearCurrentContext() = 0;
  /// The view's size has changed; called with the context current, before the next drawing.
  virtual void updateContext() {}

  /// Shows what was drawn (swaps, or copies to the screen); called once after each drawing.
  virtual void present() = 0;
  /// Whether the surface still holds the last drawing when the next begins. A double-buffered window
  /// answers false: then every drawing covers the whole view instead of the part that changed.
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
