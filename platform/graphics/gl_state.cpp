#include "platform/graphics/gl_state.h"

namespace vesk {
namespace {

/// Which contexts know a capability.
enum class In : uint8_t { kAll, kDesktop, kDesktopThree, kDiscarding, kFixed };

struct Switch {
  GLenum capability;
  In in;
};

/// What can be on or off, and matters to a drawing.
constexpr std::array<Switch, 29> kSwitches{{
    {GL_BLEND, In::kAll},
    {GL_CULL_FACE, In::kAll},
    {GL_DEPTH_TEST, In::kAll},
    {GL_DITHER, In::kAll},
    {GL_SCISSOR_TEST, In::kAll},
    {GL_STENCIL_TEST, In::kAll},
    {GL_SAMPLE_ALPHA_TO_COVERAGE, In::kAll},
    {GL_SAMPLE_COVERAGE, In::kAll},
    {GL_RASTERIZER_DISCARD, In::kDiscarding},
    {GL_COLOR_LOGIC_OP, In::kDesktop},
    {GL_FRAMEBUFFER_SRGB, In::kDesktopThree},
    {GL_ALPHA_TEST, In::kFixed},
    {GL_LIGHTING, In::kFixed},
    {GL_FOG, In::kFixed},
    {GL_COLOR_SUM, In::kFixed},
    {GL_POLYGON_STIPPLE, In::kFixed},
    {GL_CLIP_DISTANCE0 + 0, In::kDesktop},
    {GL_CLIP_DISTANCE0 + 1, In::kDesktop},
    {GL_CLIP_DISTANCE0 + 2, In::kDesktop},
    {GL_CLIP_DISTANCE0 + 3, In::kDesktop},
    {GL_CLIP_DISTANCE0 + 4, In::kDesktop},
    {GL_CLIP_DISTANCE0 + 5, In::kDesktop},
    {GL_TEXTURE_GEN_S, In::kFixed},
    {GL_TEXTURE_GEN_T, In::kFixed},
    {GL_TEXTURE_1D, In::kFixed},
    {GL_TEXTURE_2D, In::kFixed},
    {GL_TEXTURE_3D, In::kFixed},
    {GL_TEXTURE_CUBE_MAP, In::kFixed},
    {GL_TEXTURE_RECTANGLE, In::kFixed},
}};

constexpr uint32_t kScissor = 1U << 4;
static_assert(kSwitches[4].capability == GL_SCISSOR_TEST);

bool knows(const GLFeatures& features, In in) {
  switch (in) {
    case In::kAll:
      return true;
    case In::kDesktop:
      return !features.isES;
    case In::kDesktopThree:
      return !features.isES && features.version >= 30;
    case In::kDiscarding:
      return features.hasDiscard;
    case In::kFixed:
      return features.hasFixedFunctions();
  }
  return false;
}

uint32_t currentSwitches(const GLFeatures& features) {
  uint32_t on = 0;
  for (size_t i = 0; i < kSwitches.size(); ++i)
    if (knows(features, kSwitches[i].in) && glIsEnabled(kSwitches[i].capability)) on |= 1U << i;
  return on;
}

void setSwitches(const GLFeatures& features, uint32_t on) {
  for (size_t i = 0; i < kSwitches.size(); ++i) {
    if (!knows(features, kSwitches[i].in)) continue;
    if (on & 1U << i)
      glEnable(kSwitches[i].capability);
    else
      glDisable(kSwitches[i].capability);
  }
}

GLint integer(GLenum name) {
  GLint value = 0;
  glGetIntegerv(name, &value);
  return value;
}

GLuint asName(GLint value) {
  return static_cast<GLuint>(value);
}
GLenum asEnum(GLint value) {
  return static_cast<GLenum>(value);
}

/// How pixels are laid out in memory, for uploads and for reading back.
struct PixelStore {
  GLenum name;
  GLint standard;
  bool isOfES2;
};
constexpr std::array<PixelStore, 12> kPixelStore{{
    {GL_UNPACK_ALIGNMENT, 4, true},
    {GL_UNPACK_ROW_LENGTH, 0, false},
    {GL_UNPACK_SKIP_ROWS, 0, false},
    {GL_UNPACK_SKIP_PIXELS, 0, false},
    {GL_PACK_ALIGNMENT, 4, true},
    {GL_PACK_ROW_LENGTH, 0, false},
    {GL_PACK_SKIP_ROWS, 0, false},
    {GL_PACK_SKIP_PIXELS, 0, false},
    // Not in ES.
    {GL_UNPACK_SWAP_BYTES, 0, false},
    {GL_UNPACK_LSB_FIRST, 0, false},
    {GL_PACK_SWAP_BYTES, 0, false},
    {GL_PACK_LSB_FIRST, 0, false},
}};
constexpr size_t kFirstOfDesktop = 8;

/// ES 2 has the row length of uploads from an extension, and the others not at all.
bool knows(const GLFeatures& features, size_t store) {
  if (kPixelStore.at(store).isOfES2) return true;
  if (!features.isES) return true;
  if (store >= kFirstOfDesktop) return false;
  return features.version >= 30 || (store < 4 && features.hasRowLength);
}

}  // namespace

KeptVertices::KeptVertices(const GLFeatures& features)
    : mFeatures(features), mBuffer(integer(GL_ARRAY_BUFFER_BINDING)) {
  if (features.hasVertexArrays) {
    mVertexArray = integer(GL_VERTEX_ARRAY_BINDING);
    return;
  }
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &mIsEnabled);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_SIZE, &mSize);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_TYPE, &mType);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_NORMALIZED, &mIsNormalized);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_STRIDE, &mStride);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_BUFFER_BINDING, &mSource);
  glGetVertexAttribPointerv(0, GL_VERTEX_ATTRIB_ARRAY_POINTER, &mPointer);
}

