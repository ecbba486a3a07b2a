// Footage as no camera sends it: parameter sets or sizes that change on the way.

#include <gtest/gtest.h>

#include <algorithm>

#include "capture/files/jpeg_size.h"
#include "tests/unit/capture/file_source_support.h"

namespace vesk::capture::test {
namespace {

TEST(FootageChanges, StreamsThatKeepToOneSetOfEachKindStandAsTheyAre) {
  constexpr uint32_t kAVC = kCMVideoCodecType_H264;
  constexpr uint32_t kPacked = kCMPixelFormat_422YpCbCr8;
  const struct {
    const char* label;
    std::vector<const char*> parts;
    std::vector<uint32_t> codecs;
    size_t pictures;
  } rows[] = {
      {"the same sets again", {"MIDR_MW_D.264", "MIDR_MW_D.264"}, {kAVC, kPacked}, 200},
      {"sets of other numbers", {"MIDR_MW_D.264", "test_qcif_cabac.264"}, {kPacked}, 130},
      {"other content of the same numbers", {"MIDR_MW_D.264", "SVA_Base_B.264"}, {kPacked}, 117},
      {"another size", {"MIDR_MW_D.264", "street-640x480-slices.h264"}, {kPacked}, 190},
  };
  const TemporaryFolder folder;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::string content;
    for (const char* part : row.parts) content += contentOf(dataPath(part));
    const auto footage = footageAt(folder.write("joined.264", content));
    ASSERT_TRUE(footage && footage->video);
    EXPECT_EQ(footage->video->codecs(), row.codecs);
    EXPECT_EQ(footage->video->width, 176) << "the first picture's";
    EXPECT_EQ(footage->video->height, 144);
    const auto reader = videoReader(*footage, row.codecs.front());
    EXPECT_EQ(unitsFrom(*reader).size(), row.pictures);
    EXPECT_EQ(reader->damage(), "");
  }
}

TEST(FootageChanges, PicturesOfAnotherSizeAreScaledToFit) {
  const TemporaryFolder folder;
  const auto footage = footageAt(folder.write(
      "joined.264", contentOf(dataPath("MIDR_MW_D.264")) + contentOf(dataPath("street-640x480-slices.h264"))));
  const auto units = unitsFrom(*videoReader(*footage, kCMPixelFormat_422YpCbCr8));
  ASSERT_EQ(units.size(), 190u);
  const auto row = [&](size_t number) {
    const auto begin = units.back().bytes.begin() + static_cast<ptrdiff_t>(number * 352);
    return Bytes(begin, begin + 352);
  };
  Bytes black;
  while (black.size() < 352) black.insert(black.end(), {0x80, 0x10});
  for (const size_t number : {0, 5, 138, 143}) EXPECT_EQ(row(number), black) << number;  // 176x132 of 176x144
  for (const size_t number : {6, 72, 137}) EXPECT_NE(row(number), black) << number;
  // What fills the width reaches both edges.
  EXPECT_NE(row(72)[1], 0x10);
  EXPECT_NE(row(72)[351], 0x10);
}

TEST(FootageChanges, MotionJPEGOfTwoSizesIsOfferedDecoded) {
  const TemporaryFolder folder;
  auto packets = readOriginal(dataPath("street-mjpeg.avi"), AVMEDIA_TYPE_VIDEO).packets;
  ASSERT_EQ(packets.size(), 6u);
  const auto joined = [&] {
    std::string content;
    for (const Bytes& packet : packets) content.append(packet.begin(), packet.end());
    return footageAt(folder.write("joined.mjpeg", content));
  };
  EXPECT_EQ(joined()->video->codecs(),
            (std::vector<uint32_t>{kCMVideoCodecType_MotionJPEG, kCMPixelFormat_422YpCbCr8}));

  // The last picture loses its lower half.
  const Bytes size = bytes("01 E0 02 80");  // 480 rows, 640 columns
  const auto at = std::search(packets[5].begin(), packets[5].end(), size.begin(), size.end());
  ASSERT_NE(at, packets[5].end());
  at[0] = 0;
  at[1] = 240;
  EXPECT_EQ(jpegSize(packets[4]), (JpegSize{640, 480}));
  EXPECT_EQ(jpegSize(packets[5]), (JpegSize{640, 240}));
  for (size_t length = 0; length < static_cast<size_t>(at - packets[5].begin()) + 4; ++length)
    ASSERT_FALSE(jpegSize(std::span(packets[5]).first(length))) << length;
  const auto footage = joined();
  EXPECT_EQ(footage->video->codecs(), (std::vector<uint32_t>{kCMPixelFormat_422YpCbCr8}));
  EXPECT_EQ(unitsFrom(*videoReader(*footage, kCMPixelFormat_422YpCbCr8)).size(), 6u);
}

}  // namespace
}  // namespace vesk::capture::test
