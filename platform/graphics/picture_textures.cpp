#include "platform/graphics/picture_textures.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/pixels/ycbcr_conversion.h"

namespace vesk {
namespace {

TextureLayout layoutOf(uint32_t pixelFormat) {
  switch (pixelFormat) {
    case kCMPixelFormat_422YpCbCr8:
      return TextureLayout::kPacked422;
    case kCVPixelFormat_420Planar:
    case kCVPixelFormat_422Planar:
    case kCVPixelFormat_444Planar:
      return TextureLayout::kPlanar;
    case kCVPixelFormat_420BiPlanar:
      return TextureLayout::kBiPlanar;
    case kCVPixelFormat_Gray:
      return TextureLayout::kGray;
    case kCVPixelFormat_32RGBA:
      return TextureLayout::kRGBA;
    default:
      return TextureLayout::kBGRA;
  }
}

struct Format {
  GLenum format;
  GLint storage;
};

/// For as many bytes a texel.
Format formatFor(const GLFeatures& features, uint8_t channels) {
  if (channels == 4) return {GL_RGBA, features.isES && features.version < 30 ? GL_RGBA : GL_RGBA8};
  if (features.hasRedTextures) return channels == 2 ? Format{GL_RG, GL_RG8} : Format{GL_RED, GL_R8};
  const GLenum luminance = channels == 2 ? GL_LUMINANCE_ALPHA : GL_LUMINANCE;
  return {luminance, static_cast<GLint>(luminance)};
}

int32_t dividedUp(int32_t size, int32_t step) {
  return (size + step - 1) / step;
}

/// Columns of a 2vuy picture of two bytes each: where the width is odd, one more if its rows go on so far.
int32_t packedColumns(const PicturePlanes& picture) {
  const int32_t even = picture.width + picture.width % 2;
  return picture.planes[0].bytesPerRow >= static_cast<size_t>(even) * 2 ? even : picture.width;
}

/// How many samples a pixel takes along an axis: two lie between two texels, and need no more than the filter.
float tapsFor(float pixelsEach) {
  return pixelsEach <= 2 ? 1 : std::min(std::ceil(pixelsEach), static_cast<float>(PicturePrograms::kMostTaps));
}

}  // namespace

bool PictureTextures::store(const GLFeatures& features, const PicturePlanes& picture) {
  mLayout = layoutOf(picture.pixelFormat);
  mPicture = picture;
  const auto plane = [&](size_t index, int32_t width, int32_t height, uint8_t channels) {
    return storePlane(features, index, picture.planes.at(index), width, height, channels);
  };
  const ChromaStep step = chromaStepOf(picture.pixelFormat);
  const int32_t chromaWidth = dividedUp(picture.width, step.x);
  const int32_t chromaHeight = dividedUp(picture.height, step.y);
  switch (mLayout) {
    case TextureLayout::kRGBA:
    case TextureLayout::kBGRA:
      return plane(0, picture.width, picture.height, 4);
    case TextureLayout::kGray:
      return plane(0, picture.width, picture.height, 1);
    case TextureLayout::kPlanar:
      return plane(0, picture.width, picture.height, 1) && plane(1, chromaWidth, chromaHeight, 1) &&
             plane(2, chromaWidth, chromaHeight, 1);
    case TextureLayout::kBiPlanar:
      return plane(0, picture.width, picture.height, 1) && plane(1, chromaWidth, chromaHeight, 2);
    case TextureLayout::kPacked422:
      return packedColumns(picture) > 1 && plane(0, packedColumns(picture), picture.height, 2);
  }
  return false;
}

bool PictureTextures::storePlane(const GLFeatures& features, size_t index, const PixelPlane& plane, int32_t width,
                                 int32_t height, uint8_t channels) {
  const size_t tight = static_cast<size_t>(width) * channels;
  const uint8_t* data = plane.data;
  const bool hasGaps = plane.bytesPerRow != tight;
  const bool isSkipped = hasGaps && features.hasRowLength && plane.bytesPerRow % channels == 0;
  if (hasGaps && !isSkipped) {
    uint8_t* const rows = mRows.reserve(tight * static_cast<size_t>(height));
    if (!rows) return false;
    for (size_t y = 0; y < static_cast<size_t>(height); ++y)
      std::memcpy(rows + y * tight, plane.data + y * plane.bytesPerRow, tight);
    data = rows;
  }
  Texture& texture = mTextures.at(index);
  const Format format = formatFor(features, channels);
  glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(index));
  if (texture.name == 0) glGenTextures(1, &texture.name);
  glBindTexture(GL_TEXTURE_2D, texture.name);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  if (texture.width != width || texture.height != height || texture.channels != channels) {
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, format.storage, width, height, 0, format.format, GL_UNSIGNED_BYTE, nullptr);
    texture.width = width;
    texture.height = height;
    texture.channels = channels;
  }
  if (isSkipped) glPixelStorei(GL_UNPACK_ROW_LENGTH, static_cast<GLint>(plane.bytesPerRow / channels));
  glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, format.format, GL_UNSIGNED_BYTE, data);
  if (isSkipped) glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
  glActiveTexture(GL_TEXTURE0);
  mBytesStored += static_cast<uint64_t>(width) * static_cast<uint64_t>(height) * channels;
  return true;
}

