#include <vesk/ci_context.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "platform/graphics/gl_context_scope.h"
#include "platform/pixels/picture_planes.h"

namespace vesk {
namespace {

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

SurfaceBox intersection(const SurfaceBox& a, const SurfaceBox& b) {
  return {std::max(a.left, b.left), std::max(a.bottom, b.bottom), std::min(a.right, b.right), std::min(a.top, b.top)};
}

SurfaceBox boxOf(const std::array<GLint, 4>& originAndSize) {
  const auto& [x, y, width, height] = originAndSize;
  return {x, y, x + width, y + height};
}

/// From the coordinates of the current matrices to pixels of the surface: what `glVertex` does.
class SurfaceTransform {
 public:
  SurfaceTransform() {
    std::array<GLfloat, 16> projection{};
    std::array<GLfloat, 16> modelView{};
    glGetFloatv(GL_PROJECTION_MATRIX, projection.data());
    glGetFloatv(GL_MODELVIEW_MATRIX, modelView.data());
    std::array<GLint, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    mViewport = boxOf(viewport);
    mX = axis(projection, modelView, 0, viewport[0], viewport[2]);
    mY = axis(projection, modelView, 1, viewport[1], viewport[3]);
  }

  /// The pixels whose middles lie in `rect`: those that GL would paint. Rounding in the matrices does
  /// not move an edge that lies on a middle, so a picture keeps its size wherever it is put.
  SurfaceBox pixelsOf(const CGRect& rect) const {
    return {mX.pixel(rect.x), mY.pixel(rect.y), mX.pixel(rect.x + rect.width), mY.pixel(rect.y + rect.height)};
  }
  const SurfaceBox& viewport() const { return mViewport; }

 private:
  struct Axis {
    double scale = 1;
    double offset = 0;
    int32_t pixel(float at) const {
      constexpr double kFar = 1 << 24;  // far outside of any surface, and safe to calculate with
      constexpr double kRounding = 1.0 / 64;
      const double edge = static_cast<double>(at) * scale + offset;
      return static_cast<int32_t>(std::clamp(std::ceil(edge - 0.5 - kRounding), -kFar, kFar));
    }
  };

  using Matrix = std::array<GLfloat, 16>;
  static Axis axis(const Matrix& projection, const Matrix& modelView, size_t i, GLint origin, GLint size) {
    const double p = static_cast<double>(projection[i * 5]);
    const double half = size / 2.0;
    return {p * static_cast<double>(modelView[i * 5]) * half,
            (p * static_cast<double>(modelView[12 + i]) + static_cast<double>(projection[12 + i]) + 1) * half + origin};
  }

  SurfaceBox mViewport;
  Axis mX;
  Axis mY;
};

/// What may be painted: the viewport, and the scissor box where that is on.
SurfaceBox paintable(const SurfaceTransform& transform) {
  if (!glIsEnabled(GL_SCISSOR_TEST)) return transform.viewport();
  std::array<GLint, 4> scissor{};
  glGetIntegerv(GL_SCISSOR_BOX, scissor.data());
  return intersection(transform.viewport(), boxOf(scissor));
}

/// Restores the state of drawing that is changed here.
class KeptState {
 public:
  KeptState() {
    glPushAttrib(GL_ENABLE_BIT | GL_TEXTURE_BIT | GL_COLOR_BUFFER_BIT);
    glPushClientAttrib(GL_CLIENT_PIXEL_STORE_BIT);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
    glPixelStorei(GL_UNPACK_SWAP_BYTES, GL_FALSE);
  }
  ~KeptState() {
    glPopClientAttrib();
    glPopAttrib();
    glColor4f(1, 1, 1, 1);
  }
  KeptState(const KeptState&) = delete;
  KeptState& operator=(const KeptState&) = delete;
};

/// Matrices in which a unit is a pixel of the surface, for its own lifetime.
class SurfaceCoordinates {
 public:
  SurfaceCoordinates() {
    std::array<GLint, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    const SurfaceBox box = boxOf(viewport);
    glPushAttrib(GL_TRANSFORM_BIT);
    glMatrixMode(GL_PROJECTION);
    glPushMatrix();
    glLoadIdentity();
    glOrtho(box.left, box.right, box.bottom, box.top, -1, 1);
    glMatrixMode(GL_MODELVIEW);
    glPushMatrix();
    glLoadIdentity();
  }
  ~SurfaceCoordinates() {
    glPopMatrix();
    glMatrixMode(GL_PROJECTION);
    glPopMatrix();
    glPopAttrib();
  }
  SurfaceCoordinates(const SurfaceCoordinates&) = delete;
  SurfaceCoordinates& operator=(const SurfaceCoordinates&) = delete;
};

/// How pixels of an order are handed to GL. Blue first as reversed 32-bit words, and with the unsized
/// internal format: the storage then has the very order of the bytes (and of a window), and both the
/// upload and the copy into the window are plain copies in a software renderer. By bytes, or into
/// GL_RGBA8, each upload would be swizzled (ten times slower there).
struct UploadFormat {
  GLenum format;
  GLenum type;
};
UploadFormat uploadFormatOf(PixelOrder order) {
  return order == PixelOrder::kBGRA ? UploadFormat{GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV}
                                    : UploadFormat{GL_RGBA, GL_UNSIGNED_BYTE};
}

PixelOrder orderFor(uint32_t pixelFormat) {
  return pixelFormat == kCVPixelFormat_32RGBA ? PixelOrder::kRGBA : PixelOrder::kBGRA;
}

/// A texture, and a framebuffer to copy from it.
struct PictureTexture {
  GLuint name = 0;
  GLuint framebuffer = 0;
  int32_t width = 0;
  int32_t height = 0;
  PixelOrder order = PixelOrder::kBGRA;
};

/// What a texture holds: which part of which picture, at which scale.
struct Content {
  CVImageBufferRef buffer;
  int32_t width = 0;
  int32_t height = 0;
  PixelBox part;
  bool operator==(const Content&) const = default;
};

bool isSoftware() {
  const auto* const name = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  const std::string_view renderer = name ? name : "";
  constexpr std::string_view kSoftware[] = {"llvmpipe", "softpipe", "SWR", "Software Rasterizer"};
  return std::any_of(std::begin(kSoftware), std::end(kSoftware),
                     [renderer](std::string_view known) { return renderer.find(known) != std::string_view::npos; });
}

/// The largest part of a picture, with its origin on a chroma sample, that still holds `box`.
PixelBox onChroma(PixelBox box, ChromaStep step) {
  const int32_t dx = box.x % step.x;
  const int32_t dy = box.y % step.y;
  return {box.x - dx, box.y - dy, box.width + dx, box.height + dy};
}

}  // namespace

struct CIContext::State {
  explicit State(const CGLContextObj& glContext) : context(glContext), hasContext(glContext != nullptr) {}

