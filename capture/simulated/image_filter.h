#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {

/// Turns the scene before a simulated camera into what the camera makes of it.
class ImageFilter {
 public:
  ImageFilter(PatternLayout layout, int width, int height);

  /// Fills `image` from `scene`, both of the layout and size of the filter and not the same memory.
  void apply(const ImageSettings& settings, const PlaneMemory& scene, const PlaneMemory& image);

 private:
  void prepare(const ImageSettings& settings);
  void prepareLuma(const ImageSettings& settings);
  void prepareColour(const ImageSettings& settings);
  void preparePlaces(const ImageSettings& settings);
  void colour(uint8_t cb, uint8_t cr, uint8_t& toCb, uint8_t& toCr) const;
  void applyPacked(const PlaneMemory& scene, const PlaneMemory& image) const;
  void applyPlanes(const PlaneMemory& scene, const PlaneMemory& image) const;

  const PatternLayout mLayout;
  const int mWidth;
  const int mHeight;
  ImageSettings mSettings;  // what the tables are for
  bool mIsPrepared = false;
  std::array<uint8_t, 256> mLuma;    // by the scene's luma
  std::array<int, 4> mColourMatrix;  // of colour differences, in 4096ths
  int mWarmth = 0;
  std::vector<int> mColumns;  // where each column and row comes from
  std::vector<int> mRows;
};

}  // namespace vesk::capture