bool PictureTextures::draw(DrawingBackend& backend, const SurfaceBox& place, const SurfaceBox& target) const {
  const float acrossEach = static_cast<float>(mPicture.width) / static_cast<float>(place.width());
  const float downEach = static_cast<float>(mPicture.height) / static_cast<float>(place.height());
  const float tapsAcross = tapsFor(acrossEach);
  const float tapsDown = tapsFor(downEach);
  ShaderProgram& program = backend.pictures().programFor(mLayout, tapsAcross > 1 || tapsDown > 1);
  if (!program.use()) return false;
  const bool isExact = mPicture.width == place.width() && mPicture.height == place.height();
  const auto set = [&program](const char* name, auto... values) {
    const std::array<GLfloat, sizeof...(values)> all{static_cast<GLfloat>(values)...};
    const GLint at = program.uniform(name);
    if constexpr (all.size() == 1) glUniform1fv(at, 1, all.data());
    if constexpr (all.size() == 2) glUniform2fv(at, 1, all.data());
    if constexpr (all.size() == 3) glUniform3fv(at, 1, all.data());
    if constexpr (all.size() == 4) glUniform4fv(at, 1, all.data());
  };
  const SurfaceBox viewport = currentViewport();
  const auto across = [&](int32_t x) { return 2.0 * (x - viewport.left) / viewport.width() - 1; };
  const auto up = [&](int32_t y) { return 2.0 * (y - viewport.bottom) / viewport.height() - 1; };
  set("place", across(target.left), up(target.bottom), across(target.right), up(target.top));
  set("toPicture", -place.left * double{acrossEach}, place.top * double{downEach}, acrossEach, -downEach);
  set("pictureSize", mPicture.width, mPicture.height);
  set("taps", tapsAcross, tapsDown);
  set("isExact", isExact ? 1 : 0);
  set("firstTexels", mTextures[0].width, mTextures[0].height);
  const ChromaStep step = chromaStepOf(mPicture.pixelFormat);
  set("chromaTexels", std::max(mTextures[1].width, 1), std::max(mTextures[1].height, 1));
  set("chromaSize", dividedUp(mPicture.width, step.x), dividedUp(mPicture.height, step.y));
  set("chromaStep", step.x, step.y);
  set("lastCr", mTextures[0].width % 2 == 0 ? mTextures[0].width - 1 : mTextures[0].width - 2);
  const YCbCrWeights weights = weightsFor(mPicture.colour);
  set("lumaWeights", weights.luma >> 16, weights.luma & 0xFFFF, weights.bias);
  set("chromaWeights", weights.cbToBlue, weights.cbToGreen, weights.crToGreen, weights.crToRed);
  constexpr const char* kSamplers[] = {"first", "second", "third"};
  const GLint filter = isExact ? GL_NEAREST : GL_LINEAR;
  for (size_t i = 0; i < mTextures.size(); ++i) {
    glUniform1i(program.uniform(kSamplers[i]), static_cast<GLint>(i));
    if (mTextures[i].name == 0) continue;
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(i));
    glBindTexture(GL_TEXTURE_2D, mTextures[i].name);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
  }
  glActiveTexture(GL_TEXTURE0);
  backend.pictures().quad().draw();
  return true;
}

void PictureTextures::release() {
  for (Texture& texture : mTextures) {
    if (texture.name) glDeleteTextures(1, &texture.name);
    texture = {};
  }
}

}  // namespace vesk
