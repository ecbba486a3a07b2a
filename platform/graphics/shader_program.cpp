#include "platform/graphics/shader_program.h"

#include <array>

#include <vesk/log.h>

namespace vesk {
namespace {

constexpr GLuint kCorner = 0;  // the one attribute

/// What the versions of the language name differently.
std::string headerFor(const GLFeatures& features, GLenum kind) {
  const bool isModern = features.version >= (features.isES ? 30 : 31) && !features.hasFixedFunctions();
  std::string header;
  if (features.isES)
    header = isModern ? "#version 300 es\n" : "#version 100\n";
  else if (isModern)
    header = features.version >= 32 ? "#version 150\n" : "#version 140\n";
  else
    header = "#version 120\n";
  const bool isVertex = kind == GL_VERTEX_SHADER;
  if (features.isES && !isVertex)  // ES 2 leaves it to the driver whether fragments have more than ten bits
    header +=
        "#if defined(GL_FRAGMENT_PRECISION_HIGH) || __VERSION__ >= 300\nprecision highp float;\n"
        "precision highp sampler2D;\n#else\n"
        "precision mediump float;\n#endif\n";
  if (!isModern)
    return header + (isVertex ? "#define IN attribute\n#define OUT varying\n"
                              : "#define IN varying\n#define FRAGMENT gl_FragColor\n#define TEXTURE texture2D\n");
  header += "#define IN in\n";
  return header +
         (isVertex ? "#define OUT out\n" : "#define FRAGMENT fragment\n#define TEXTURE texture\nout vec4 fragment;\n");
}

}  // namespace

ShaderProgram::ShaderProgram(const GLFeatures& features, std::string_view vertexSource, std::string_view fragmentSource,
                             std::string definitions)
    : mFeatures(features),
      mVertexSource(vertexSource),
      mFragmentSource(fragmentSource),
      mDefinitions(std::move(definitions)) {}

bool ShaderProgram::use() {
  if (mName == 0 && !build()) return false;
  glUseProgram(mName);
  return true;
}

bool ShaderProgram::build() {
  if (mHasFailed) return false;
  const GLuint vertex = compile(GL_VERTEX_SHADER, mVertexSource);
  const GLuint fragment = compile(GL_FRAGMENT_SHADER, mFragmentSource);
  mName = glCreateProgram();
  glAttachShader(mName, vertex);
  glAttachShader(mName, fragment);
  glBindAttribLocation(mName, kCorner, "corner");
  glLinkProgram(mName);
  glDeleteShader(vertex);
  glDeleteShader(fragment);
  GLint isLinked = GL_FALSE;
  glGetProgramiv(mName, GL_LINK_STATUS, &isLinked);
  if (isLinked) return true;
  std::array<char, 1024> why{};
  glGetProgramInfoLog(mName, static_cast<GLsizei>(why.size()), nullptr, why.data());
  NSLog(LogLevel::kError,
        std::string("Cannot draw in this window: the graphics driver refuses a shader: ") + why.data());
  glDeleteProgram(mName);
  mName = 0;
  mHasFailed = true;
  return false;
}

/// What is wrong with a shader shows when the program is linked.
GLuint ShaderProgram::compile(GLenum kind, std::string_view source) const {
  const std::string text = headerFor(mFeatures, kind) + mDefinitions + std::string(source);
  const GLuint shader = glCreateShader(kind);
  const char* const string = text.c_str();
  glShaderSource(shader, 1, &string, nullptr);
  glCompileShader(shader);
  return shader;
}

void ShaderProgram::release() {
  if (mName) glDeleteProgram(mName);
  mName = 0;
  mHasFailed = false;
}

void UnitQuad::draw() {
  if (mFeatures.hasVertexArrays) {
    if (mVertexArray == 0) glGenVertexArrays(1, &mVertexArray);
    glBindVertexArray(mVertexArray);
  }
  const bool isNew = mBuffer == 0;
  if (isNew) {
    constexpr std::array<GLfloat, 8> kCorners{0, 0, 1, 0, 0, 1, 1, 1};
    glGenBuffers(1, &mBuffer);
    glBindBuffer(GL_ARRAY_BUFFER, mBuffer);
    glBufferData(GL_ARRAY_BUFFER, sizeof kCorners, kCorners.data(), GL_STATIC_DRAW);
  }
  if (isNew || !mFeatures.hasVertexArrays) {
    glBindBuffer(GL_ARRAY_BUFFER, mBuffer);
    glVertexAttribPointer(kCorner, 2, GL_FLOAT, GL_FALSE, 0, nullptr);
    glEnableVertexAttribArray(kCorner);
  }
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  // Fixed functions that come after take no attribute of ours for a vertex.
  if (mFeatures.hasVertexArrays)
    glBindVertexArray(0);
  else
    glDisableVertexAttribArray(kCorner);
  glBindBuffer(GL_ARRAY_BUFFER, 0);
}

void UnitQuad::release() {
  if (mBuffer) glDeleteBuffers(1, &mBuffer);
  if (mVertexArray) glDeleteVertexArrays(1, &mVertexArray);
  mBuffer = 0;
  mVertexArray = 0;
}

}  // namespace vesk
