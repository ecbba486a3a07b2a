#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "platform/graphics/shader_program.h"

namespace vesk {

/// How the samples of a picture lie in textures.
enum class TextureLayout : uint8_t { kRGBA, kBGRA, kGray, kPlanar, kBiPlanar, kPacked422 };
constexpr size_t kTextureLayouts = 6;

/// The programs that draw pictures from their planes, two for each layout, and the rectangle that they draw.
class PicturePrograms {
 public:
  /// Samples that one pixel is averaged from, across and down: pictures that become smaller than one of so
  /// many pixels are scaled on the CPU before.
  static constexpr int32_t kMostTaps = 16;

  explicit PicturePrograms(const GLFeatures& features);

  /// `isMuchSmaller`: for a picture of which a pixel of the surface takes several samples.
  ShaderProgram& programFor(TextureLayout layout, bool isMuchSmaller);
  UnitQuad& quad() { return mQuad; }
  void release();

 private:
  const GLFeatures& mFeatures;
  std::array<std::unique_ptr<ShaderProgram>, 2 * kTextureLayouts> mPrograms;
  UnitQuad mQuad;
};

}  // namespace vesk
