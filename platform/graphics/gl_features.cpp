#include "platform/graphics/gl_features.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace vesk {
namespace {

GLLimits gLimits;

/// Whether the current context of desktop OpenGL draws with matrices and vertices as 2.1 does.
bool hasFixedFunctions(int version) {
  if (version < 21) return false;
  if (version < 30) return true;
  GLint flags = 0;
  glGetIntegerv(GL_CONTEXT_FLAGS, &flags);
  if (flags & GL_CONTEXT_FLAG_FORWARD_COMPATIBLE_BIT) return false;
  if (version == 31) return epoxy_has_gl_extension("GL_ARB_compatibility");
  GLint profile = 0;
  if (version > 31) glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &profile);
  return !(profile & GL_CONTEXT_CORE_PROFILE_BIT);
}

GLFeatures::Kind kindOf(bool isES, int version) {
  if (isES) return version >= 20 ? GLFeatures::Kind::kShaders : GLFeatures::Kind::kUnfit;
  if (hasFixedFunctions(version)) return GLFeatures::Kind::kFixedFunctions;
  return version >= 31 ? GLFeatures::Kind::kShaders : GLFeatures::Kind::kUnfit;
}

bool isSoftware() {
  const auto* const name = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  const std::string_view renderer = name ? name : "";
  constexpr std::string_view kSoftware[] = {"llvmpipe", "softpipe", "SWR", "Software Rasterizer"};
  return std::any_of(std::begin(kSoftware), std::end(kSoftware),
                     [renderer](std::string_view known) { return renderer.find(known) != std::string_view::npos; });
}

}  // namespace

void limitGL(GLLimits limits) {
  gLimits = limits;
}

GLFeatures featuresOfCurrentContext() {
  GLFeatures features;
  const int version = epoxy_gl_version();
  features.isES = !epoxy_is_desktop_gl();
  features.kind = kindOf(features.isES, version);
  features.version = gLimits.version > 0 ? std::min(version, gLimits.version) : version;
  const bool isThree = features.version >= 30;
  const bool isES = features.isES;
  features.hasVertexArrays = isThree;
  features.hasBlit = isThree || (!isES && epoxy_has_gl_extension("GL_ARB_framebuffer_object"));
  features.hasRowLength =
      (!isES || isThree || epoxy_has_gl_extension("GL_EXT_unpack_subimage")) && !gLimits.hasNoRowLength;
  features.hasRedTextures = isThree;
  features.hasSamplers = features.version >= (isES ? 30 : 33);
  features.hasPixelBuffers = !isES || isThree;
  features.hasDiscard = isThree;
  features.hasBGRA = (!isES || epoxy_has_gl_extension("GL_EXT_texture_format_BGRA8888")) && !gLimits.hasNoBGRA;
  features.isSoftware = isSoftware() && !gLimits.isHardware;
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &features.largestTexture);
  return features;
}

}  // namespace vesk