  std::weak_ptr<NSOpenGLContext> context;
  bool hasContext;
  bool isAsked = false;  ///< whether the driver was asked for the next two
  bool copies = false;   ///< scale on the CPU and copy, instead of letting GL scale
  GLint mostSide = 0;    ///< of a texture
  PictureTexture texture;
  Content content;
  ScalingScratch scratch;
  ScratchMemory pixels;

  bool isCurrent() const {
    const auto mine = context.lock();
    return mine && mine == CGLGetCurrentContext();
  }

  void askDriver() {
    if (std::exchange(isAsked, true)) return;
    const bool hasFramebuffers = epoxy_gl_version() >= 30 || epoxy_has_gl_extension("GL_ARB_framebuffer_object");
    copies = hasFramebuffers && isSoftware();
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &mostSide);
  }

  void deleteTexture() {
    if (texture.name) glDeleteTextures(1, &texture.name);
    if (texture.framebuffer) glDeleteFramebuffers(1, &texture.framebuffer);
    texture = {};
    content = {};
  }

  void bindTexture(int32_t width, int32_t height, PixelOrder order) {
    if (texture.name && texture.width == width && texture.height == height && texture.order == order) {
      glBindTexture(GL_TEXTURE_2D, texture.name);
      return;
    }
    deleteTexture();
    glGenTextures(1, &texture.name);
    glBindTexture(GL_TEXTURE_2D, texture.name);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    const UploadFormat upload = uploadFormatOf(order);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, upload.format, upload.type, nullptr);
    texture.width = width;
    texture.height = height;
    texture.order = order;
  }

  /// Has the texture bound, holding `part` of the picture scaled to `width` × `height`.
  bool load(const CVImageBufferRef& buffer, int32_t width, int32_t height, PixelBox part) {
    const Content wanted{buffer, width, height, part};
    const PixelOrder order = orderFor(buffer->pixelFormat());
    bindTexture(part.width, part.height, order);
    if (content == wanted) return true;
    PicturePlanes picture = planesOf(*buffer);
    if (picture.width != width || picture.height != height) picture = scaledPicture(picture, width, height, scratch);
    if (picture.width == 0) return false;
    const size_t rowBytes = static_cast<size_t>(part.width) * 4;
    uint8_t* const memory = pixels.reserve(rowBytes * static_cast<size_t>(part.height));
    if (!memory || !convertPicture(partOf(picture, part), order, memory, rowBytes)) return false;
    const UploadFormat upload = uploadFormatOf(order);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, part.width, part.height, upload.format, upload.type, memory);
    content = wanted;
    return true;
  }

  /// Copies the texture, whose first row is the upper one, to the surface with its upper left corner
  /// there; only what lies in `target` (inside of the texture's place).
  void copyTexture(int32_t left, int32_t top, const SurfaceBox& target) {
    GLint before = 0;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &before);
    if (texture.framebuffer == 0) {
      glGenFramebuffers(1, &texture.framebuffer);
      glBindFramebuffer(GL_READ_FRAMEBUFFER, texture.framebuffer);
      glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture.name, 0);
    } else {
      glBindFramebuffer(GL_READ_FRAMEBUFFER, texture.framebuffer);
    }
    glBlitFramebuffer(target.left - left, top - target.top, target.right - left, top - target.bottom, target.left,
                      target.top, target.right, target.bottom, GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(before));
  }

  /// Draws a picture by scaling it on the CPU to the very pixels it takes. For software renderers:
  /// libyuv scales and converts many times faster than they sample textures.
  void drawCopied(const CVImageBufferRef& buffer, const SurfaceBox& place, const SurfaceBox& target) {
    const PixelBox visible{target.left - place.left, place.top - target.top, target.width(), target.height()};
    const PixelBox part = onChroma(visible, chromaStepOf(buffer->pixelFormat()));
    if (!load(buffer, place.width(), place.height(), part)) return;
    copyTexture(place.left + part.x, place.top - part.y, target);
  }

  /// Draws a picture as a textured rectangle that GL scales: what lies in `target` of the picture in
  /// `place`. Both are whole pixels, or an unscaled picture would double some rows and lose others.
  void drawTextured(const CVImageBufferRef& buffer, const SurfaceBox& place, const SurfaceBox& target) {
    const int32_t width = std::min(buffer->width(), mostSide);
    const int32_t height = std::min(buffer->height(), mostSide);
    if (!load(buffer, width, height, {0, 0, width, height})) return;
    const auto across = [&place](int32_t x) { return double(x - place.left) / place.width(); };
    const auto down = [&place](int32_t y) { return double(place.top - y) / place.height(); };
    if (hasAlpha(buffer->pixelFormat())) {
      glEnable(GL_BLEND);
      glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    }
    for (const GLenum hiding : {GL_TEXTURE_3D, GL_TEXTURE_RECTANGLE, GL_TEXTURE_CUBE_MAP}) glDisable(hiding);
    glEnable(GL_TEXTURE_2D);
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
    const bool isUnscaled = place.width() == width && place.height() == height;
    const GLint filter = isUnscaled ? GL_NEAREST : GL_LINEAR;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
    const SurfaceCoordinates coordinates;
    glBegin(GL_QUADS);
    for (const auto& [x, y] : {std::pair{target.left, target.bottom}, std::pair{target.left, target.top},
                               std::pair{target.right, target.top}, std::pair{target.right, target.bottom}}) {
      glTexCoord2d(across(x), down(y));
      glVertex2i(x, y);
    }
    glEnd();
  }

  /// Draws `source`, a part of the picture, so that it fills `place`.
  void draw(const CIImage& image, const CGRect& place, const CGRect& source) {
    askDriver();
    const KeptState kept;
    const CVImageBufferRef& buffer = image.imageBuffer();
    const SurfaceTransform transform;
    // Where the whole picture would lie.
    const float scaleX = place.width / source.width;
    const float scaleY = place.height / source.height;
    const CGRect whole{place.x - source.x * scaleX, place.y - source.y * scaleY, image.extent().width * scaleX,
                       image.extent().height * scaleY};
    const SurfaceBox wholeBox = transform.pixelsOf(whole);
    const SurfaceBox target = intersection(intersection(transform.pixelsOf(place), wholeBox), paintable(transform));
    if (target.isEmpty()) return;
    if (copies && !hasAlpha(buffer->pixelFormat()) && isWorthScaling(wholeBox, target))
      drawCopied(buffer, wholeBox, target);
    else
      drawTextured(buffer, wholeBox, target);
  }

  /// Whether not too much would be scaled that is not seen.
  bool isWorthScaling(const SurfaceBox& whole, const SurfaceBox& target) const {
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
  if (!context || mState->texture.name == 0) return;
  const CurrentContextScope scope(*context);
  if (scope) mState->deleteTexture();
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
  if (!mState->isCurrent() || !CGLGetCurrentContext()->canDraw()) return;
  const CGRect source = CGRectIntersection(fromRect, image->extent());
  if (NSIsEmptyRect(source)) return;
  const float scaleX = inRect.width / fromRect.width;
  const float scaleY = inRect.height / fromRect.height;
  const CGRect place{inRect.x + (source.x - fromRect.x) * scaleX, inRect.y + (source.y - fromRect.y) * scaleY,
                     source.width * scaleX, source.height * scaleY};
  mState->draw(*image, place, source);
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
    if (!converted || !convertPicture(partOf(picture, part), PixelOrder::kRGBA, converted, partBytes)) return nullptr;
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

void CIContext::clearCaches() {
  mState->content.buffer.reset();
}

}  // namespace vesk
