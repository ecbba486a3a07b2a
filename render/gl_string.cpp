#include <vesk/gl_string.h>

#include <epoxy/gl.h>

#include <utility>

#include <vesk/bezier_path.h>
#include <vesk/bitmap_image_rep.h>
#include <vesk/log.h>
#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_context_scope.h"
#include "platform/graphics/graphics_context.h"
#include "platform/graphics/image.h"

namespace vesk {

std::shared_ptr<GLString> GLString::initWithAttributedString(NSAttributedString string, NSColor textColor,
                                                             NSColor boxColor, NSColor borderColor) {
  return std::make_shared<GLString>(std::move(string), textColor, boxColor, borderColor);
}

std::shared_ptr<GLString> GLString::initWithString(std::string string, NSTextAttributes attributes, NSColor textColor,
                                                   NSColor boxColor, NSColor borderColor) {
  return initWithAttributedString(NSAttributedString::initWithString(std::move(string), std::move(attributes)),
                                  textColor, boxColor, borderColor);
}

GLString::GLString(NSAttributedString string, NSColor textColor, NSColor boxColor, NSColor borderColor)
    : mString(std::move(string)), mTextColor(textColor), mBoxColor(boxColor), mBorderColor(borderColor) {}

GLString::~GLString() {
  deleteTexture();
}

void GLString::changed() {
  requiresUpdate = true;
}

/// The text or its margins are others: a frame that follows the text is computed anew.
void GLString::textChanged() {
  if (!mStaticFrame) mFrameSize = {};
  changed();
}

void GLString::setString(NSAttributedString newString) {
  mString = std::move(newString);
  textChanged();
}

void GLString::setString(std::string newString, NSTextAttributes attributes) {
  setString(NSAttributedString::initWithString(std::move(newString), std::move(attributes)));
}

void GLString::setTextColor(NSColor color) {
  mTextColor = color;
  changed();
}

void GLString::setBoxColor(NSColor color) {
  mBoxColor = color;
  changed();
}

void GLString::setBorderColor(NSColor color) {
  mBorderColor = color;
  changed();
}

void GLString::setMargins(NSSize size) {
  mMarginSize = size;
  textChanged();
}

void GLString::setAntialias(bool antialias) {
  mAntialias = antialias;
  changed();
}

void GLString::useStaticFrame(NSSize size) {
  mFrameSize = size;
  mStaticFrame = true;
  changed();
}

void GLString::useDynamicFrame() {
  if (!mStaticFrame) return;
  mStaticFrame = false;
  textChanged();
}

NSSize GLString::frameSize() {
  if (!mStaticFrame && NSEqualSizes(mFrameSize, {})) {
    const NSSize text = mString.size();
    mFrameSize = {text.width + 2 * mMarginSize.width, text.height + 2 * mMarginSize.height};
  }
  return mFrameSize;
}

/// Paints box and text into the current graphics context. The text is painted upside down: the
/// bitmap's first row, the upper one, becomes the texture's lowest.
void GLString::paint(NSSize size) const {
  const auto context = NSGraphicsContext::currentContext();
  context->setShouldAntialias(mAntialias);
  const NSRect box = NSInsetRect({0, 0, size.width, size.height}, 0.5F, 0.5F);
  if (mBoxColor.alphaComponent() != 0) {
    mBoxColor.set();
    NSBezierPath::bezierPathWithRoundedRect(box, cRadius).fill();
  }
  if (mBorderColor.alphaComponent() != 0) {
    mBorderColor.set();
    NSBezierPath border = NSBezierPath::bezierPathWithRoundedRect(box, cRadius);
    border.setLineWidth(1);
    border.stroke();
  }
  CGContextRef const port = context->graphicsPort();
  CGContextSaveGState(port);
  CGContextTranslateCTM(port, 0, size.height);
  CGContextScaleCTM(port, 1, -1);
  mTextColor.set();
  mString.drawAtPoint({mMarginSize.width, mMarginSize.height});
  CGContextRestoreGState(port);
}

void GLString::genTexture() {
  requiresUpdate = false;
  const NSSize previousSize = mTexSize;
  const NSSize size = frameSize();
  const float scale = mParentView ? mParentView->convertRectToBacking({0, 0, 1, 1}).width : 1;
  const auto image = NSImage::initWithSize(size, scale);
  std::shared_ptr<NSBitmapImageRep> bitmap;
  if (image->lockFocus()) {
    paint(size);
    bitmap = NSBitmapImageRep::initWithFocusedViewRect({0, 0, size.width, size.height});
    image->unlockFocus();
  }
  if (!bitmap) {
    if (!NSIsEmptyRect({0, 0, size.width, size.height}))
      NSLog(LogLevel::kWarning, "Cannot draw a text: it is too large to be painted");
    deleteTexture();
    mTexSize = {};
    return;
  }
  mTexSize = {static_cast<float>(bitmap->pixelsWide()), static_cast<float>(bitmap->pixelsHigh())};
  const auto context = CGLGetCurrentContext();
  if (context != cgl_ctx.lock()) deleteTexture();  // its name means nothing in another context
  cgl_ctx = context;
  if (!context) {
    NSLog(LogLevel::kWarning, "StringTexture -genTexture: Failure to get current OpenGL context\n");
    return;
  }
  if (!context->canDraw() || !CGLFitsTexture("a text", mTexSize)) {
    deleteTexture();
    return;
  }
  currentBackend()->storeText(mTexName, bitmap->pixelsWide(), bitmap->pixelsHigh(), bitmap->bitmapData(),
                              NSEqualSizes(mTexSize, previousSize));
}

void GLString::drawWithBounds(NSRect bounds) {
  if (requiresUpdate) genTexture();
  if (mTexName == 0) return;
  if (auto* const backend = currentBackend()) backend->drawText(mTexName, mTexSize, bounds);
}

void GLString::drawAtPoint(NSPoint point) {
  if (requiresUpdate) genTexture();
  if (mTexName == 0) return;
  NSRect bounds;
  if (mParentView) bounds = mParentView->convertRectFromBacking({point.x, point.y, mTexSize.width, mTexSize.height});
  bounds.y = point.y;
  drawWithBounds(bounds);
}

void GLString::deleteTexture() {
  const auto context = cgl_ctx.lock();
  if (mTexName != 0 && context) {
    const CurrentContextScope scope(*context);
    if (scope) glDeleteTextures(1, &mTexName);
  }
  mTexName = 0;  // also when the context took the texture with it
  cgl_ctx.reset();
}

}  // namespace vesk
