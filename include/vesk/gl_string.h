#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <vesk/attributed_string.h>
#include <vesk/color.h>
#include <vesk/export.h>
#include <vesk/geometry.h>
#include <vesk/open_gl_context.h>
#include <vesk/open_gl_view.h>

namespace vesk {

/// A text as a texture, drawn over a GL scene, on a rounded box if wanted. The texture is
/// made with the next drawing after a change. Drawing takes the current colour with it (GL's, or that of
/// NSOpenGLContext::setColor): opaque white shows the text in its own colours.
///
/// Threads: the main thread, with the context current through NSOpenGLContext.
class VESK_EXPORT GLString {
 public:
  static std::shared_ptr<GLString> initWithAttributedString(NSAttributedString string,
                                                            NSColor textColor = NSColor::whiteColor(),
                                                            NSColor boxColor = NSColor::colorWithDeviceRed(1, 1, 1, 0),
                                                            NSColor borderColor = NSColor::colorWithDeviceRed(1, 1, 1,
                                                                                                              0));
  static std::shared_ptr<GLString> initWithString(std::string string, NSTextAttributes attributes,
                                                  NSColor textColor = NSColor::whiteColor(),
                                                  NSColor boxColor = NSColor::colorWithDeviceRed(1, 1, 1, 0),
                                                  NSColor borderColor = NSColor::colorWithDeviceRed(1, 1, 1, 0));

  GLString(NSAttributedString string, NSColor textColor, NSColor boxColor, NSColor borderColor);
  ~GLString();
  GLString(const GLString&) = delete;
  GLString& operator=(const GLString&) = delete;

  /// Makes the texture now, in the current context. Without one, or when the text is larger than a
  /// texture can be, it logs that, and there is no texture until the next change.
  void genTexture();
  /// Stretches the texture over `bounds`, in the scene's coordinates.
  void drawWithBounds(NSRect bounds);
  /// Draws the texture at its own size with its lower left corner at `point`; nothing to see without
  /// a parent view, whose scale gives the size.
  void drawAtPoint(NSPoint point);
  /// Deletes the texture in the context that it was made in, whichever is current.
  void deleteTexture();

  /// 0 when there is no texture.
  uint32_t texName() const { return mTexName; }
  /// In pixels; kept when the texture is deleted.
  NSSize texSize() const { return mTexSize; }
  /// The size of what is painted, in points: the text and its margins, or what useStaticFrame set.
  NSSize frameSize();

  void setString(NSAttributedString newString);
  void setString(std::string newString, NSTextAttributes attributes);
  void setTextColor(NSColor color);
  void setBoxColor(NSColor color);
  void setBorderColor(NSColor color);
  NSColor textColor() const { return mTextColor; }
  NSColor boxColor() const { return mBoxColor; }
  NSColor borderColor() const { return mBorderColor; }

  /// Between the box's edge and the text, across and up.
  void setMargins(NSSize size);
  NSSize marginSize() const { return mMarginSize; }
  void setAntialias(bool antialias);
  bool antialias() const { return mAntialias; }

  void useStaticFrame(NSSize size);
  /// Takes the size from the text again.
  void useDynamicFrame();
  bool staticFrame() const { return mStaticFrame; }

  /// The view that it is drawn in, or null. Not owned; it must outlive its time here.
  void setParentView(const NSOpenGLView* view) { mParentView = view; }
  const NSOpenGLView* parentView() const { return mParentView; }

 private:
  void changed();
  void textChanged();
  void paint(NSSize size) const;

  std::weak_ptr<NSOpenGLContext> cgl_ctx;
  uint32_t mTexName = 0;
  NSSize mTexSize;
  NSAttributedString mString;
  NSColor mTextColor;
  NSColor mBoxColor;
  NSColor mBorderColor;
  bool mStaticFrame = false;
  bool mAntialias = true;
  NSSize mMarginSize{4, 2};
  NSSize mFrameSize;
  float cRadius = 4;
  bool requiresUpdate = true;
  const NSOpenGLView* mParentView = nullptr;
};

}  // namespace vesk
