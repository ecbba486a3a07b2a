#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <vesk/ci_context.h>
#include <vesk/ci_image.h>
#include <vesk/export.h>
#include <vesk/open_gl_view.h>
#include <vesk/preview_session_delegate.h>

namespace vesk {

class GLString;

/// Implemented by a subclass of VeskPreviewView that draws the picture itself.
class VESK_EXPORT CIContextDrawing {
 public:
  virtual ~CIContextDrawing() = default;
  /// Draws instead of the view. On the screen `rect` is the region to redraw, grown by a point on each
  /// side and clipped to the bounds; elsewhere (printing) the region itself.
  virtual void drawRectInCIContext(CGRect rect, CIContext& context) = 0;
};

/// Shows a camera's live picture: at its own size in the middle when it is small, else scaled to the
/// view's height. While the host says that a recording is running, it shows a label in the upper left
/// corner. It tells its delegate when the pointer enters or leaves.
///
/// It draws single-buffered and ends every drawing with a flush; double-buffered hosts see
/// HostWindow::keepsContents. What it draws is opaque, around the picture too. It works without a window, too: then it
/// only remembers.
///
/// Threads: the main thread only.
class VESK_EXPORT VeskPreviewView : public NSOpenGLView {
 public:
  /// The pixel format of a view that is given none, one for the whole process.
  static std::shared_ptr<const NSOpenGLPixelFormat> defaultPixelFormat();

  /// A view ready to be put into a window; awakeFromNib has run.
  static std::shared_ptr<VeskPreviewView> initWithFrame(NSRect frame);

  explicit VeskPreviewView(NSRect frame = {});
  ~VeskPreviewView() override;

  /// Sets the state of a view just made: preview state 0, the pointer followed, and black. Whoever
  /// makes a view without initWithFrame calls it once.
  void awakeFromNib();

  /// The image on show; null when there is none.
  CIImageRef image() const { return _image; }
  /// Replaces the image and asks for a redraw of the view; nothing happens when it is shown already.
  /// Null clears the picture.
  void setImage(CIImageRef image);
  /// The same, asking for a redraw of `dirtyRect` only (CGRectInfinite: of the whole view).
  void setImage(CIImageRef image, CGRect dirtyRect);
  /// Shows a new frame whole: the image, with its extent as clean rectangle and as display size.
  void refresh(const CIImageRef& image);

  /// Whether pictures of `size` are shown at their own size. A view that is smaller than such a picture
  /// shows only its lower left part.
  static bool showsUnscaled(CGSize size);

  /// The part of the image that is shown, in its pixels.
  void setCleanRect(CGRect rect) { _cleanRect = rect; }
  /// The size whose aspect ratio a scaled picture has.
  void setDisplaySize(CGSize size) { _displaySize = size; }

  /// Brings viewport and projection up to the bounds; needs the view's context current.
  void updateMatrices();
  /// The bounds are others than at the last drawing. For subclasses.
  virtual void viewBoundsDidChange(NSRect /*bounds*/) {}
  /// Paints the view black, when its context is current; leaves the current colour black.
  void drawBlackView();
  void drawRect(NSRect rect) override;

  void mouseEntered(const NSEvent& event) override;
  void mouseExited(const NSEvent& event) override;
  void mouseMoved(const NSEvent& event) override;
  bool acceptsFirstMouse(const NSEvent& event) override;
  bool acceptsFirstResponder() override;

  /// When not 0, the view is redrawn as the pointer enters and leaves.
  void setPreviewState(int8_t state) { mPreviewState = state; }
  int8_t previewState() const { return mPreviewState; }
  /// The label is drawn when this is exactly 1, from the next drawing on; asks for no redraw. It takes
  /// the colour that the picture leaves: its own over an image, black over the black view.
  void setIsRecording(uint32_t isRecording) { mIsRecording = isRecording; }
  uint32_t isRecording() const { return mIsRecording; }

  /// The delegate is not owned and must outlive its time here; null for none. It hears of the pointer
  /// when it is a VeskPreviewPointerDelegate as well.
  void setDelegate(VeskPreviewSessionDelegate* delegate);
  VeskPreviewSessionDelegate* delegate() const { return mDelegate; }

 protected:
  void prepareOpenGL() override;
  void clearGLContext() override;
  void viewDidMoveToWindow() override;
  void updateTrackingAreas() override;

 private:
  void makeContext();
  bool isReadyToDraw() const;
  void drawElsewhere(CGRect region);
  void drawPicture(CGRect region);
  void drawLabel();
  void makeLabel();
  void replaceTrackingArea();
  CIContextDrawing* ownDrawing();

  std::shared_ptr<CIContext> _context;
  CIImageRef _image;
  NSRect _lastBounds;
  CGRect _cleanRect;
  CGSize _displaySize;
  int8_t mPreviewState = 0;
  std::shared_ptr<NSTrackingArea> mTrackingArea;
  std::shared_ptr<GLString> recString;
  uint32_t mIsRecording = 0;
  bool mShowsLabel = false;  ///< it is on the surface, from an earlier drawing or this one
  VeskPreviewSessionDelegate* mDelegate = nullptr;
  VeskPreviewPointerDelegate* mPointerDelegate = nullptr;  ///< mDelegate, when it is one
  std::optional<CIContextDrawing*> mOwnDrawing;            ///< this view, when it is one; nothing before it was asked
};

}  // namespace vesk
