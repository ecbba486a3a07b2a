#include "platform/graphics/open_gl_context.h"

#include "platform/graphics/host_window.h"

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
