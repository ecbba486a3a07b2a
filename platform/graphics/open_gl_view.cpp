#include <vesk/open_gl_view.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <functional>
#include <new>
#include <utility>

#include "platform/graphics/drawing_backend.h"

namespace vesk {
namespace {

NSRect scaled(NSRect rect, float scale) {
  return {rect.x * scale, rect.y * scale, rect.width * scale, rect.height * scale};
}

void turnOver(std::vector<uint8_t>& pixels, size_t rowBytes) {
  const auto row = [&](size_t y) { return pixels.begin() + static_cast<ptrdiff_t>(y * rowBytes); };
  for (size_t low = 0, high = pixels.size() / rowBytes - 1; low < high; ++low, --high)
    std::swap_ranges(row(low), row(low + 1), row(high));
}

/// A copy of a part of the surface that is drawn to, which can be read where the surface has several samples a
/// pixel. Is read from while it exists.
class ResolvedSurface {
 public:
  ResolvedSurface(const GLFeatures& features, GLint x, GLint y, int32_t width, int32_t height) {
    if (!features.hasBlit) return;
    GLint samples = 0;
    GLint drawn = 0;
    glGetIntegerv(GL_SAMPLES, &samples);
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &drawn);
    if (samples == 0 || drawn == 0) return;  // a window's own is resolved by reading it
    mDrawn = static_cast<GLuint>(drawn);
    glGenRenderbuffers(1, &mPixels);
    GLint before = 0;
    glGetIntegerv(GL_RENDERBUFFER_BINDING, &before);
    glBindRenderbuffer(GL_RENDERBUFFER, mPixels);
    // OpenGL ES resolves to the same place and the same format only.
    GLint alphaBits = 0;
    glGetIntegerv(GL_ALPHA_BITS, &alphaBits);
    glRenderbufferStorage(GL_RENDERBUFFER, alphaBits > 0 ? GL_RGBA8 : GL_RGB8, x + width, y + height);
    glBindRenderbuffer(GL_RENDERBUFFER, static_cast<GLuint>(before));
    glGenFramebuffers(1, &mName);
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, mName);
    glFramebufferRenderbuffer(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, mPixels);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, mDrawn);
    glBlitFramebuffer(x, y, x + width, y + height, x, y, x + width, y + height, GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glBindFramebuffer(GL_FRAMEBUFFER, mName);
  }
  ~ResolvedSurface() {
    if (mName == 0) return;
    glBindFramebuffer(GL_FRAMEBUFFER, mDrawn);
    glDeleteFramebuffers(1, &mName);
    glDeleteRenderbuffers(1, &mPixels);
  }
  ResolvedSurface(const ResolvedSurface&) = delete;
  ResolvedSurface& operator=(const ResolvedSurface&) = delete;

 private:
  GLuint mDrawn = 0;
  GLuint mPixels = 0;
  GLuint mName = 0;
};

