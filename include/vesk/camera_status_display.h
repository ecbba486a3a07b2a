#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// Shows a still picture at its own size in the middle of an area, on black.
///
/// Threads: the one of the GL context, which must be current through NSOpenGLContext; viewSize from
/// any thread.
class VESK_EXPORT CameraStatusDisplay {
 public:
  /// Reads the picture at `path` and makes its texture in the current context. A file that is missing,
  /// damaged, cut off or larger than a texture can be is logged in one line; the object then draws
  /// nothing.
  static std::shared_ptr<CameraStatusDisplay> initWithStatusImage(const std::string& path);

  CameraStatusDisplay();
  ~CameraStatusDisplay();
  CameraStatusDisplay(const CameraStatusDisplay&) = delete;
  CameraStatusDisplay& operator=(const CameraStatusDisplay&) = delete;

  /// Decodes a picture: rows from the bottom up, 4 bytes a pixel that the texture takes as blue, green,
  /// red and alpha. Its red is the picture's green, its green the picture's blue, its blue is 255 where
  /// the picture's blue is above 128 and else 0, its alpha 255 (colours premultiplied).
  /// @param rawData a buffer that is large enough, or null to have one allocated with malloc, which
  ///        the caller frees
  /// @return the size in pixels; (0, 0), with the pointer as it was, when there is no picture
  static NSSize getImage(const std::string& path, uint8_t** rawData);
  /// Makes the texture from such a buffer, which may go afterwards; nothing without a current context.
  void createTexture(const uint8_t* buffer, NSSize size);

  /// Clears the area and draws the picture, in coordinates from (0, 0) to the area's size: those of GL's matrices,
  /// or of NSOpenGLContext::setCoordinates.
  void renderStatus();
  /// Lets go of picture and texture; renderStatus then does nothing.
  void cleanup();

  /// The area in whose middle the picture is shown.
  NSSize viewSize() const;
  void setViewSize(NSSize size);

 private:
  struct VESK_LOCAL State;
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
