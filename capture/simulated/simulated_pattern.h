#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/pixels/raw_picture.h"

/// The frames of simulated cameras: colour bars with a light bar that moves over them, and in the
/// top left corner the frame's number as two rows of black and white squares, large enough to
/// survive compression. A band of noise at the bottom gives encoders as much to do as a real frame
/// does. On every whole second the frame flashes white, its number staying.

namespace vesk::capture {

/// How the pixels lie.
enum class PatternLayout {
  k420,        ///< three planes, colour halved in both directions; luma 16 to 235, see kFirstHighDefinitionLine
  k422Full,    ///< three planes, colour halved across; luma 0 to 255
  kPacked422,  ///< one plane of Cb Y Cr Y ("2vuy"); luma 16 to 235
};

/// Colours are by BT.601, but by BT.709 in frames for H.264 (k420) of at least this many rows.
constexpr int kFirstHighDefinitionLine = 720;

/// What a camera's controls do to its image. The defaults change nothing.
struct ImageSettings {
  double brightness = 0;  ///< added, of the whole range from black to white
  double contrast = 1;    ///< distance from middle grey
  double gain = 1;        ///< of light: exposure
  double saturation = 1;
  double hueDegrees = 0;  ///< round the colour circle, from blue to red
  double warmth = 0;      ///< from blue to red, of the whole range
  double zoom = 1;        ///< about the middle, 1 at least
  int32_t pan = 0;        ///< arc seconds to the right
  int32_t tilt = 0;       ///< arc seconds up
  bool isMirrored = false;
  bool operator==(const ImageSettings&) const = default;
};

/// How long a flash and its beep last; both begin on a whole second.
constexpr int64_t kFlashMicroseconds = 66'000;
constexpr int64_t kBeepMicroseconds = 100'000;

class ImageFilter;

/// Paints the frames of one size and layout.
class SimulatedPattern {
 public:
  /// `width` and `height` are even, 320 × 64 at least.
  SimulatedPattern(PatternLayout layout, int width, int height);
  ~SimulatedPattern();

  /// The number is stamped on what the camera sees, as it is, whatever the settings.
  void paint(uint32_t counter, bool isFlash, const ImageSettings& settings, const PlaneMemory& frame);

 private:
  struct Colour {
    uint8_t y, cb, cr;
  };
  struct Rectangle {
    int x, y, width, height;
  };

  void paintScene(uint32_t counter, bool isFlash, const PlaneMemory& frame) const;
  void fill(const Rectangle& where, Colour colour, const PlaneMemory& frame) const;
  void paintBackground();
  void makeNoise();
  void paintNoise(uint32_t counter, const PlaneMemory& frame) const;
  void paintCounter(uint32_t counter, const PlaneMemory& frame) const;
  void copyBackground(const PlaneMemory& frame) const;
  Colour adapted(Colour colour) const;
  std::array<std::vector<uint8_t>, 3> makePlanes() const;
  PlaneMemory planesOf(std::array<std::vector<uint8_t>, 3>& bytes) const;
  int planeCount() const { return mLayout == PatternLayout::kPacked422 ? 1 : 3; }
  int rowsOf(int plane) const { return plane > 0 && mLayout == PatternLayout::k420 ? mHeight / 2 : mHeight; }
  size_t bytesAcross(int plane) const;

  const PatternLayout mLayout;
  const int mWidth;
  const int mHeight;
  std::array<std::vector<uint8_t>, 3> mBackground;
  std::vector<uint8_t> mNoise;  // of the first plane; longer than a row
  // Once a frame has needed them:
  std::unique_ptr<ImageFilter> mFilter;
  std::array<std::vector<uint8_t>, 3> mScene;
};

/// Reads the number back from a frame's luma: `luma` is its first luma byte, `step` the distance
/// from one to the next (1 in a plane, 2 in "2vuy", whose first luma byte is the second).
/// @return none when there is no number that can be read.
std::optional<uint32_t> readFrameCounter(const uint8_t* luma, size_t rowBytes, int width, int height, int step = 1);

/// Whether the frame is a flash.
bool readFlash(const uint8_t* luma, size_t rowBytes, int width, int height, int step = 1);

}  // namespace vesk::capture
