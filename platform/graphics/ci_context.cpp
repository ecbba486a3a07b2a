#include <vesk/ci_context.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_context_scope.h"
#include "platform/graphics/picture_textures.h"
#include "platform/pixels/picture_planes.h"

namespace vesk {
namespace {

SurfaceBox intersection(const SurfaceBox& a, const SurfaceBox& b) {
  return {std::max(a.left, b.left), std::max(a.bottom, b.bottom), std::min(a.right, b.right), std::min(a.top, b.top)};
}

/// The pixels whose middles lie in `rect`: those that GL would paint. Rounding in the matrices does not move
/// an edge that lies on a middle, so a picture keeps its size wherever it is put.
SurfaceBox pixelsOf(const CGRect& rect, const SurfaceTransform& transform) {
  const auto pixel = [](const SurfaceAxis& axis, float at) {
    constexpr double kFar = 1 << 24;  // far outside of any surface, and safe to calculate with
    constexpr double kRounding = 1.0 / 64;
    return static_cast<int32_t>(std::clamp(std::ceil(axis.pixelOf(at) - 0.5 - kRounding), -kFar, kFar));
  };
  const auto& [x, y] = transform;
  return {pixel(x, rect.x), pixel(y, rect.y), pixel(x, rect.x + rect.width), pixel(y, rect.y + rect.height)};
}

/// What may be painted: the viewport, and the scissor box where that is on.
SurfaceBox paintable() {
  const SurfaceBox viewport = currentViewport();
  if (!glIsEnabled(GL_SCISSOR_TEST)) return viewport;
  std::array<GLint, 4> scissor{};
  glGetIntegerv(GL_SCISSOR_BOX, scissor.data());
  const auto& [x, y, width, height] = scissor;
  return intersection(viewport, {x, y, x + width, y + height});
}

/// How pixels are handed to GL: in the order of the surface, so that both the upload and the copy into the surface
/// are plain copies in a software renderer (otherwise one of them is swizzled, which takes longer than all the rest).
/// A window has the upper row first, and blue, which the unsized internal format stands for when the pixels come as
/// reversed 32-bit words; OpenGL ES knows it by an extension only. The framebuffers of toolkits have the lowest row
/// first, and red.
struct UploadFormat {
  PixelOrder order = PixelOrder::kBGRA;
  bool isUpsideDown = false;  ///< the lowest row comes first
  GLint storage = 0;
  GLenum format = 0;
  GLenum type = 0;
  bool operator==(const UploadFormat&) const = default;
};
UploadFormat uploadFormatFor(const GLFeatures& features) {
  GLint framebuffer = 0;
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &framebuffer);
  if (framebuffer != 0 || !features.hasBGRA)
    return {PixelOrder::kRGBA, framebuffer != 0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE};
  if (features.isES) return {PixelOrder::kBGRA, false, GL_BGRA, GL_BGRA, GL_UNSIGNED_BYTE};
  return {PixelOrder::kBGRA, false, GL_RGBA, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV};
}

/// A texture, and a framebuffer to copy from it.
struct CopyTexture {
  GLuint name = 0;
  GLuint framebuffer = 0;
  int32_t width = 0;
  int32_t height = 0;
  UploadFormat upload;
};

/// What textures hold: which part of which picture, at which scale. The picture is not held by it.
struct Content {
  std::weak_ptr<const CVPixelBuffer> buffer;
  int32_t width = 0;
  int32_t height = 0;
  PixelBox part;

  bool operator==(const Content& other) const {
    const CVImageBufferRef mine = buffer.lock();
    return mine && mine == other.buffer.lock() && width == other.width && height == other.height && part == other.part;
  }
};

/// The largest part of a picture, with its origin on a chroma sample, that still holds `box`.
PixelBox onChroma(PixelBox box, ChromaStep step) {
  const int32_t dx = box.x % step.x;
  const int32_t dy = box.y % step.y;
  return {box.x - dx, box.y - dy, box.width + dx, box.height + dy};
}

}  // namespace

struct CIContext::State {
  explicit State(const CGLContextObj& glContext) : context(glContext) {}

  std::weak_ptr<NSOpenGLContext> context;
  CopyTexture copy;
  Content copyContent;
  PictureTextures planes;
  Content planesContent;
  ScalingScratch scratch;
  ScratchMemory pixels;

