#pragma once

#include <cstdint>
#include <memory>

#include <vesk/color.h>
#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

class DrawingBackend;
class HostWindow;

enum NSOpenGLContextParameter : int32_t { NSOpenGLCPSwapInterval = 222 };

/// The GL context of a host's window. Objects that live in a context (textures) know it by a weak
/// pointer, so that they never touch one that is gone. A view makes its own; a host that draws
/// without a view makes one here, and makes it current through it.
///
/// Threads: the main thread only.
class VESK_EXPORT NSOpenGLContext : public std::enable_shared_from_this<NSOpenGLContext> {
 public:
  /// The context of `window`, which must outlive it.
  static std::shared_ptr<NSOpenGLContext> initWithWindow(HostWindow& window);

  /// The context that was last made current here and still exists; null when there is none.
  static std::shared_ptr<NSOpenGLContext> currentContext();

  /// @return false when the window has no context any more; then none is current.
  bool makeCurrentContext();
  static void clearCurrentContext();

  /// Whether it has what drawing here needs: OpenGL 2.1, or 3.2 also with the core profile, or OpenGL ES 2, or
  /// later. Found out with the first call, for which it must be current, and logged then when it has not.
  bool canDraw();
  /// Whether that is known, and it has not.
  bool isUnfit() const { return mIsAsked && !mBackend; }

  /// The current colour, which texts take with them; opaque white at first. A context with fixed functions has
  /// it in GL (`glColor`), the others here. This and the next need the context current.
  void setColor(NSColor color);
  /// Coordinates from (0, 0) to `size` over the viewport, for texts, images and status pictures that are drawn
  /// without a view. Unset they are those of GL's matrices or, where a context has none, pixels of the viewport.
  void setCoordinates(NSSize size);
  /// To be called after the view's size changed, with the context current.
  void update();
  void setValues(int32_t value, NSOpenGLContextParameter parameter);

  explicit NSOpenGLContext(HostWindow& window) : mWindow(window) {}
  ~NSOpenGLContext();
  NSOpenGLContext(const NSOpenGLContext&) = delete;
  NSOpenGLContext& operator=(const NSOpenGLContext&) = delete;

 private:
  friend class NSOpenGLView;
  friend DrawingBackend* currentBackend();
  VESK_LOCAL DrawingBackend* backend();

  HostWindow& mWindow;
  bool mIsAsked = false;
  std::shared_ptr<DrawingBackend> mBackend;
};

using CGLContextObj = std::shared_ptr<NSOpenGLContext>;

/// The current context; null when none is.
inline CGLContextObj CGLGetCurrentContext() {
  return NSOpenGLContext::currentContext();
}

}  // namespace vesk
