#include "platform/graphics/drawing_backend.h"

namespace vesk {

SurfaceBox currentViewport() {
  std::array<GLint, 4> box{};
  glGetIntegerv(GL_VIEWPORT, box.data());
  const auto& [x, y, width, height] = box;
  return {x, y, x + width, y + height};
}

std::unique_ptr<DrawingBackend> DrawingBackend::forCurrentContext() {
  const GLFeatures features = featuresOfCurrentContext();
  switch (features.kind) {
    case GLFeatures::Kind::kFixedFunctions:
      return makeFixedFunctionBackend(features);
    case GLFeatures::Kind::kShaders:
      return makeShaderBackend(features);
    case GLFeatures::Kind::kUnfit:
      return nullptr;
  }
  return nullptr;
}

void DrawingBackend::setOrigin(int32_t x, int32_t y) {
  if (mOwn) {
    mOwn->viewport[0] += x - mOriginX;
    mOwn->viewport[1] += y - mOriginY;
  }
  mOriginX = x;
  mOriginY = y;
}

void DrawingBackend::enter() {
  if (mHost) return;
  mHost.emplace(mFeatures);
  if (mOwn) mOwn->apply(mFeatures);
}

void DrawingBackend::leave() {
  if (!mHost) return;
  mOwn = OwnGLState::current(mFeatures);
  mHost.reset();
}

void DrawingBackend::abandon() {
  if (mHost) mHost->abandon();
  mHost.reset();
}

std::optional<KeptGLState> DrawingBackend::keepForDrawing() const {
  if (mHost) return std::nullopt;
  return std::optional<KeptGLState>(std::in_place, mFeatures);
}

void DrawingBackend::setViewSize(NSSize size) {
  glViewport(mOriginX, mOriginY, static_cast<GLsizei>(size.width), static_cast<GLsizei>(size.height));
  setCoordinates(size);
}

void DrawingBackend::endPicture() {
  glUseProgram(0);
  glDisable(GL_BLEND);
  setColour(NSColor::whiteColor());
}

void DrawingBackend::release() {
  mPictures.release();
}

void DrawingBackend::clearOpaque(const NSRect& box) {
  glScissor(mOriginX + static_cast<GLint>(box.x), mOriginY + static_cast<GLint>(box.y), static_cast<GLsizei>(box.width),
            static_cast<GLsizei>(box.height));
  glEnable(GL_SCISSOR_TEST);
  std::array<GLfloat, 4> colour{};
  glGetFloatv(GL_COLOR_CLEAR_VALUE, colour.data());
  glClearColor(colour[0], colour[1], colour[2], 1);
  glClear(GL_COLOR_BUFFER_BIT);
  glClearColor(colour[0], colour[1], colour[2], colour[3]);
}

}  // namespace vesk
