#pragma once

#include <cstdint>

namespace vesk {

/// What a GL context offers to the drawing here.
struct GLFeatures {
  enum class Kind {
    kUnfit,
    kFixedFunctions,  ///< OpenGL 2.1, or later with the compatibility profile
    kShaders,         ///< a core profile, or OpenGL ES 2 and later
  };

  Kind kind = Kind::kUnfit;
  bool isES = false;
  int version = 0;  ///< 21 for 2.1
  bool hasVertexArrays = false;
  bool hasBlit = false;          ///< copies between framebuffers
  bool hasRowLength = false;     ///< uploads from rows with gaps
  bool hasRedTextures = false;   ///< one and two colours a texel; else luminance
  bool hasSamplers = false;      ///< sampler objects, which override the filters of textures
  bool hasPixelBuffers = false;  ///< buffers that uploads may come from
  bool hasDiscard = false;       ///< rasterizer discard
  bool hasBGRA = false;          ///< textures whose storage begins with blue
  bool isSoftware = false;       ///< a renderer that samples textures many times slower than libyuv scales
  int32_t largestTexture = 0;    ///< of a side

  bool hasFixedFunctions() const { return kind == Kind::kFixedFunctions; }
};

/// Of the current context.
GLFeatures featuresOfCurrentContext();

/// Less than a context has, for tests and benchmarks: they show what other drivers would.
struct GLLimits {
  int version = 0;          ///< the highest of OpenGL (or of ES); 0 for the context's own
  bool isHardware = false;  ///< take a software renderer for a graphics card
  bool hasNoBGRA = false;
  bool hasNoRowLength = false;
};
void limitGL(GLLimits limits);

}  // namespace vesk