/// The picture in the surface that is drawn to; null when memory is short.
CGImageRef readSurface(const GLFeatures& features, GLint x, GLint y, int32_t width, int32_t height) try {
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::vector<uint8_t> pixels(rowBytes * static_cast<size_t>(height));
  const ResolvedSurface resolved(features, x, y, width, height);
  glReadPixels(x, y, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
  turnOver(pixels, rowBytes);  // GL's first row is the lowest one
  // A window shows its colours whatever the alpha beside them says.
  for (size_t i = 3; i < pixels.size(); i += 4) pixels[i] = 0xFF;
  return CGImage::create(width, height, std::move(pixels));
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

NSOpenGLView::NSOpenGLView(NSRect frame, std::shared_ptr<const NSOpenGLPixelFormat> pixelFormat)
    : mFrame(frame), mPixelFormat(std::move(pixelFormat)) {}

NSOpenGLView::~NSOpenGLView() = default;

void NSOpenGLView::setWindow(HostWindow* window) {
  if (window == mWindow) return;
  if (mWindow) leaveWindow();
  mWindow = window;
  if (mWindow) mContext = NSOpenGLContext::initWithWindow(*mWindow);
  viewDidMoveToWindow();
  mAskedForRedraw = false;
  setNeedsDisplay(true);
}

void NSOpenGLView::leaveWindow() {
  const bool isCurrent = mContext->makeCurrentContext();
  clearGLContext();
  if (const auto backend = std::exchange(mContext->mBackend, nullptr)) {
    if (isCurrent) {
      backend->leave();  // a host may take the view out while it draws
      backend->release();
    } else {
      backend->abandon();
    }
  }
  if (isCurrent) NSOpenGLContext::clearCurrentContext();
  mContext.reset();
  mIsPrepared = false;
  mPointer.reset();
  for (const auto& area : mTrackingAreas) area->mHoldsPointer = false;
}

void NSOpenGLView::setFrame(NSRect frame) {
  const bool isResized = NSSize{frame.width, frame.height} != NSSize{mFrame.width, mFrame.height};
  mFrame = frame;
  if (!isResized) return;
  updateTrackingAreas();
  setNeedsDisplay(true);
}

NSRect NSOpenGLView::convertRectToBacking(NSRect rect) const {
  return mWindow ? scaled(rect, mWindow->backingScale()) : rect;
}

NSRect NSOpenGLView::convertRectFromBacking(NSRect rect) const {
  return mWindow ? scaled(rect, 1 / mWindow->backingScale()) : rect;
}

void NSOpenGLView::setNeedsDisplay(bool needs) {
  if (needs)
    setNeedsDisplayInRect(bounds());
  else
    mDirty = {};
}

void NSOpenGLView::setNeedsDisplayInRect(NSRect rect) {
  mDirty = NSUnionRect(mDirty, CGRectIntersection(rect, bounds()));
  if (NSIsEmptyRect(mDirty) || !mWindow || mAskedForRedraw) return;
  mAskedForRedraw = true;
  mWindow->requestRedraw();
}

void NSOpenGLView::displayIfNeeded() {
  mAskedForRedraw = false;
  const NSRect dirty = CGRectIntersection(mDirty, bounds());  // the view may have shrunk since
  if (NSIsEmptyRect(dirty)) return;
  const bool isDrawn = draw([&] { drawRect(mWindow->keepsContents() ? dirty : bounds()); });
  if (isDrawn && mWindow) mWindow->present();
}

void NSOpenGLView::display() {
  mDirty = bounds();
  displayIfNeeded();
}

CGImageRef NSOpenGLView::snapshot() {
  const NSRect surface = convertRectToBacking(bounds());
  const auto width = static_cast<int32_t>(surface.width);
  const auto height = static_cast<int32_t>(surface.height);
  if (width <= 0 || height <= 0) return nullptr;
  CGImageRef picture;
  const bool isDrawn = draw([&] {
    drawRect(bounds());
    if (const auto* const backend = mContext ? mContext->mBackend.get() : nullptr)
      picture = readSurface(backend->features(), backend->originX(), backend->originY(), width, height);
  });
  if (isDrawn && mWindow) mWindow->present();
  return picture;
}

/// Draws with the view's context current and its own GL state, between the host's. False when there is nothing
/// to draw in.
bool NSOpenGLView::draw(const std::function<void()>& drawing) {
  if (!mWindow || !mContext->makeCurrentContext() || !mContext->canDraw()) return false;
  mDirty = {};
  const auto backend = mContext->mBackend;
  const NSRect place = convertRectToBacking(mFrame);
  backend->setOrigin(static_cast<int32_t>(place.x), static_cast<int32_t>(place.y));
  backend->enter();
  if (!std::exchange(mIsPrepared, true)) prepareOpenGL();
  drawing();
  if (mContext && mContext->mBackend == backend) backend->leave();
  return true;
}

void NSOpenGLView::addTrackingArea(std::shared_ptr<NSTrackingArea> area) {
  if (!area) return;
  // An area that is added under the pointer first tells of its leaving.
  area->mHoldsPointer = holdsPointer(*area);
  mTrackingAreas.push_back(std::move(area));
}

void NSOpenGLView::removeTrackingArea(const std::shared_ptr<NSTrackingArea>& area) {
  std::erase(mTrackingAreas, area);
}

void NSOpenGLView::pointerMovedTo(NSPoint point) {
  mPointer = point;
  const NSEvent event{point};
  for (const auto areas = mTrackingAreas; const auto& area : areas) {  // an owner may replace its area meanwhile
    const bool isInside = holdsPointer(*area);
    follow(*area, isInside, event);
    if (isInside && (area->options() & NSTrackingMouseMoved)) area->owner()->mouseMoved(event);
  }
}

void NSOpenGLView::pointerLeft() {
  if (!mPointer) return;
  const NSEvent event{*std::exchange(mPointer, std::nullopt)};
  for (const auto areas = mTrackingAreas; const auto& area : areas) follow(*area, false, event);
}

/// Tells an area's owner when the pointer crosses its edge.
void NSOpenGLView::follow(NSTrackingArea& area, bool isInside, const NSEvent& event) {
  const bool wasInside = std::exchange(area.mHoldsPointer, isInside);
  if (isInside == wasInside || !(area.options() & NSTrackingMouseEnteredAndExited)) return;
  if (isInside)
    area.owner()->mouseEntered(event);
  else
    area.owner()->mouseExited(event);
}

/// Whether the pointer is inside the area while that is active.
bool NSOpenGLView::holdsPointer(const NSTrackingArea& area) const {
  if (!mPointer || !mWindow) return false;
  if ((area.options() & NSTrackingActiveInKeyWindow) && !mWindow->isKeyWindow()) return false;
  const bool followsBounds = (area.options() & NSTrackingInVisibleRect) != 0;
  return NSPointInRect(*mPointer, followsBounds ? bounds() : CGRectIntersection(area.rect(), bounds()));
}

}  // namespace vesk