  bool isCurrent() const {
    const auto mine = context.lock();
    return mine && mine == CGLGetCurrentContext();
  }

  bool hasTextures() const { return copy.name != 0 || planes.bytesStored() != 0; }

  void deleteTextures() {
    deleteCopy();
    planes.release();
    planesContent = {};
  }

  void deleteCopy() {
    if (copy.name) glDeleteTextures(1, &copy.name);
    if (copy.framebuffer) glDeleteFramebuffers(1, &copy.framebuffer);
    copy = {};
    copyContent = {};
  }

  void bindCopy(const UploadFormat& upload, int32_t width, int32_t height) {
    glActiveTexture(GL_TEXTURE0);
    if (copy.name && copy.width == width && copy.height == height && copy.upload == upload) {
      glBindTexture(GL_TEXTURE_2D, copy.name);
      return;
    }
    deleteCopy();
    glGenTextures(1, &copy.name);
    glBindTexture(GL_TEXTURE_2D, copy.name);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexImage2D(GL_TEXTURE_2D, 0, upload.storage, width, height, 0, upload.format, upload.type, nullptr);
    copy.width = width;
    copy.height = height;
    copy.upload = upload;
  }

  /// `part` of the picture as pixels, after it was scaled to `width` × `height`; null when memory is short.
  const uint8_t* scaledPixels(const CVPixelBuffer& buffer, int32_t width, int32_t height, PixelBox part,
                              PixelOrder order, bool isUpsideDown) {
    PicturePlanes picture = planesOf(buffer);
    if (picture.width != width || picture.height != height) picture = scaledPicture(picture, width, height, scratch);
    if (picture.width == 0) return nullptr;
    const auto rowBytes = ptrdiff_t{part.width} * 4;
    uint8_t* const memory = pixels.reserve(static_cast<size_t>(rowBytes * part.height));
    if (!memory) return nullptr;
    uint8_t* const upperRow = isUpsideDown ? memory + rowBytes * (part.height - 1) : memory;
    return convertPicture(partOf(picture, part), order, upperRow, isUpsideDown ? -rowBytes : rowBytes) ? memory
                                                                                                       : nullptr;
  }

