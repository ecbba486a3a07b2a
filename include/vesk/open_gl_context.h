#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <vesk/export.h>

namespace vesk {

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

  /// Whether it has what drawing here needs: OpenGL 2.1 or later with the compatibility profile. Found
  /// out with the first call, for which it must be current, and logged then when it has not.
  bool canDraw();
  /// Whether that is known, and it has not.
  bool isUnfit() const { return mCanDraw == false; }
  /// To be called after the view's size changed, with the context current.
  void update();
  void setValues(int32_t value, NSOpenGLContextParameter parameter);

  explicit NSOpenGLContext(HostWindow& window) : mWindow(window) {}
  ~NSOpenGLContext();
  NSOpenGLContext(const NSOpenGLContext&) = delete;
  NSOpenGLContext& operator=(const NSOpenGLContext&) = delete;

 private:
  HostWindow& mWindow;
  std::optional<bool> mCanDraw;
};

using CGLContextObj = std::shared_ptr<NSOpenGLContext>;

/// The current context; null when none is.
inline CGLContextObj CGLGetCurrentContext() {
  return NSOpenGLContext::currentContext();
}

}  // namespace vesk