void KeptVertices::restore() const {
  if (mFeatures.hasVertexArrays) {
    glBindVertexArray(asName(mVertexArray));
  } else {
    glBindBuffer(GL_ARRAY_BUFFER, asName(mSource));
    glVertexAttribPointer(0, mSize, asEnum(mType), static_cast<GLboolean>(mIsNormalized), mStride, mPointer);
    if (mIsEnabled)
      glEnableVertexAttribArray(0);
    else
      glDisableVertexAttribArray(0);
  }
  glBindBuffer(GL_ARRAY_BUFFER, asName(mBuffer));
}

KeptGLState::KeptGLState(const GLFeatures& features)
    : mFeatures(features),
      mSwitches(currentSwitches(features)),
      mProgram(integer(GL_CURRENT_PROGRAM)),
      mActiveTexture(integer(GL_ACTIVE_TEXTURE)),
      mVertices(features) {
  glGetIntegerv(GL_VIEWPORT, mViewport.data());
  glGetIntegerv(GL_SCISSOR_BOX, mScissor.data());
  glGetBooleanv(GL_COLOR_WRITEMASK, mColourMask.data());
  glGetFloatv(GL_COLOR_CLEAR_VALUE, mClearColour.data());
  mStencilMask = {integer(GL_STENCIL_WRITEMASK), integer(GL_STENCIL_BACK_WRITEMASK)};
  if (!features.isES) glGetIntegerv(GL_POLYGON_MODE, mPolygonMode.data());
  mBlending = {integer(GL_BLEND_SRC_RGB),   integer(GL_BLEND_SRC_ALPHA),    integer(GL_BLEND_DST_RGB),
               integer(GL_BLEND_DST_ALPHA), integer(GL_BLEND_EQUATION_RGB), integer(GL_BLEND_EQUATION_ALPHA)};
  mDrawFramebuffer = features.hasBlit || features.isES ? integer(GL_FRAMEBUFFER_BINDING) : 0;
  mReadFramebuffer = features.hasBlit ? integer(GL_READ_FRAMEBUFFER_BINDING) : 0;
  for (uint32_t i = 0; i < kUnits; ++i) {
    glActiveTexture(GL_TEXTURE0 + i);
    mTextures.at(i).texture = integer(GL_TEXTURE_BINDING_2D);
    if (features.hasSamplers) mTextures.at(i).sampler = integer(GL_SAMPLER_BINDING);
  }
  glActiveTexture(asEnum(mActiveTexture));
  keepPixelStore();
  if (features.hasFixedFunctions()) keepFixedFunctions();
  clear();
}

