#include <vesk/open_gl_view.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <new>
#include <utility>

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

/// The picture in the surface that is drawn to; null when memory is short.
CGImageRef readSurface(int32_t width, int32_t height) try {
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::vector<uint8_t> pixels(rowBytes * static_cast<size_t>(height));
  glPushClientAttrib(GL_CLIENT_PIXEL_STORE_BIT);
  glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glPixelStorei(GL_PACK_ROW_LENGTH, 0);
  glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
  glPopClientAttrib();
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
  if (NSIsEmptyRect(dirty) || !beginDrawing()) return;
  mDirty = {};
  drawRect(mWindow->keepsContents() ? dirty : bounds());
  mWindow->present();
}

CGImageRef NSOpenGLView::snapshot() {
  const NSRect surface = convertRectToBacking(bounds());
  if (NSIsEmptyRect(surface) || !beginDrawing()) return nullptr;
  mDirty = {};
  drawRect(bounds());
  CGImageRef picture = readSurface(static_cast<int32_t>(surface.width), static_cast<int32_t>(surface.height));
  mWindow->present();
  return picture;
}

bool NSOpenGLView::beginDrawing() {
  if (!mWindow || !mContext->makeCurrentContext() || !mContext->canDraw()) return false;
  if (!std::exchange(mIsPrepared, true)) prepareOpenGL();
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
