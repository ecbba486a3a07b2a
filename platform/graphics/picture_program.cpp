#include "platform/graphics/picture_program.h"

namespace vesk {
namespace {

/// `place` are the edges of what is drawn: left, bottom, right and top, from -1 to 1 over the viewport.
constexpr const char* kVertexSource = R"(
IN vec2 corner;
uniform vec4 place;
void main() {
  gl_Position = vec4(mix(place.xy, place.zw, corner), 0.0, 1.0);
}
)";

/// Where a pixel of the surface lies in the picture follows from its own coordinates: `toPicture` has an offset
/// and a factor for each axis. Coordinates in the picture are pixels of it, y downwards.
///
/// Scaled down, a pixel is the mean of `taps` samples spread over it; each is interpolated by the textures'
/// filter. `isExact` is 1 for an unscaled picture, whose textures have no filter: then each pixel takes the very
/// samples that belong to it. YCbCr becomes RGB in the whole numbers that libyuv calculates with, so both have
/// the same colours: 64 times the levels, made of 65536 times the luma and 64 times the chroma weights.
constexpr const char* kFragmentSource = R"(
#ifdef TWO_OF_ALPHA
#define SECOND a
#else
#define SECOND g
#endif
// The oldest OpenGL ES knows only loops that are bounded by constants; others would unroll those.
#if __VERSION__ == 100
#define ROWS MOST_TAPS
#define COLUMNS MOST_TAPS
#else
#define ROWS int(taps.y)
#define COLUMNS int(taps.x)
#endif
uniform sampler2D first;
uniform sampler2D second;
uniform sampler2D third;
uniform vec4 toPicture;
uniform vec2 pictureSize;
uniform vec2 taps;
uniform float isExact;
uniform vec2 firstTexels;
uniform vec2 chromaTexels;
uniform vec2 chromaSize;
uniform vec2 chromaStep;
uniform float lastCr;
uniform vec3 lumaWeights;
uniform vec4 chromaWeights;

vec2 inside(vec2 at, vec2 size) {
  return clamp(at, vec2(0.5), size - 0.5);
}

vec4 sampleAt(vec2 at) {
  vec2 pixel = inside(at, pictureSize);
#if defined(RGBA)
  return TEXTURE(first, pixel / firstTexels);
#elif defined(BGRA)
  return TEXTURE(first, pixel / firstTexels).bgra;
#elif defined(GRAY)
  return vec4(TEXTURE(first, pixel / firstTexels).r, 128.0 / 255.0, 128.0 / 255.0, 1.0);
#elif defined(PLANAR)
  vec2 chroma = inside(at / chromaStep, chromaSize) / chromaTexels;
  return vec4(TEXTURE(first, pixel / firstTexels).r, TEXTURE(second, chroma).r, TEXTURE(third, chroma).r, 1.0);
#elif defined(BIPLANAR)
  vec4 chroma = TEXTURE(second, inside(at / chromaStep, chromaSize) / chromaTexels);
  return vec4(TEXTURE(first, pixel / firstTexels).r, chroma.r, chroma.SECOND, 1.0);
#else
  // Two bytes a texel: Y beside Cb and Cr in turn, which must not be mixed across.
  float middle = at.x / 2.0 - 0.5;
  vec2 columns = clamp(vec2(floor(middle), floor(middle) + 1.0), 0.0, chromaSize.x - 1.0);
  float right = middle - floor(middle);
  right = mix(right, step(0.5, right), isExact);
  vec2 cb = (2.0 * columns + 0.5) / firstTexels.x;
  vec2 cr = (min(2.0 * columns + 1.0, lastCr) + 0.5) / firstTexels.x;
  float row = pixel.y / firstTexels.y;
  return vec4(TEXTURE(first, pixel / firstTexels).SECOND,
              mix(TEXTURE(first, vec2(cb.x, row)).r, TEXTURE(first, vec2(cb.y, row)).r, right),
              mix(TEXTURE(first, vec2(cr.x, row)).r, TEXTURE(first, vec2(cr.y, row)).r, right), 1.0);
#endif
}

vec4 colourOf(vec4 value) {
#if defined(RGBA) || defined(BGRA)
  return value;
#else
  vec3 levels = value.xyz * 255.0;
  levels = mix(levels, floor(levels + 0.5), isExact);
  float fraction = levels.x * lumaWeights.y / 65536.0;
  float luma = levels.x * lumaWeights.x + mix(fraction, floor(fraction), isExact) + lumaWeights.z;
  vec2 chroma = levels.yz - 128.0;
  vec3 colour = vec3(luma + chromaWeights.w * chroma.y,
                     luma - (chromaWeights.y * chroma.x + chromaWeights.z * chroma.y),
                     luma + chromaWeights.x * chroma.x);
  return vec4(clamp(floor(colour / 64.0), 0.0, 255.0) / 255.0, 1.0);
#endif
}

void main() {
  vec2 middle = toPicture.xy + toPicture.zw * gl_FragCoord.xy;
#ifdef MOST_TAPS
  vec4 sum = vec4(0.0);
  for (int y = 0; y < ROWS; ++y) {
    if (float(y) >= taps.y) break;
    for (int x = 0; x < COLUMNS; ++x) {
      if (float(x) >= taps.x) break;
      sum += sampleAt(middle + toPicture.zw * ((vec2(float(x), float(y)) + 0.5) / taps - 0.5));
    }
  }
  FRAGMENT = colourOf(sum / (taps.x * taps.y));
#else
  FRAGMENT = colourOf(sampleAt(middle));
#endif
}
)";

constexpr const char* kNames[kTextureLayouts] = {"RGBA", "BGRA", "GRAY", "PLANAR", "BIPLANAR", "PACKED"};

}  // namespace

PicturePrograms::PicturePrograms(const GLFeatures& features) : mFeatures(features), mQuad(features) {}

ShaderProgram& PicturePrograms::programFor(TextureLayout layout, bool isMuchSmaller) {
  const auto index = static_cast<size_t>(layout);
  auto& program = mPrograms.at(index + (isMuchSmaller ? kTextureLayouts : 0));
  if (!program) {
    std::string definitions = std::string("#define ") + kNames[index] + "\n";
    if (isMuchSmaller) definitions += "#define MOST_TAPS " + std::to_string(kMostTaps) + "\n";
    if (!mFeatures.hasRedTextures) definitions += "#define TWO_OF_ALPHA\n";
    program = std::make_unique<ShaderProgram>(mFeatures, kVertexSource, kFragmentSource, std::move(definitions));
  }
  return *program;
}

void PicturePrograms::release() {
  for (auto& program : mPrograms) {
    if (program) program->release();
    program.reset();
  }
  mQuad.release();
}

}  // namespace vesk