  /// Copies the texture to the surface with its upper left corner there; only what lies in `target` (inside of
  /// the texture's place).
  void copyTexture(int32_t left, int32_t top, const SurfaceBox& target) {
    GLint before = 0;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &before);
    if (copy.framebuffer == 0) {
      glGenFramebuffers(1, &copy.framebuffer);
      glBindFramebuffer(GL_READ_FRAMEBUFFER, copy.framebuffer);
      glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, copy.name, 0);
    } else {
      glBindFramebuffer(GL_READ_FRAMEBUFFER, copy.framebuffer);
    }
    // The texture's rows of the target's edges.
    const int32_t bottom = top - copy.height;
    const auto rowAt = [&](int32_t y) { return copy.upload.isUpsideDown ? y - bottom : top - y; };
    glBlitFramebuffer(target.left - left, rowAt(target.bottom), target.right - left, rowAt(target.top), target.left,
                      target.bottom, target.right, target.top, GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(before));
  }

  /// Draws a picture by scaling it on the CPU to the very pixels it takes. For software renderers:
  /// libyuv scales and converts many times faster than they sample textures.
  void drawCopied(DrawingBackend& backend, const CVImageBufferRef& buffer, const SurfaceBox& place,
                  const SurfaceBox& target) {
    const GLFeatures& features = backend.features();
    const PixelBox visible{target.left - place.left, place.top - target.top, target.width(), target.height()};
    const PixelBox part = onChroma(visible, chromaStepOf(buffer->pixelFormat()));
    const int32_t left = place.left + part.x;
    const int32_t top = place.top - part.y;
    const Content wanted{buffer, place.width(), place.height(), part};
    if (!canCopy(features)) {
      if (!(planesContent == wanted)) {
        planesContent = {};
        const auto* const memory = scaledPixels(*buffer, place.width(), place.height(), part, PixelOrder::kBGRA, false);
        const PixelPlane plane{memory, static_cast<size_t>(part.width) * 4};
        if (!memory || !planes.store(features, {part.width, part.height, kCVPixelFormat_32BGRA, {plane}, {}})) return;
        planesContent = wanted;
      }
      planes.draw(backend, {left, top - part.height, left + part.width, top}, target);
      return;
    }
    const UploadFormat upload = uploadFormatFor(features);
    bindCopy(upload, part.width, part.height);
    if (!(copyContent == wanted)) {
      copyContent = {};
      const auto* const memory =
          scaledPixels(*buffer, place.width(), place.height(), part, upload.order, upload.isUpsideDown);
      if (!memory) return;
      glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, part.width, part.height, upload.format, upload.type, memory);
      copyContent = wanted;
    }
    copyTexture(left, top, target);
  }

  /// Whether the surface takes copies of a texture; one with several samples a pixel may not.
  static bool canCopy(const GLFeatures& features) {
    if (!features.hasBlit) return false;
    GLint samples = 0;
    glGetIntegerv(GL_SAMPLES, &samples);
    return samples == 0;
  }

  /// Draws what lies in `target` of the picture in `place`, which GL converts and scales. Both are whole
  /// pixels, or an unscaled picture would double some rows and lose others.
  void drawPlanes(DrawingBackend& backend, const CVImageBufferRef& buffer, const SurfaceBox& place,
                  const SurfaceBox& target) {
    const GLFeatures& features = backend.features();
    // What no texture holds, or what becomes smaller than a shader can do well, is scaled down before.
    const auto most = [&features](int32_t side, int32_t shown) {
      const int64_t useful = std::max<int64_t>(int64_t{shown} * PicturePrograms::kMostTaps, 1);
      return static_cast<int32_t>(std::min<int64_t>({side, features.largestTexture, useful}));
    };
    const int32_t width = most(buffer->width(), place.width());
    const int32_t height = most(buffer->height(), place.height());
    const Content wanted{buffer, width, height, {0, 0, width, height}};
    if (!(planesContent == wanted)) {
      planesContent = {};
      PicturePlanes picture = planesOf(*buffer);
      if (picture.width != width || picture.height != height) picture = scaledPicture(picture, width, height, scratch);
      if (picture.width == 0 || !storePlanes(features, picture)) return;
      planesContent = wanted;
    }
    if (hasAlpha(buffer->pixelFormat())) {
      glEnable(GL_BLEND);
      glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    } else {
      glDisable(GL_BLEND);
    }
    planes.draw(backend, place, target);
  }

  bool storePlanes(const GLFeatures& features, const PicturePlanes& picture) {
    if (planes.store(features, picture)) return true;
    const PicturePlanes planar = planarPicture(picture, scratch.unpacked);  // a column without its Cr
    return planar.width != 0 && planes.store(features, planar);
  }

  /// Draws `source`, a part of the picture, so that it fills `place`.
  void draw(DrawingBackend& backend, const CIImage& image, const CGRect& place, const CGRect& source) {
    const CVImageBufferRef& buffer = image.imageBuffer();
    const SurfaceTransform transform = backend.transform();
    // Where the whole picture would lie.
    const float scaleX = place.width / source.width;
    const float scaleY = place.height / source.height;
    const CGRect whole{place.x - source.x * scaleX, place.y - source.y * scaleY, image.extent().width * scaleX,
                       image.extent().height * scaleY};
    const SurfaceBox wholeBox = pixelsOf(whole, transform);
    const SurfaceBox target = intersection(intersection(pixelsOf(place, transform), wholeBox), paintable());
    if (!target.isEmpty()) {
      const auto kept = backend.keepForDrawing();
      if (backend.features().isSoftware && !hasAlpha(buffer->pixelFormat()) &&
          isWorthScaling(wholeBox, target, backend.features().largestTexture))
        drawCopied(backend, buffer, wholeBox, target);
      else
        drawPlanes(backend, buffer, wholeBox, target);
      backend.endPicture();
    }
    backend.setColour(NSColor::whiteColor());
  }

  /// Whether not too much would be scaled that is not seen.
  static bool isWorthScaling(const SurfaceBox& whole, const SurfaceBox& target, int32_t mostSide) {
    if (whole.width() > 1 << 14 || whole.height() > 1 << 14) return false;
    const int64_t pixels64 = int64_t{whole.width()} * whole.height();
    return target.width() < mostSide && target.height() < mostSide &&
           pixels64 <= std::max(int64_t{1} << 22, 4 * int64_t{target.width()} * target.height());
  }
};