/// What a host may have left is switched off, but for the scissor: a view sets its own, and other drawings heed it.
void KeptGLState::clear() const {
  const uint32_t units = mFeatures.hasFixedFunctions() ? kUnits : 1;  // each has switches of its own there
  for (uint32_t unit = units; unit-- > 0;) {
    glActiveTexture(GL_TEXTURE0 + unit);
    setSwitches(mFeatures, mSwitches & kScissor);
  }
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  glBlendEquation(GL_FUNC_ADD);
  if (!mFeatures.isES) glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
  glUseProgram(0);
  if (mFeatures.hasVertexArrays)
    glBindVertexArray(0);
  else
    glDisableVertexAttribArray(0);
  glBindBuffer(GL_ARRAY_BUFFER, 0);
  if (mFeatures.hasSamplers)
    for (uint32_t i = 0; i < kUnits; ++i) glBindSampler(i, 0);
  for (size_t i = 0; i < kPixelStore.size(); ++i)
    if (knows(mFeatures, i)) glPixelStorei(kPixelStore.at(i).name, kPixelStore.at(i).standard);
  if (mFeatures.hasPixelBuffers) {
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
  }
  if (!mFeatures.hasFixedFunctions()) return;
  glClientActiveTexture(GL_TEXTURE0);
  glMatrixMode(GL_TEXTURE);
  glLoadIdentity();
  glMatrixMode(asEnum(mMatrixMode));
  glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_MODULATE);
}

KeptGLState::~KeptGLState() {
  if (mIsAbandoned) return;
  if (mFeatures.hasFixedFunctions()) restoreFixedFunctions();
  restorePixelStore();
  for (uint32_t i = 0; i < kUnits; ++i) {
    glActiveTexture(GL_TEXTURE0 + i);
    glBindTexture(GL_TEXTURE_2D, asName(mTextures.at(i).texture));
    if (mFeatures.hasSamplers) glBindSampler(i, asName(mTextures.at(i).sampler));
  }
  glActiveTexture(asEnum(mActiveTexture));
  if (mFeatures.hasBlit) {
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, asName(mDrawFramebuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, asName(mReadFramebuffer));
  } else if (mFeatures.isES) {
    glBindFramebuffer(GL_FRAMEBUFFER, asName(mDrawFramebuffer));
  }
  glUseProgram(asName(mProgram));
  mVertices.restore();
  glBlendFuncSeparate(asEnum(mBlending.sourceColour), asEnum(mBlending.targetColour), asEnum(mBlending.sourceAlpha),
                      asEnum(mBlending.targetAlpha));
  glBlendEquationSeparate(asEnum(mBlending.colourEquation), asEnum(mBlending.alphaEquation));
  if (!mFeatures.isES) {
    if (mFeatures.hasFixedFunctions()) {
      glPolygonMode(GL_FRONT, asEnum(mPolygonMode[0]));
      glPolygonMode(GL_BACK, asEnum(mPolygonMode[1]));
    } else {
      glPolygonMode(GL_FRONT_AND_BACK, asEnum(mPolygonMode[0]));
    }
  }
  glStencilMaskSeparate(GL_FRONT, asName(mStencilMask[0]));
  glStencilMaskSeparate(GL_BACK, asName(mStencilMask[1]));
  glClearColor(mClearColour[0], mClearColour[1], mClearColour[2], mClearColour[3]);
  glColorMask(mColourMask[0], mColourMask[1], mColourMask[2], mColourMask[3]);
  glScissor(mScissor[0], mScissor[1], mScissor[2], mScissor[3]);
  glViewport(mViewport[0], mViewport[1], mViewport[2], mViewport[3]);
  setSwitches(mFeatures, mSwitches);
}

