#include <epoxy/gl.h>

#include "platform/graphics/drawing_backend.h"

namespace vesk {
namespace {

/// `place` are the edges of what is drawn: left, bottom, right and top, from -1 to 1 over the viewport.
constexpr const char* kVertexSource = R"(
IN vec2 corner;
OUT vec2 at;
uniform vec4 place;
void main() {
  at = corner;
  gl_Position = vec4(mix(place.xy, place.zw, corner), 0.0, 1.0);
}
)";

constexpr const char* kFragmentSource = R"(
IN vec2 at;
uniform vec4 colour;
uniform sampler2D image;
void main() {
#if defined(TEXT)
  FRAGMENT = TEXTURE(image, at) * colour;
#elif defined(STATUS)
  FRAGMENT = TEXTURE(image, at).bgra * colour;
#else
  FRAGMENT = colour;
#endif
}
)";

/// Core profiles of OpenGL 3.1 and later, OpenGL ES 2 and later: colour and coordinates are kept here.
class ShaderBackend final : public DrawingBackend {
 public:
  explicit ShaderBackend(const GLFeatures& features)
      : DrawingBackend(features),
        mFill(this->features(), kVertexSource, kFragmentSource, "#define FILL\n"),
        mText(this->features(), kVertexSource, kFragmentSource, "#define TEXT\n"),
        mStatus(this->features(), kVertexSource, kFragmentSource, "#define STATUS\n") {}

  void setColour(const NSColor& colour) override { mColour = colour; }
  void setCoordinates(NSSize size) override { mCoordinates = size; }

  void prepareView() override {
    for (const GLenum feature : {GL_DEPTH_TEST, GL_SCISSOR_TEST, GL_BLEND, GL_DITHER, GL_CULL_FACE}) glDisable(feature);
    glStencilMask(0);
  }

  SurfaceTransform transform() const override {
    const SurfaceBox viewport = currentViewport();
    const auto axis = [](int32_t origin, int32_t pixels, std::optional<float> units) {
      return SurfaceAxis{units ? pixels / static_cast<double>(*units) : 1.0, static_cast<double>(origin)};
    };
    std::optional<float> width;
    std::optional<float> height;
    if (mCoordinates) width = mCoordinates->width, height = mCoordinates->height;
    return {axis(viewport.left, viewport.width(), width), axis(viewport.bottom, viewport.height(), height)};
  }

  void fillBlack(NSSize size) override {
    const auto kept = keepForDrawing();
    setColour(NSColor::blackColor());
    if (!mFill.use()) return;
    setPlace(mFill, {-size.width, -size.height, 2 * size.width, 2 * size.height});
    pictures().quad().draw();
    glUseProgram(0);
  }

  void storeText(uint32_t& texture, int32_t width, int32_t height, const uint8_t* pixels, bool isSameSize) override {
    const auto kept = keepForDrawing();
    const bool isThere = texture != 0;
    if (!isThere) glGenTextures(1, &texture);
    store(texture, width, height, pixels, !isThere || !isSameSize);
  }

  void drawText(uint32_t texture, NSSize /*size*/, const NSRect& place) override {
    const auto kept = keepForDrawing();
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);  // the texture's colours are premultiplied
    draw(mText, texture, place);
    glDisable(GL_BLEND);
  }

  uint32_t storeStatus(int32_t width, int32_t height, const uint8_t* pixels) override {
    const auto kept = keepForDrawing();
    GLuint texture = 0;
    glGenTextures(1, &texture);
    store(texture, width, height, pixels, true);
    return texture;
  }

  void drawStatus(uint32_t texture, NSSize /*size*/, const NSRect& place) override {
    setColour(NSColor::whiteColor());
    {
      const auto kept = keepForDrawing();
      glClearColor(0, 0, 0, 1);
      glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
      draw(mStatus, texture, place);
    }
    glFlush();
  }

  int32_t largestTexture() const override { return features().largestTexture; }

  void release() override {
    mFill.release();
    mText.release();
    mStatus.release();
    DrawingBackend::release();
  }

 private:
  static void store(uint32_t texture, int32_t width, int32_t height, const uint8_t* pixels, bool isNew) {
    glBindTexture(GL_TEXTURE_2D, texture);
    if (!isNew) {
      glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
      return;
    }
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
  }

  void draw(ShaderProgram& program, uint32_t texture, const NSRect& place) {
    if (!program.use()) return;
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture);
    glUniform1i(program.uniform("image"), 0);
    setPlace(program, place);
    pictures().quad().draw();
    glUseProgram(0);
  }

  void setPlace(const ShaderProgram& program, const NSRect& place) const {
    const SurfaceBox viewport = currentViewport();
    const SurfaceTransform toPixels = transform();
    const auto across = [&](float at) {
      return static_cast<GLfloat>(2 * (toPixels.x.pixelOf(at) - viewport.left) / viewport.width() - 1);
    };
    const auto up = [&](float at) {
      return static_cast<GLfloat>(2 * (toPixels.y.pixelOf(at) - viewport.bottom) / viewport.height() - 1);
    };
    glUniform4f(program.uniform("place"), across(place.x), up(place.y), across(place.x + place.width),
                up(place.y + place.height));
    glUniform4f(program.uniform("colour"), mColour.redComponent(), mColour.greenComponent(), mColour.blueComponent(),
                mColour.alphaComponent());
  }

  NSColor mColour = NSColor::whiteColor();
  std::optional<NSSize> mCoordinates;
  ShaderProgram mFill;
  ShaderProgram mText;
  ShaderProgram mStatus;
};

}  // namespace

std::unique_ptr<DrawingBackend> makeShaderBackend(const GLFeatures& features) {
  return std::make_unique<ShaderBackend>(features);
}

}  // namespace vesk
