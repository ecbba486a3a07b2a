#include <vesk/preview_view.h>

#include <epoxy/gl.h>

#include <utility>

#include <vesk/attributed_string.h>
#include <vesk/gl_string.h>
#include <vesk/log.h>
#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_context_scope.h"
#include "platform/graphics/graphics_context.h"

namespace vesk {
namespace {

// Pictures smaller than this both ways are shown at their own size.
constexpr CGSize kScaledFrom{640, 360};

constexpr uint32_t kTrackingOptions =
    NSTrackingMouseEnteredAndExited | NSTrackingMouseMoved | NSTrackingActiveInKeyWindow | NSTrackingInVisibleRect;

// Where the label's lower left corner is: from the left, and below the top.
constexpr NSSize kLabelPlace{10, 30};

}  // namespace

std::shared_ptr<const NSOpenGLPixelFormat> VeskPreviewView::defaultPixelFormat() {
  static const auto format = NSOpenGLPixelFormat::initWithAttributes(
      {NSOpenGLPFAAccelerated, NSOpenGLPFANoRecovery, NSOpenGLPFAColorSize, 32, 0});
  return format;
}

std::shared_ptr<VeskPreviewView> VeskPreviewView::initWithFrame(NSRect frame) {
  auto view = std::make_shared<VeskPreviewView>(frame);
  view->awakeFromNib();
  return view;
}

VeskPreviewView::VeskPreviewView(NSRect frame) : NSOpenGLView(frame, defaultPixelFormat()) {}

VeskPreviewView::~VeskPreviewView() = default;

void VeskPreviewView::awakeFromNib() {
  mPreviewState = 0;
  replaceTrackingArea();
  drawBlackView();
}

void VeskPreviewView::setDelegate(VeskPreviewSessionDelegate* delegate) {
  mDelegate = delegate;
  mPointerDelegate = dynamic_cast<VeskPreviewPointerDelegate*>(delegate);
}

void VeskPreviewView::setImage(CIImageRef image) {
  setImage(std::move(image), CGRectInfinite);
}

void VeskPreviewView::setImage(CIImageRef image, CGRect dirtyRect) {
  if (image == _image) return;
  _image = std::move(image);
  if (CGRectIsInfinite(dirtyRect))
    setNeedsDisplay(true);
  else
    setNeedsDisplayInRect(dirtyRect);
}

void VeskPreviewView::refresh(const CIImageRef& image) {
  setImage(image);
  const CGRect extent = image ? image->extent() : CGRect{};
  setCleanRect(extent);
  setDisplaySize({extent.width, extent.height});
}

bool VeskPreviewView::showsUnscaled(CGSize size) {
  return size.width < kScaledFrom.width && size.height < kScaledFrom.height;
}

void VeskPreviewView::prepareOpenGL() {
  window()->setAcceptsMouseMovedEvents(true);
  openGLContext()->setValues(1, NSOpenGLCPSwapInterval);
  currentBackend()->prepareView();
}

/// What lives in the context goes with it; the next window's context gets its own.
void VeskPreviewView::clearGLContext() {
  _context.reset();
  recString.reset();
  _lastBounds = {};
}

void VeskPreviewView::updateMatrices() {
  const NSRect bounds = this->bounds();
  if (NSEqualRects(bounds, _lastBounds)) return;
  openGLContext()->update();
  currentBackend()->setViewSize({bounds.width, bounds.height});
  _lastBounds = bounds;
  mShowsLabel = false;
  viewBoundsDidChange(bounds);
}

void VeskPreviewView::drawBlackView() {
  if (!isReadyToDraw()) return;
  currentBackend()->fillBlack({bounds().width, bounds().height});
}

void VeskPreviewView::drawRect(NSRect rect) {
  if (openGLContext()) openGLContext()->makeCurrentContext();
  // One that was made without a GL context (for a page) cannot draw into the window's.
  if (!_context || (CGLGetCurrentContext() && !_context->isCurrent())) makeContext();
  const CGRect region = CGRectIntegral(rect);
  if (!NSGraphicsContext::currentContextDrawingToScreen()) {
    drawElsewhere(region);
    return;
  }
  if (!isReadyToDraw()) return;
  updateMatrices();
  currentBackend()->clearOpaque(convertRectToBacking(region));
  drawPicture(CGRectIntersection(CGRectInset(region, -1, -1), _lastBounds));
  _context->clearCaches();
  if (NSEqualRects(CGRectIntersection(region, _lastBounds), _lastBounds)) mShowsLabel = false;
  // Drawn over itself it would grow darker: where it is on show, only in the part drawn anew.
  if (!mShowsLabel) glDisable(GL_SCISSOR_TEST);
  if (mIsRecording == 1)
    drawLabel();
  else
    mShowsLabel = false;  // what was drawn may lie over it
  glDisable(GL_SCISSOR_TEST);
  glFlush();
}

/// Whether the view's own context is current, and of a kind that it can draw in.
bool VeskPreviewView::isReadyToDraw() const {
  return openGLContext() && openGLContext() == CGLGetCurrentContext() && openGLContext()->canDraw();
}

void VeskPreviewView::makeContext() {
  const auto format = pixelFormat() ? pixelFormat() : defaultPixelFormat();
  _context = CIContext::contextWithCGLContext(CGLGetCurrentContext(), format);
}

/// To a page or a picture: the region of the image fills the region of the page.
void VeskPreviewView::drawElsewhere(CGRect region) {
  if (auto* const drawing = ownDrawing()) {
    drawing->drawRectInCIContext(region, *_context);
    return;
  }
  if (!_image) return;
  const CGImageRef bitmap = _context->createCGImage(_image, region);
  if (bitmap) CGContextDrawImage(NSGraphicsContext::currentContext()->graphicsPort(), region, bitmap);
}

void VeskPreviewView::drawPicture(CGRect region) {
  if (auto* const drawing = ownDrawing()) {
    drawing->drawRectInCIContext(region, *_context);
    return;
  }
  if (!_image) {
    drawBlackView();
    return;
  }
  if (showsUnscaled({_cleanRect.width, _cleanRect.height})) {
    const CGPoint corner{(frame().width - _cleanRect.width) * 0.5F, (frame().height - _cleanRect.height) * 0.5F};
    _context->drawImage(_image, corner, region);
    return;
  }
  // As high as the view; what is left across is shared by both sides, and negative when it overhangs.
  const float width = _displaySize.width * _lastBounds.height / _displaySize.height;
  const float left = _lastBounds.width - width;
  const CGRect place{_lastBounds.x + left * 0.5F, _lastBounds.y, _lastBounds.width - left, _lastBounds.height};
  _context->drawImage(_image, place, _cleanRect);
}

/// Asked of the object itself: in a constructor it would not be the subclass yet.
CIContextDrawing* VeskPreviewView::ownDrawing() {
  if (!mOwnDrawing) mOwnDrawing = dynamic_cast<CIContextDrawing*>(this);
  return *mOwnDrawing;
}

void VeskPreviewView::drawLabel() {
  if (!recString) makeLabel();
  recString->drawAtPoint({kLabelPlace.width, frame().height - kLabelPlace.height});
  mShowsLabel = true;
}

void VeskPreviewView::makeLabel() {
  NSShadow shadow;
  shadow.shadowOffset = {2, 2};
  shadow.shadowBlurRadius = 2;
  shadow.shadowColor = NSColor::colorWithDeviceRed(0, 0, 0, 100);
  NSTextAttributes attributes;
  attributes.font = NSFont::fontWithName("Lucida Grande", 14);
  attributes.foregroundColor = NSColor::redColor();
  attributes.strokeWidth = -10;
  attributes.shadow = shadow;
  recString = GLString::initWithString("\u2022Recording", attributes, NSColor::whiteColor(), NSColor::clearColor(),
                                       NSColor::clearColor());
  recString->setParentView(this);
  recString->genTexture();
}

void VeskPreviewView::viewDidMoveToWindow() {
  updateTrackingAreas();
}

void VeskPreviewView::updateTrackingAreas() {
  replaceTrackingArea();
  NSOpenGLView::updateTrackingAreas();
}

void VeskPreviewView::replaceTrackingArea() {
  removeTrackingArea(mTrackingArea);
  mTrackingArea = NSTrackingArea::initWithRect(bounds(), kTrackingOptions, this);
  addTrackingArea(mTrackingArea);
}

void VeskPreviewView::mouseEntered(const NSEvent& /*event*/) {
  if (mPreviewState != 0) setNeedsDisplay(true);
  if (mPointerDelegate) mPointerDelegate->mouseDidEnterView();
}

void VeskPreviewView::mouseExited(const NSEvent& /*event*/) {
  if (window()) window()->setCursor(NSCursor::kArrow);
  if (mPreviewState != 0) setNeedsDisplay(true);
  if (mPointerDelegate) mPointerDelegate->mouseDidLeaveView();
}

void VeskPreviewView::mouseMoved(const NSEvent& /*event*/) {}

bool VeskPreviewView::acceptsFirstMouse(const NSEvent& /*event*/) {
  NSLog("Accepts First Mouse");
  return true;
}

bool VeskPreviewView::acceptsFirstResponder() {
  NSLog("Accepts First Responder");
  return true;
}

}  // namespace vesk
