#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <vesk/cg_image.h>
#include <vesk/export.h>
#include <vesk/geometry.h>
#include <vesk/host_window.h>
#include <vesk/open_gl_context.h>
#include <vesk/open_gl_pixel_format.h>
#include <vesk/tracking_area.h>

namespace vesk {

/// A rectangle drawn with OpenGL, carried by a host's window. It makes no GL call before it has a window. What a
/// host does is on the page of HostWindow, all of it on the main thread.
///
/// Between drawings the context has the host's GL state: viewport, matrices and what prepareOpenGL switched are
/// the view's own, kept from one drawing to the next. The clear colour and all else are taken from the host.
class VESK_EXPORT NSOpenGLView : public NSResponder {
 public:
  /// A view of `frame`, without a window. `pixelFormat` may be null.
  NSOpenGLView(NSRect frame, std::shared_ptr<const NSOpenGLPixelFormat> pixelFormat);
  ~NSOpenGLView() override;
  NSOpenGLView(const NSOpenGLView&) = delete;
  NSOpenGLView& operator=(const NSOpenGLView&) = delete;

  /// Puts the view into a window, which must outlive its stay there; null takes it out.
  void setWindow(HostWindow* window);
  HostWindow* window() const { return mWindow; }

  /// The view's place in its window's surface, in points from the lower left corner; its bounds begin at (0, 0) and
  /// have the same size.
  void setFrame(NSRect frame);
  NSRect frame() const { return mFrame; }
  NSRect bounds() const { return {0, 0, mFrame.width, mFrame.height}; }
  /// From points to pixels of the surface, and back.
  NSRect convertRectToBacking(NSRect rect) const;
  NSRect convertRectFromBacking(NSRect rect) const;

  /// Asks for a drawing of the whole view. Requests are merged until the next displayIfNeeded.
  void setNeedsDisplay(bool needs);
  /// Asks for a drawing of the part of `rect` that lies in the bounds.
  void setNeedsDisplayInRect(NSRect rect);
  bool needsDisplay() const { return !NSIsEmptyRect(mDirty); }
  /// Draws what was asked for, if anything and if there is a window that can be drawn in, and presents it.
  void displayIfNeeded();
  /// Draws the whole view now and presents it, whether it was asked for or not: for toolkits that say when a
  /// widget is to be drawn (GtkGLArea's "render", QOpenGLWidget's paintGL).
  void display();
  /// Draws the whole view now and reads it back: what is on show, opaque, at the surface's size. Null
  /// without a window that can be drawn in.
  CGImageRef snapshot();

  /// Whether the first drawing found that the window's context is none to draw in.
  bool cannotDraw() const { return mContext && mContext->isUnfit(); }

  /// Null without a window.
  const std::shared_ptr<NSOpenGLContext>& openGLContext() const { return mContext; }
  const std::shared_ptr<const NSOpenGLPixelFormat>& pixelFormat() const { return mPixelFormat; }

  void addTrackingArea(std::shared_ptr<NSTrackingArea> area);
  void removeTrackingArea(const std::shared_ptr<NSTrackingArea>& area);
  const std::vector<std::shared_ptr<NSTrackingArea>>& trackingAreas() const { return mTrackingAreas; }

  /// The pointer is at `point` in the view's points (y upwards), inside or outside of it.
  void pointerMovedTo(NSPoint point);
  /// The pointer left the window.
  void pointerLeft();

  /// Draws the region `rect`. To the screen with the view's context, unless the current
  /// NSGraphicsContext leads elsewhere (a page, a picture).
  virtual void drawRect(NSRect rect) = 0;

 protected:
  /// The context is ready: once for each context, current, before the first drawing.
  virtual void prepareOpenGL() {}
  /// The context is about to go and is current if it still can be: what lives in it must go now.
  virtual void clearGLContext() {}
  /// The view has come into a window or has left it.
  virtual void viewDidMoveToWindow() {}
  /// The bounds changed: areas made for the old ones may be replaced.
  virtual void updateTrackingAreas() {}

 private:
  bool draw(const std::function<void()>& drawing);
  void leaveWindow();
  bool holdsPointer(const NSTrackingArea& area) const;
  static void follow(NSTrackingArea& area, bool isInside, const NSEvent& event);

  NSRect mFrame;
  std::shared_ptr<const NSOpenGLPixelFormat> mPixelFormat;
  HostWindow* mWindow = nullptr;
  std::shared_ptr<NSOpenGLContext> mContext;
  bool mIsPrepared = false;
  NSRect mDirty;
  bool mAskedForRedraw = false;
  std::vector<std::shared_ptr<NSTrackingArea>> mTrackingAreas;
  std::optional<NSPoint> mPointer;
};

}  // namespace vesk
