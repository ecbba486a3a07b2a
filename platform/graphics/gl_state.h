#pragma once

#include <epoxy/gl.h>

#include <array>
#include <cstdint>

#include "platform/graphics/gl_features.h"

namespace vesk {

/// Where vertices come from: the buffer and the vertex array that are bound or, in a context without vertex
/// arrays, the first attribute. Takes no other state.
class KeptVertices {
 public:
  explicit KeptVertices(const GLFeatures& features);
  /// Leaves what was there at its construction.
  void restore() const;

 private:
  const GLFeatures& mFeatures;
  GLint mBuffer = 0;
  GLint mVertexArray = 0;
  GLint mIsEnabled = 0;
  GLint mSize = 4;
  GLint mType = GL_FLOAT;
  GLint mIsNormalized = 0;
  GLint mStride = 0;
  GLint mSource = 0;  ///< the attribute's own buffer
  void* mPointer = nullptr;
};

/// The host's GL state, kept for the lifetime of this object and restored at its end: all that drawing here
/// may change. At its construction what a host may have left on, and would spoil a drawing, is switched off.
///
/// Textures are kept for the first units only; drawing here uses no others.
class KeptGLState {
 public:
  static constexpr uint32_t kUnits = 3;  ///< texture units that drawing here uses

  explicit KeptGLState(const GLFeatures& features);
  ~KeptGLState();
  KeptGLState(const KeptGLState&) = delete;
  KeptGLState& operator=(const KeptGLState&) = delete;

  /// The context has gone: nothing is restored.
  void abandon() { mIsAbandoned = true; }

 private:
  struct Unit {
    GLint texture = 0;
    GLint sampler = 0;
  };
  struct Blending {
    GLint sourceColour = GL_ONE;
    GLint sourceAlpha = GL_ONE;
    GLint targetColour = GL_ZERO;
    GLint targetAlpha = GL_ZERO;
    GLint colourEquation = GL_FUNC_ADD;
    GLint alphaEquation = GL_FUNC_ADD;
  };
  using Matrix = std::array<GLfloat, 16>;

  void keepFixedFunctions();
  void restoreFixedFunctions() const;
  void keepPixelStore();
  void restorePixelStore() const;
  void clear() const;

  const GLFeatures& mFeatures;
  bool mIsAbandoned = false;
  uint32_t mSwitches = 0;  ///< a bit for each of the capabilities that are looked after
  std::array<GLint, 4> mViewport{};
  std::array<GLint, 4> mScissor{};
  std::array<GLboolean, 4> mColourMask{};
  std::array<GLfloat, 4> mClearColour{};
  std::array<GLint, 2> mStencilMask{};
  std::array<GLint, 2> mPolygonMode{GL_FILL, GL_FILL};
  Blending mBlending;
  GLint mDrawFramebuffer = 0;
  GLint mReadFramebuffer = 0;
  GLint mProgram = 0;
  GLint mActiveTexture = GL_TEXTURE0;
  std::array<Unit, kUnits> mTextures;
  KeptVertices mVertices;
  std::array<GLint, 16> mPixelStore{};
  GLint mUnpackBuffer = 0;
  GLint mPackBuffer = 0;
  GLint mMatrixMode = 0;
  std::array<GLfloat, 4> mColour{};
  std::array<GLfloat, 4> mCoordinates{};
  Matrix mProjection{};
  Matrix mModelView{};
  Matrix mTexture{};
};

/// What a view sets up once and counts on in each of its drawings: viewport, matrices and which features are on.
struct OwnGLState {
  std::array<GLint, 4> viewport{};
  std::array<GLfloat, 16> projection{};
  std::array<GLfloat, 16> modelView{};
  uint32_t switches = 0;
  GLint stencilMask = 0;

  static OwnGLState current(const GLFeatures& features);
  void apply(const GLFeatures& features) const;
};

}  // namespace vesk
