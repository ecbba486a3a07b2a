#include <epoxy/gl.h>

#include "platform/graphics/drawing_backend.h"

namespace vesk {
namespace {

constexpr GLenum kTransformHint = 0x85B1;  // of an extension that few drivers have

using Matrix = std::array<GLfloat, 16>;

/// What `glVertex` does along an axis, for matrices that neither turn nor shear.
SurfaceAxis axisOf(const Matrix& projection, const Matrix& modelView, size_t i, int32_t origin, int32_t size) {
  const auto p = static_cast<double>(projection.at(i * 5));
  const double half = size / 2.0;
  return {
      p * static_cast<double>(modelView.at(i * 5)) * half,
      (p * static_cast<double>(modelView.at(12 + i)) + static_cast<double>(projection.at(12 + i)) + 1) * half + origin};
}

/// OpenGL 2.1: the state is GL's own.
class FixedFunctionBackend final : public DrawingBackend {
 public:
  explicit FixedFunctionBackend(const GLFeatures& features) : DrawingBackend(features) {}

  void setColour(const NSColor& colour) override {
    glColor4f(colour.redComponent(), colour.greenComponent(), colour.blueComponent(), colour.alphaComponent());
  }

  void prepareView() override {
    for (const GLenum feature : {GL_ALPHA_TEST, GL_DEPTH_TEST, GL_SCISSOR_TEST, GL_BLEND, GL_DITHER, GL_CULL_FACE})
      glDisable(feature);
    glStencilMask(0);
    // A driver without the hint would only note an error.
    if (epoxy_has_gl_extension("GL_APPLE_transform_hint")) glHint(kTransformHint, GL_FASTEST);
  }

  void setCoordinates(NSSize size) override {
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glOrtho(0, static_cast<double>(size.width), 0, static_cast<double>(size.height), -1.0, 1.0);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
  }

  SurfaceTransform transform() const override {
    Matrix projection{};
    Matrix modelView{};
    glGetFloatv(GL_PROJECTION_MATRIX, projection.data());
    glGetFloatv(GL_MODELVIEW_MATRIX, modelView.data());
    const SurfaceBox viewport = currentViewport();
    return {axisOf(projection, modelView, 0, viewport.left, viewport.width()),
            axisOf(projection, modelView, 1, viewport.bottom, viewport.height())};
  }

  void fillBlack(NSSize size) override {
    glColor3f(0, 0, 0);
    glBegin(GL_QUADS);
    glVertex3f(-size.width, -size.height, 0);
    glVertex3f(-size.width, size.height, 0);
    glVertex3f(size.width, size.height, 0);
    glVertex3f(size.width, -size.height, 0);
    glEnd();
  }

  void storeText(uint32_t& texture, int32_t width, int32_t height, const uint8_t* pixels, bool isSameSize) override {
    glPushAttrib(GL_TEXTURE_BIT);
    const bool isThere = texture != 0;
    if (!isThere) glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_RECTANGLE, texture);
    if (isThere && isSameSize) {
      glTexSubImage2D(GL_TEXTURE_RECTANGLE, 0, 0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    } else {
      glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
      glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
      glTexImage2D(GL_TEXTURE_RECTANGLE, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    }
    glPopAttrib();
  }

  void drawText(uint32_t texture, NSSize size, const NSRect& place) override {
    glPushAttrib(GL_ENABLE_BIT | GL_COLOR_BUFFER_BIT | GL_TEXTURE_BIT);
    glDisable(GL_DEPTH_TEST);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);  // the texture's colours are premultiplied
    glEnable(GL_TEXTURE_RECTANGLE);
    glBindTexture(GL_TEXTURE_RECTANGLE, texture);
    glBegin(GL_QUADS);
    glTexCoord2f(0, 0);
    glVertex2f(place.x, place.y);
    glTexCoord2f(0, size.height);
    glVertex2f(place.x, place.y + place.height);
    glTexCoord2f(size.width, size.height);
    glVertex2f(place.x + place.width, place.y + place.height);
    glTexCoord2f(size.width, 0);
    glVertex2f(place.x + place.width, place.y);
    glEnd();
    glPopAttrib();
  }

  uint32_t storeStatus(int32_t width, int32_t height, const uint8_t* pixels) override {
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glEnableClientState(GL_VERTEX_ARRAY);
    glEnableClientState(GL_TEXTURE_COORD_ARRAY);
    glEnable(GL_TEXTURE_RECTANGLE);
    glBindTexture(GL_TEXTURE_RECTANGLE, texture);
    // Drivers here cannot keep reading a buffer of ours as a texture's storage: the pixels are copied
    // once, so texture range and storage hints have nothing to say.
    glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_RECTANGLE, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glTexImage2D(GL_TEXTURE_RECTANGLE, 0, GL_RGBA8, width, height, 0, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, pixels);
    glBindTexture(GL_TEXTURE_RECTANGLE, 0);
    return texture;
  }

  void drawStatus(uint32_t texture, NSSize size, const NSRect& place) override {
    const float right = place.x + place.width;
    const float top = place.y + place.height;
    const GLfloat vertices[] = {place.x, place.y, 0, place.x, top, 0, right, top, 0, right, place.y, 0};
    const GLfloat coordinates[] = {0, 0, 0, size.height, size.width, size.height, size.width, 0};
    glColor4f(1, 1, 1, 1);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glPushMatrix();
    glTexCoordPointer(2, GL_FLOAT, 0, coordinates);
    glBindTexture(GL_TEXTURE_RECTANGLE, texture);
    glVertexPointer(3, GL_FLOAT, 0, vertices);
    glDrawArrays(GL_QUADS, 0, 4);
    glPopMatrix();
    glBindTexture(GL_TEXTURE_RECTANGLE, 0);
    glFlush();
  }

  int32_t largestTexture() const override {
    GLint most = 0;
    glGetIntegerv(GL_MAX_RECTANGLE_TEXTURE_SIZE, &most);
    return most;
  }
};

}  // namespace

std::unique_ptr<DrawingBackend> makeFixedFunctionBackend(const GLFeatures& features) {
  return std::make_unique<FixedFunctionBackend>(features);
}

}  // namespace vesk