CIContext::CIContext() : CIContext(nullptr) {}

CIContext::CIContext(const CGLContextObj& context) : mState(std::make_unique<State>(context)) {}

CIContext::~CIContext() {
  const auto context = mState->context.lock();
  if (!context || !mState->hasTextures()) return;
  const CurrentContextScope scope(*context);
  if (scope) mState->deleteTextures();
}

std::shared_ptr<CIContext> CIContext::contextWithCGLContext(
    const CGLContextObj& context, std::shared_ptr<const NSOpenGLPixelFormat> /*pixelFormat*/) {
  return std::make_shared<CIContext>(context);
}

bool CIContext::isCurrent() const {
  return mState->isCurrent();
}

void CIContext::drawImage(const CIImageRef& image, CGPoint atPoint, CGRect fromRect) {
  drawImage(image, CGRect{atPoint.x, atPoint.y, fromRect.width, fromRect.height}, fromRect);
}

void CIContext::drawImage(const CIImageRef& image, CGRect inRect, CGRect fromRect) {
  if (!image || NSIsEmptyRect(inRect) || NSIsEmptyRect(fromRect)) return;
  DrawingBackend* const backend = mState->isCurrent() ? currentBackend() : nullptr;
  if (!backend) return;
  const CGRect source = CGRectIntersection(fromRect, image->extent());
  if (NSIsEmptyRect(source)) return;
  const float scaleX = inRect.width / fromRect.width;
  const float scaleY = inRect.height / fromRect.height;
  const CGRect place{inRect.x + (source.x - fromRect.x) * scaleX, inRect.y + (source.y - fromRect.y) * scaleY,
                     source.width * scaleX, source.height * scaleY};
  mState->draw(*backend, *image, place, source);
}

CGImageRef CIContext::createCGImage(const CIImageRef& image, CGRect fromRect) {
  if (!image || NSIsEmptyRect(fromRect)) return nullptr;
  const CGRect rect = CGRectIntegral(fromRect);
  if (!(rect.width * rect.height <= static_cast<float>(kMostImagePixels))) return nullptr;
  const auto width = static_cast<int32_t>(rect.width);
  const auto height = static_cast<int32_t>(rect.height);
  try {
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    const CGRect inside = CGRectIntersection(rect, image->extent());
    if (NSIsEmptyRect(inside)) return CGImage::create(width, height, std::move(pixels));
    // From y upwards to rows downwards, in the picture and in the bitmap.
    const PicturePlanes picture = planesOf(*image->imageBuffer());
    const PixelBox wanted{static_cast<int32_t>(inside.x),
                          picture.height - static_cast<int32_t>(inside.y + inside.height),
                          static_cast<int32_t>(inside.width), static_cast<int32_t>(inside.height)};
    const PixelBox part = onChroma(wanted, chromaStepOf(picture.pixelFormat));
    const size_t partBytes = static_cast<size_t>(part.width) * 4;
    uint8_t* const converted = mState->pixels.reserve(partBytes * static_cast<size_t>(part.height));
    if (!converted ||
        !convertPicture(partOf(picture, part), PixelOrder::kRGBA, converted, static_cast<ptrdiff_t>(partBytes)))
      return nullptr;
    const auto left = static_cast<size_t>(inside.x - rect.x);
    const auto top = static_cast<size_t>(rect.y + rect.height - inside.y - inside.height);
    for (int32_t row = 0; row < wanted.height; ++row)
      std::memcpy(pixels.data() + ((top + static_cast<size_t>(row)) * static_cast<size_t>(width) + left) * 4,
                  converted + static_cast<size_t>(row + wanted.y - part.y) * partBytes +
                      static_cast<size_t>(wanted.x - part.x) * 4,
                  static_cast<size_t>(wanted.width) * 4);
    return CGImage::create(width, height, std::move(pixels));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CIContext::clearCaches() {}  // textures hold no image

}  // namespace vesk
