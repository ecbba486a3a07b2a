#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <vesk/color.h>
#include <vesk/geometry.h>
#include "platform/graphics/gl_features.h"
#include "platform/graphics/gl_state.h"
#include "platform/graphics/picture_program.h"

namespace vesk {

/// One axis of the way from a scene's coordinates to pixels of the surface.
struct SurfaceAxis {
  double scale = 1;
  double offset = 0;
  double pixelOf(float at) const { return static_cast<double>(at) * scale + offset; }
};

/// From a scene's coordinates to pixels of the surface: what viewport and matrices do.
struct SurfaceTransform {
  SurfaceAxis x;
  SurfaceAxis y;
};

/// A rectangle of whole pixels of the surface; GL's first row is the lowest.
struct SurfaceBox {
  int32_t left = 0;
  int32_t bottom = 0;
  int32_t right = 0;
  int32_t top = 0;

  int32_t width() const { return right - left; }
  int32_t height() const { return top - bottom; }
  bool isEmpty() const { return right <= left || top <= bottom; }
};

SurfaceBox currentViewport();

/// How views, texts and status pictures are drawn: with the fixed functions of OpenGL 2.1, or with shaders
/// where a context has none (core profiles, OpenGL ES). One for each NSOpenGLContext; all calls need that
/// context current.
///
/// Both keep what fixed functions have and shaders have not: a current colour, and coordinates.
class DrawingBackend {
 public:
  /// For the current context; null when it is of a kind that cannot be drawn in.
  static std::unique_ptr<DrawingBackend> forCurrentContext();

  virtual ~DrawingBackend() = default;
  DrawingBackend(const DrawingBackend&) = delete;
  DrawingBackend& operator=(const DrawingBackend&) = delete;

  const GLFeatures& features() const { return mFeatures; }

  /// Where the view's lower left corner is in the surface, in pixels.
  void setOrigin(int32_t x, int32_t y);
  int32_t originX() const { return mOriginX; }
  int32_t originY() const { return mOriginY; }

  /// Around a view's drawing: keeps the host's GL state and takes up what the view left at the end of its
  /// last drawing; then the other way round.
  void enter();
  void leave();
  /// Instead of leave, when the context has gone meanwhile.
  void abandon();
  /// Keeps the host's GL state for a drawing that no view encloses; nothing inside of enter and leave.
  std::optional<KeptGLState> keepForDrawing() const;

  virtual void setColour(const NSColor& colour) = 0;
  /// Coordinates from (0, 0) to `size` over the viewport. Without it they are those of the host's matrices or,
  /// where there are none, pixels of the viewport.
  virtual void setCoordinates(NSSize size) = 0;

  /// Switches off, once for a view's context, what it does not need.
  virtual void prepareView() = 0;
  /// Viewport and coordinates of a view: a unit is a pixel, (0, 0) its lower left corner.
  void setViewSize(NSSize size);
  virtual SurfaceTransform transform() const = 0;
  /// Paints the view black far beyond its bounds, and leaves the colour black.
  virtual void fillBlack(NSSize size) = 0;
  /// Clears the scissor box of the view with the current clear colour, made opaque: in a surface with alpha
  /// what lies behind would show through. The box is in pixels from the view's corner; it stays on.
  void clearOpaque(const NSRect& box);

  /// Stores a text's pixels, red first and the lowest row first, in `texture`, which is made when it is 0.
  virtual void storeText(uint32_t& texture, int32_t width, int32_t height, const uint8_t* pixels, bool isSameSize) = 0;
  /// Draws it over the scene, premultiplied, with the current colour.
  virtual void drawText(uint32_t texture, NSSize size, const NSRect& place) = 0;

  /// A texture of a status picture: the lowest row first, blue first.
  virtual uint32_t storeStatus(int32_t width, int32_t height, const uint8_t* pixels) = 0;
  /// Clears the surface with opaque black and draws it; leaves the colour white.
  virtual void drawStatus(uint32_t texture, NSSize size, const NSRect& place) = 0;
  /// Sides that storeText and storeStatus take, in pixels.
  virtual int32_t largestTexture() const = 0;

  /// After a picture: the colour is white.
  void endPicture();
  PicturePrograms& pictures() { return mPictures; }

  /// Deletes what it has made in the context.
  virtual void release();

 protected:
  explicit DrawingBackend(const GLFeatures& features) : mFeatures(features), mPictures(mFeatures) {}

 private:
  const GLFeatures mFeatures;
  PicturePrograms mPictures;
  int32_t mOriginX = 0;
  int32_t mOriginY = 0;
  std::optional<KeptGLState> mHost;
  std::optional<OwnGLState> mOwn;
};

std::unique_ptr<DrawingBackend> makeFixedFunctionBackend(const GLFeatures& features);
std::unique_ptr<DrawingBackend> makeShaderBackend(const GLFeatures& features);

}  // namespace vesk
