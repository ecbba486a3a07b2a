#pragma once

#include <array>
#include <cstdint>

#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_features.h"
#include "platform/pixels/picture_planes.h"

namespace vesk {

/// A picture's planes as textures, which are used again for the next picture of the same kind. To be called
/// with their context current, within KeptGLState or between enter and leave of its backend.
class PictureTextures {
 public:
  /// Uploads the planes as they are. False when memory is short, or where textures cannot hold them.
  bool store(const GLFeatures& features, const PicturePlanes& picture);
  /// Draws what lies in `target` of the picture, all of which would fill `place`. False when it cannot be.
  bool draw(DrawingBackend& backend, const SurfaceBox& place, const SurfaceBox& target) const;
  void release();

  /// Bytes uploaded so far, for benchmarks.
  uint64_t bytesStored() const { return mBytesStored; }

 private:
  struct Texture {
    GLuint name = 0;
    int32_t width = 0;  ///< in texels
    int32_t height = 0;
    uint8_t channels = 0;
  };

  bool storePlane(const GLFeatures& features, size_t index, const PixelPlane& plane, int32_t width, int32_t height,
                  uint8_t channels);

  TextureLayout mLayout = TextureLayout::kRGBA;
  PicturePlanes mPicture;  ///< its sizes and colour; the planes may be gone
  std::array<Texture, CVPixelBuffer::kMostPlanes> mTextures;
  ScratchMemory mRows;
  uint64_t mBytesStored = 0;
};

}  // namespace vesk
