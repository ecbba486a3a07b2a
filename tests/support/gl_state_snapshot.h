#pragma once

#include <epoxy/gl.h>

#include <array>
#include <map>
#include <string>
#include <vector>

namespace vesk::test {

/// What a host can see of its GL state. Compared before and after a drawing.
class GLStateSnapshot {
 public:
  GLStateSnapshot() {
    const bool isES = !epoxy_is_desktop_gl();
    GLint profile = 0;
    if (!isES) glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &profile);
    const bool isFixed = (profile & GL_CONTEXT_COMPATIBILITY_PROFILE_BIT) != 0;
    static constexpr GLenum kIntegers[] = {GL_CURRENT_PROGRAM,
                                           GL_ACTIVE_TEXTURE,
                                           GL_ARRAY_BUFFER_BINDING,
                                           GL_VERTEX_ARRAY_BINDING,
                                           GL_ELEMENT_ARRAY_BUFFER_BINDING,
                                           GL_PIXEL_UNPACK_BUFFER_BINDING,
                                           GL_PIXEL_PACK_BUFFER_BINDING,
                                           GL_DRAW_FRAMEBUFFER_BINDING,
                                           GL_READ_FRAMEBUFFER_BINDING,
                                           GL_RENDERBUFFER_BINDING,
                                           GL_BLEND_SRC_RGB,
                                           GL_BLEND_SRC_ALPHA,
                                           GL_BLEND_DST_RGB,
                                           GL_BLEND_DST_ALPHA,
                                           GL_BLEND_EQUATION_RGB,
                                           GL_BLEND_EQUATION_ALPHA,
                                           GL_DEPTH_FUNC,
                                           GL_DEPTH_WRITEMASK,
                                           GL_STENCIL_WRITEMASK,
                                           GL_STENCIL_BACK_WRITEMASK,
                                           GL_CULL_FACE_MODE,
                                           GL_FRONT_FACE,
                                           GL_UNPACK_ALIGNMENT,
                                           GL_UNPACK_ROW_LENGTH,
                                           GL_UNPACK_SKIP_ROWS,
                                           GL_UNPACK_SKIP_PIXELS,
                                           GL_PACK_ALIGNMENT,
                                           GL_PACK_ROW_LENGTH,
                                           GL_PACK_SKIP_ROWS,
                                           GL_PACK_SKIP_PIXELS,
                                           GL_VIEWPORT,
                                           GL_SCISSOR_BOX,
                                           GL_COLOR_WRITEMASK};
    for (const GLenum name : kIntegers) integers(name);
    floats(GL_COLOR_CLEAR_VALUE);
    for (const GLenum name :
         {GL_BLEND, GL_CULL_FACE, GL_DEPTH_TEST, GL_DITHER, GL_SCISSOR_TEST, GL_STENCIL_TEST,
          GL_SAMPLE_ALPHA_TO_COVERAGE, GL_SAMPLE_COVERAGE, GL_POLYGON_OFFSET_FILL, GL_RASTERIZER_DISCARD})
      add(name, {static_cast<double>(glIsEnabled(name))});
    GLint active = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    for (GLenum unit = 0; unit < 5; ++unit) {
      glActiveTexture(GL_TEXTURE0 + unit);
      GLint texture = 0;
      GLint sampler = 0;
      glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
      glGetIntegerv(GL_SAMPLER_BINDING, &sampler);
      std::vector<double> values{double(texture), double(sampler)};
      if (isFixed) {
        GLint rectangle = 0;
        glGetIntegerv(GL_TEXTURE_BINDING_RECTANGLE, &rectangle);
        values.insert(values.end(), {double(rectangle), double(glIsEnabled(GL_TEXTURE_2D)),
                                     double(glIsEnabled(GL_TEXTURE_RECTANGLE)), double(glIsEnabled(GL_TEXTURE_GEN_S))});
      }
      add(GL_TEXTURE0 + unit, values);
    }
    glActiveTexture(static_cast<GLenum>(active));
    for (const GLenum name :
         {GL_VERTEX_ATTRIB_ARRAY_ENABLED, GL_VERTEX_ATTRIB_ARRAY_SIZE, GL_VERTEX_ATTRIB_ARRAY_TYPE,
          GL_VERTEX_ATTRIB_ARRAY_STRIDE, GL_VERTEX_ATTRIB_ARRAY_NORMALIZED, GL_VERTEX_ATTRIB_ARRAY_BUFFER_BINDING}) {
      GLint value = 0;
      glGetVertexAttribiv(0, name, &value);
      add(name, {double(value)});
    }
    if (!isES) {
      integers(GL_POLYGON_MODE);
      for (const GLenum name : {GL_COLOR_LOGIC_OP, GL_FRAMEBUFFER_SRGB, GL_CLIP_DISTANCE0})
        add(name, {static_cast<double>(glIsEnabled(name))});
    }
    if (!isFixed) return;
    for (const GLenum name : {GL_MATRIX_MODE, GL_ATTRIB_STACK_DEPTH, GL_CLIENT_ATTRIB_STACK_DEPTH,
                              GL_CLIENT_ACTIVE_TEXTURE, GL_MODELVIEW_STACK_DEPTH, GL_PROJECTION_STACK_DEPTH})
      integers(name);
    for (const GLenum name : {GL_CURRENT_COLOR, GL_PROJECTION_MATRIX, GL_MODELVIEW_MATRIX, GL_TEXTURE_MATRIX})
      floats(name);
    for (const GLenum name : {GL_ALPHA_TEST, GL_LIGHTING, GL_FOG, GL_VERTEX_ARRAY, GL_TEXTURE_COORD_ARRAY})
      add(name, {static_cast<double>(glIsEnabled(name))});
    GLint mode = 0;
    glGetTexEnviv(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, &mode);
    add(GL_TEXTURE_ENV_MODE, {double(mode)});
  }

  /// What is another in `other`, by GL's numbers; empty when nothing is.
  std::string differenceTo(const GLStateSnapshot& other) const {
    std::string difference;
    for (const auto& [name, values] : mValues) {
      const auto& others = other.mValues.at(name);
      if (values == others) continue;
      std::array<char, 16> number{};
      std::snprintf(number.data(), number.size(), " 0x%04X:", name);
      difference += number.data();
      for (const double value : values) difference += " " + std::to_string(value);
      difference += " ->";
      for (const double value : others) difference += " " + std::to_string(value);
    }
    return difference;
  }

 private:
  void add(GLenum name, std::vector<double> values) { mValues[name] = std::move(values); }
  // As many as GL has; the others stay 0.
  void integers(GLenum name) {
    std::array<GLint, 16> values{};
    glGetIntegerv(name, values.data());
    add(name, {values.begin(), values.end()});
  }
  void floats(GLenum name) {
    std::array<GLfloat, 16> values{};
    glGetFloatv(name, values.data());
    add(name, {values.begin(), values.end()});
  }

  std::map<GLenum, std::vector<double>> mValues;
};

}  // namespace vesk::test