void KeptGLState::keepPixelStore() {
  for (size_t i = 0; i < kPixelStore.size(); ++i)
    if (knows(mFeatures, i)) mPixelStore.at(i) = integer(kPixelStore.at(i).name);
  if (!mFeatures.hasPixelBuffers) return;
  mUnpackBuffer = integer(GL_PIXEL_UNPACK_BUFFER_BINDING);
  mPackBuffer = integer(GL_PIXEL_PACK_BUFFER_BINDING);
}

void KeptGLState::restorePixelStore() const {
  for (size_t i = 0; i < kPixelStore.size(); ++i)
    if (knows(mFeatures, i)) glPixelStorei(kPixelStore.at(i).name, mPixelStore.at(i));
  if (!mFeatures.hasPixelBuffers) return;
  glBindBuffer(GL_PIXEL_UNPACK_BUFFER, asName(mUnpackBuffer));
  glBindBuffer(GL_PIXEL_PACK_BUFFER, asName(mPackBuffer));
}

void KeptGLState::keepFixedFunctions() {
  mMatrixMode = integer(GL_MATRIX_MODE);
  glGetFloatv(GL_PROJECTION_MATRIX, mProjection.data());
  glGetFloatv(GL_MODELVIEW_MATRIX, mModelView.data());
  glPushAttrib(GL_ALL_ATTRIB_BITS);
  glPushClientAttrib(GL_CLIENT_ALL_ATTRIB_BITS);
  glActiveTexture(GL_TEXTURE0);
  glGetFloatv(GL_TEXTURE_MATRIX, mTexture.data());
  glGetFloatv(GL_CURRENT_COLOR, mColour.data());
  glGetFloatv(GL_CURRENT_TEXTURE_COORDS, mCoordinates.data());
}

void KeptGLState::restoreFixedFunctions() const {
  glActiveTexture(GL_TEXTURE0);
  glMatrixMode(GL_TEXTURE);
  glLoadMatrixf(mTexture.data());
  glPopClientAttrib();
  glPopAttrib();
  // Mesa does not always bring these back along with the others.
  glTexCoord4fv(mCoordinates.data());
  glColor4fv(mColour.data());
  glMatrixMode(GL_PROJECTION);
  glLoadMatrixf(mProjection.data());
  glMatrixMode(GL_MODELVIEW);
  glLoadMatrixf(mModelView.data());
  glMatrixMode(asEnum(mMatrixMode));
}

OwnGLState OwnGLState::current(const GLFeatures& features) {
  OwnGLState own;
  glGetIntegerv(GL_VIEWPORT, own.viewport.data());
  own.switches = currentSwitches(features);
  own.stencilMask = integer(GL_STENCIL_WRITEMASK);
  if (!features.hasFixedFunctions()) return own;
  glGetFloatv(GL_PROJECTION_MATRIX, own.projection.data());
  glGetFloatv(GL_MODELVIEW_MATRIX, own.modelView.data());
  return own;
}

void OwnGLState::apply(const GLFeatures& features) const {
  glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
  setSwitches(features, switches);
  glStencilMask(asName(stencilMask));
  if (!features.hasFixedFunctions()) return;
  glMatrixMode(GL_PROJECTION);
  glLoadMatrixf(projection.data());
  glMatrixMode(GL_MODELVIEW);
  glLoadMatrixf(modelView.data());
}

}  // namespace vesk
