#pragma once

#include <memory>

#include <vesk/geometry.h>
#include <vesk/open_gl_context.h>

namespace vesk {

class DrawingBackend;

/// What to draw with in the current context; null when there is none, or one of a kind that cannot be drawn in.
DrawingBackend* currentBackend();

/// Whether a texture of a text or a status picture can be as large as `size`, in pixels. When it
/// cannot, one line of the log says that `what` is too large.
bool CGLFitsTexture(const char* what, NSSize size);

/// Makes a context current for its own lifetime, then the one that was current before.
class CurrentContextScope {
 public:
  explicit CurrentContextScope(NSOpenGLContext& context);
  ~CurrentContextScope();
  CurrentContextScope(const CurrentContextScope&) = delete;
  CurrentContextScope& operator=(const CurrentContextScope&) = delete;

  /// Whether the context could be made current.
  explicit operator bool() const { return mIsCurrent; }

 private:
  std::shared_ptr<NSOpenGLContext> mBefore;
  bool mIsCurrent;
};

}  // namespace vesk
