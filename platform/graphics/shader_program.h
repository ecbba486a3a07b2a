#pragma once

#include <epoxy/gl.h>

#include <string>
#include <string_view>

#include "platform/graphics/gl_features.h"

namespace vesk {

/// A program of one source for every version of the shading language, made with its first use.
///
/// The source is written with `IN`, `OUT`, `FRAGMENT` and `TEXTURE` for what the versions name differently;
/// `corner` runs from (0, 0) to (1, 1) over the rectangle that is drawn.
class ShaderProgram {
 public:
  /// `definitions` are lines of the source's own switches.
  ShaderProgram(const GLFeatures& features, std::string_view vertexSource, std::string_view fragmentSource,
                std::string definitions = {});
  ShaderProgram(const ShaderProgram&) = delete;
  ShaderProgram& operator=(const ShaderProgram&) = delete;

  /// Makes it the current program. False when the driver does not take it, which is logged once.
  bool use();
  /// Of the current program.
  GLint uniform(const char* name) const { return glGetUniformLocation(mName, name); }
  void release();

 private:
  GLuint compile(GLenum kind, std::string_view source) const;
  bool build();

  const GLFeatures& mFeatures;
  std::string_view mVertexSource;
  std::string_view mFragmentSource;
  std::string mDefinitions;
  GLuint mName = 0;
  bool mHasFailed = false;
};

/// The corners of a rectangle, for programs to put where they want.
class UnitQuad {
 public:
  explicit UnitQuad(const GLFeatures& features) : mFeatures(features) {}
  UnitQuad(const UnitQuad&) = delete;
  UnitQuad& operator=(const UnitQuad&) = delete;

  void draw();
  void release();

 private:
  const GLFeatures& mFeatures;
  GLuint mBuffer = 0;
  GLuint mVertexArray = 0;
};

}  // namespace vesk
