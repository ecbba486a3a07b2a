#include "platform/writing/h264_picture_geometry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vesk::test {
namespace {

std::vector<uint8_t> bytes(const std::string& hex) {
  std::vector<uint8_t> result;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    result.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return result;
}

struct Row {
  const char* label;
  const char* parameterSet;
  uint32_t width, height;
  uint32_t aspectWidth, aspectHeight;
  bool progressive;
  int primaries;  // -1: not said
};

class H264PictureGeometryTest : public ::testing::TestWithParam<Row> {};

TEST_P(H264PictureGeometryTest, ReadsSizeShapeAndColour) {
  const Row& row = GetParam();
  const auto geometry = readH264PictureGeometry(bytes(row.parameterSet));
  ASSERT_TRUE(geometry);
  EXPECT_EQ(geometry->width, row.width);
  EXPECT_EQ(geometry->height, row.height);
  EXPECT_EQ(geometry->aspectWidth, row.aspectWidth);
  EXPECT_EQ(geometry->aspectHeight, row.aspectHeight);
  EXPECT_EQ(geometry->progressive, row.progressive);
  EXPECT_EQ(geometry->colour ? geometry->colour->primaries : -1, row.primaries);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, H264PictureGeometryTest,
    ::testing::Values(
        Row{"baseline, cropped", "67420034f300f0044fca80", 1920, 1080, 1, 1, true, -1},
        Row{"camera", "6742c01edb0280f684000003000400000300f23c58bb80", 640, 480, 1, 1, true, -1},
        Row{"high, cropped, BT.709", "67640028acd940780227e5ffc000c0011a808080a000000300200000030041e30632c0", 1920,
            1080, 3, 4, true, 1},
        Row{"interlaced, wide pixels", "67640016acd940b424dff800800078800000030080000003010f8a14cb", 720, 576, 16, 15,
            false, -1},
        Row{"odd size, own pixel shape", "67640016acd940a02fea6ffc0b300ef44000000300400000030083c58b6580", 638, 358,
            716, 957, true, -1},
        Row{"4:4:4, scaling lists", "67f4000a919b2884d87080000003008000000301078912cb", 64, 64, 4, 3, true, -1}),
    [](const auto& row) { return std::to_string(row.index); });

TEST(H264PictureGeometry, RefusesWhatIsCutShort) {
  const auto whole = bytes("67420034f300f0044fca80");
  for (size_t size = 0; size + 2 < whole.size(); ++size) {
    EXPECT_FALSE(readH264PictureGeometry(std::span(whole).first(size))) << size;
  }
}

TEST(H264PictureGeometry, FindsTheParameterSetOfAConfiguration) {
  const auto record = bytes("0142c01effe1000367420a01000168");
  const auto found = firstH264SequenceParameterSet(record);
  ASSERT_TRUE(found);
  EXPECT_EQ(std::vector<uint8_t>(found->begin(), found->end()), bytes("67420a"));
  EXPECT_FALSE(firstH264SequenceParameterSet(std::span(record).first(9)));
  EXPECT_FALSE(firstH264SequenceParameterSet(bytes("0142c01effe0")));
}

}  // namespace
}  // namespace vesk::test
