#include <vesk/open_gl_context.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <string>
#include <utility>

#include <vesk/host_window.h>
#include <vesk/log.h>
#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_context_scope.h"

namespace vesk {
namespace {

std::weak_ptr<NSOpenGLContext>& current() {
  static std::weak_ptr<NSOpenGLContext> context;
  return context;
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
  return backend() != nullptr;
}

DrawingBackend* NSOpenGLContext::backend() {
  if (std::exchange(mIsAsked, true)) return mBackend.get();
  mBackend = DrawingBackend::forCurrentContext();
  if (!mBackend) {
    const auto* const version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    NSLog(LogLevel::kError,
          std::string("Cannot draw in this window: its context is \"") + (version ? version : "unknown") +
              "\". Give it one of OpenGL 2.1, of OpenGL 3.2 with the core profile or of OpenGL ES 2, or later.");
  }
  return mBackend.get();
}

void NSOpenGLContext::setColor(NSColor color) {
  if (DrawingBackend* const drawing = backend()) drawing->setColour(color);
}

void NSOpenGLContext::setCoordinates(NSSize size) {
  if (DrawingBackend* const drawing = backend()) drawing->setCoordinates(size);
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

DrawingBackend* currentBackend() {
  const auto context = NSOpenGLContext::currentContext();
  return context ? context->backend() : nullptr;
}

bool CGLFitsTexture(const char* what, NSSize size) {
  const int32_t most = currentBackend()->largestTexture();
  const auto side = static_cast<int64_t>(std::max(size.width, size.height));
  if (side <= most) return true;
  NSLog(LogLevel::kError, std::string("Cannot draw ") + what + " of " + std::to_string(side) +
                              " pixels a side: the graphics driver takes " + std::to_string(most));
  return false;
}

/// Also where it was the last that was made current here: the host may have changed contexts since.
CurrentContextScope::CurrentContextScope(NSOpenGLContext& context)
    : mBefore(NSOpenGLContext::currentContext()), mIsCurrent(context.makeCurrentContext()) {}

CurrentContextScope::~CurrentContextScope() {
  if (NSOpenGLContext::currentContext() == mBefore) return;
  if (mBefore)
    mBefore->makeCurrentContext();
  else
    NSOpenGLContext::clearCurrentContext();
}

}  // namespace vesk
