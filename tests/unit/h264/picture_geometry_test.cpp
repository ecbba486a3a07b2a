#include "platform/h264/picture_geometry.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace vesk::h264 {
namespace {

using test::bytes;

TEST(PictureGeometry, IsReadFromASequenceParameterSetThatIsWhole) {
  const struct {
    const char* label;
    const char* parameterSet;
    uint32_t width, height;
    uint32_t aspectWidth, aspectHeight;
    bool progressive;
    int primaries;  // -1: not said
  } rows[] = {{"baseline, cropped", "67420034f300f0044fca80", 1920, 1080, 1, 1, true, -1},
              {"camera", "6742c01edb0280f684000003000400000300f23c58bb80", 640, 480, 1, 1, true, -1},
              {"high, cropped, BT.709", "67640028acd940780227e5ffc000c0011a808080a000000300200000030041e30632c0", 1920,
               1080, 3, 4, true, 1},
              {"interlaced, wide pixels", "67640016acd940b424dff800800078800000030080000003010f8a14cb", 720, 576, 16,
               15, false, -1},
              {"odd size, own pixel shape", "67640016acd940a02fea6ffc0b300ef44000000300400000030083c58b6580", 638, 358,
               716, 957, true, -1},
              {"4:4:4, scaling lists", "67f4000a919b2884d87080000003008000000301078912cb", 64, 64, 4, 3, true, -1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto whole = bytes(row.parameterSet);
    const auto geometry = readPictureGeometry(whole);
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->width, row.width);
    EXPECT_EQ(geometry->height, row.height);
    EXPECT_EQ(geometry->aspectWidth, row.aspectWidth);
    EXPECT_EQ(geometry->aspectHeight, row.aspectHeight);
    EXPECT_EQ(geometry->progressive, row.progressive);
    EXPECT_EQ(geometry->colour ? geometry->colour->primaries : -1, row.primaries);
    for (size_t size = 0; size < 9; ++size) EXPECT_FALSE(readPictureGeometry(std::span(whole).first(size))) << size;
  }
}

}  // namespace
}  // namespace vesk::h264
