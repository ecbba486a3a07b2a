#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {

/// Turns the scene before a simulated camera into what the camera makes of it.
class LookFilter {
 public:
  LookFilter(PictureLayout layout, int width, int height);

  /// Fills `picture` from `scene`, both of the layout and size of the filter and not the same memory.
  void apply(const PictureLook& look, const PlaneMemory& scene, const PlaneMemory& picture);

 private:
  void prepare(const PictureLook& look);
  void prepareLuma(const PictureLook& look);
  void prepareColour(const PictureLook& look);
  void preparePlaces(const PictureLook& look);
  void colour(uint8_t cb, uint8_t cr, uint8_t& toCb, uint8_t& toCr) const;
  void applyPacked(const PlaneMemory& scene, const PlaneMemory& picture) const;
  void applyPlanes(const PlaneMemory& scene, const PlaneMemory& picture) const;

  const PictureLayout mLayout;
  const int mWidth;
  const int mHeight;
  PictureLook mLook;  // what the tables are for
  bool mIsPrepared = false;
  std::array<uint8_t, 256> mLuma;    // by the scene's luma
  std::array<int, 4> mColourMatrix;  // of colour differences, in 4096ths
  int mWarmth = 0;
  std::vector<int> mColumns;  // where each column and row comes from
  std::vector<int> mRows;
};

}  // namespace vesk::capture
