#include <vesk/open_gl_context.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <string>

#include <vesk/host_window.h>
#include <vesk/log.h>
#include "platform/graphics/gl_context_scope.h"

namespace vesk {
namespace {

std::weak_ptr<NSOpenGLContext>& current() {
  static std::weak_ptr<NSOpenGLContext> context;
  return context;
}

/// Whether the current context draws with matrices and vertices as OpenGL 2.1 does.
bool hasFixedFunctions() {
  const int version = epoxy_is_desktop_gl() ? epoxy_gl_version() : 0;
  if (version < 21) return false;
  if (version < 30) return true;
  GLint flags = 0;
  glGetIntegerv(GL_CONTEXT_FLAGS, &flags);
  if (flags & GL_CONTEXT_FLAG_FORWARD_COMPATIBLE_BIT) return false;
  if (version == 31) return epoxy_has_gl_extension("GL_ARB_compatibility");
  GLint profile = 0;
  if (version > 31) glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &profile);
  return !(profile & GL_CONTEXT_CORE_PROFILE_BIT);
}

}  // namespace

std::shared_ptr<NSOpenGLContext> NSOpenGLContext::initWithWindow(HostWindow& window) {
  return std::make_shared<NSOpenGLContext>(window);
}

NSOpenGLContext::~NSOpenGLContext() = default;

std::shared_ptr<NSOpenGLContext> NSOpenGLContext::currentContext() {
  return current().lock();
}

bool NSOpenGLContext::makeCurrentContext() {
  if (!mWindow.makeContextCurrent()) {
    current().reset();
    return false;
  }
  current() = weak_from_this();
  return true;
}

void NSOpenGLContext::clearCurrentContext() {
  if (const auto context = current().lock()) context->mWindow.clearCurrentContext();
  current().reset();
}

bool NSOpenGLContext::canDraw() {
  if (mCanDraw) return *mCanDraw;
  mCanDraw = hasFixedFunctions();
  if (!*mCanDraw) {
    const auto* const version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    NSLog(LogLevel::kError, std::string("Cannot draw in this window: its context is \"") +
                                (version ? version : "unknown") +
                                "\". Give it one of OpenGL 2.1, or of a later version with the compatibility profile.");
  }
  return *mCanDraw;
}

void NSOpenGLContext::update() {
  mWindow.updateContext();
}

void NSOpenGLContext::setValues(int32_t value, NSOpenGLContextParameter parameter) {
  switch (parameter) {
    case NSOpenGLCPSwapInterval:
      mWindow.setSwapInterval(value);
      break;
  }
}

bool CGLFitsTexture(const char* what, NSSize size) {
  GLint most = 0;
  glGetIntegerv(GL_MAX_RECTANGLE_TEXTURE_SIZE, &most);
  const auto side = static_cast<int64_t>(std::max(size.width, size.height));
  if (side <= most) return true;
  NSLog(LogLevel::kError, std::string("Cannot draw ") + what + " of " + std::to_string(side) +
                              " pixels a side: the graphics driver takes " + std::to_string(most));
  return false;
}

CurrentContextScope::CurrentContextScope(NSOpenGLContext& context) : mBefore(NSOpenGLContext::currentContext()) {
  mIsCurrent = mBefore.get() == &context || context.makeCurrentContext();
}

CurrentContextScope::~CurrentContextScope() {
  if (NSOpenGLContext::currentContext() == mBefore) return;
  if (mBefore)
    mBefore->makeCurrentContext();
  else
    NSOpenGLContext::clearCurrentContext();
}

}  // namespace vesk
