#include <gtest/gtest.h>

#include <algorithm>

#include "platform/decompression/huffman_tables.h"
#include "tests/unit/decompression/jpeg_builder.h"
#include "tests/unit/decompression/session_under_test.h"

namespace vesk {
namespace {

using test::Bytes;
using test::decodePlainly;
using test::describe;
using test::JPEGOptions;
using test::makeJPEG;
using test::SessionUnderTest;
using test::stripTables;

constexpr uint32_t kMotionJPEG = kCMVideoCodecType_MotionJPEG;
constexpr YCbCrColour kFullRange601{YCbCrColour::Matrix::kBT601, true};

SessionUnderTest sessionFor(const JPEGOptions& options) {
  return SessionUnderTest(
      describe(kMotionJPEG, static_cast<unsigned>(options.width), static_cast<unsigned>(options.height)));
}

/// The picture as decodePlainly gives it, chroma samples repeated.
Bytes pixelsOf(const CVPixelBuffer& picture, size_t across, size_t down) {
  const size_t planes = picture.planeCount();
  Bytes pixels;
  for (size_t y = 0; y < static_cast<size_t>(picture.height()); ++y)
    for (size_t x = 0; x < static_cast<size_t>(picture.width()); ++x)
      for (size_t i = 0; i < planes; ++i) {
        const PixelPlane& plane = picture.plane(i);
        pixels.push_back(i == 0 ? plane.data[y * plane.bytesPerRow + x]
                                : plane.data[y / down * plane.bytesPerRow + x / across]);
      }
  return pixels;
}

int largestDifference(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) return 256;
  int largest = 0;
  for (size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::abs(a[i] - b[i]));
  return largest;
}

TEST(JPEGDecoding, HandsOnTheSamplesOfEachKindAsTheyAre) {
  const struct {
    const char* label;
    JPEGOptions options;
    uint32_t pixelFormat;
  } rows[] = {
      {"4:2:2", {64, 48, 2, 1}, kCVPixelFormat_422Planar},
      {"4:2:0", {64, 48, 2, 2}, kCVPixelFormat_420Planar},
      {"4:4:4", {64, 48, 1, 1}, kCVPixelFormat_444Planar},
      {"grey", {64, 48, 0, 1}, kCVPixelFormat_Gray},
      {"grey in blocks of four", {61, 43, 0, 2}, kCVPixelFormat_Gray},
      {"odd 4:2:2", {61, 43, 2, 1}, kCVPixelFormat_422Planar},
      {"odd 4:2:0", {61, 43, 2, 2}, kCVPixelFormat_420Planar},
      {"one pixel", {1, 1, 2, 2}, kCVPixelFormat_420Planar},
      {"own tables", {64, 48, 2, 1, true}, kCVPixelFormat_422Planar},
      {"several passes", {64, 48, 2, 2, false, true}, kCVPixelFormat_420Planar},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Bytes jpeg = makeJPEG(row.options);
    auto test = sessionFor(row.options);
    ASSERT_EQ(test.show(jpeg), noErr);
    const auto picture = test.picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width(), row.options.width);
    EXPECT_EQ(picture->height(), row.options.height);
    EXPECT_EQ(picture->pixelFormat(), row.pixelFormat);
    EXPECT_EQ(picture->colour(), kFullRange601);
    const auto across = static_cast<size_t>(row.options.across);
    const auto down = static_cast<size_t>(row.options.down);
    EXPECT_LE(largestDifference(pixelsOf(*picture, across, down), decodePlainly(jpeg)), 1);
  }
}

TEST(JPEGDecoding, TurnsOtherKindsIntoRGBA) {
  for (const JPEGOptions& options :
       {JPEGOptions{32, 16, 4, 1}, JPEGOptions{32, 16, 1, 2}, JPEGOptions{32, 16, 1, 1, false, false, true}}) {
    auto test = sessionFor(options);
    ASSERT_EQ(test.show(makeJPEG(options)), noErr);
    EXPECT_EQ(test.picture()->pixelFormat(), kCVPixelFormat_32RGBA);
  }
  const JPEGOptions red{8, 8, 1, 1, false, false, true};
  auto test = sessionFor(red);
  const Bytes jpeg = makeJPEG(red);
  ASSERT_EQ(test.show(jpeg), noErr);
  const Bytes plain = decodePlainly(jpeg);
  const auto pixels = test.picture()->data();
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ((Bytes{pixels[i * 4], pixels[i * 4 + 1], pixels[i * 4 + 2], pixels[i * 4 + 3]}),
              (Bytes{plain[i * 3], plain[i * 3 + 1], plain[i * 3 + 2], 255}));
}

TEST(JPEGDecoding, FramesWithoutTablesUseThoseOfTheDescription) {
  const JPEGOptions options{64, 48, 2, 1, true};
  const Bytes whole = makeJPEG(options);
  const auto parts = stripTables(whole);
  auto description = describe(kMotionJPEG, 64, 48);
  ASSERT_EQ(AddImageDescriptionExtension(description, parts.tables, fourCharCode("mjht")), noErr);
  SessionUnderTest test(description);
  const Bytes expected = decodePlainly(whole);
  ASSERT_EQ(test.show(parts.frame), noErr);
  EXPECT_EQ(pixelsOf(*test.picture(), 2, 1), expected);
  // A frame with tables of its own changes nothing for the next one without.
  ASSERT_EQ(test.show(makeJPEG({64, 48, 2, 2, true, false, false, 0, 99})), noErr);
  ASSERT_EQ(test.show(parts.frame), noErr);
  EXPECT_EQ(pixelsOf(*test.picture(), 2, 1), expected);
}

TEST(JPEGDecoding, ShowsAPictureOfAnotherSizeAsLongAsItIsPossible) {
  auto test = sessionFor({64, 48, 2, 1});
  ASSERT_EQ(test.show(makeJPEG({160, 120, 2, 1})), noErr);
  EXPECT_EQ(test.picture()->width(), 160);
  Bytes jpeg = makeJPEG({64, 48, 2, 1});
  const Bytes startOfFrame = {0xFF, 0xC0, 0x00, 0x11, 0x08};
  const auto size = std::search(jpeg.begin(), jpeg.end(), startOfFrame.begin(), startOfFrame.end()) + 5;
  for (const Bytes& claimed :
       {Bytes{0xFF, 0xFF, 0xFF, 0xFF}, Bytes{0x40, 0x00, 0x40, 0x00}, Bytes{0, 0, 0, 64}, Bytes{0, 48, 0, 0}}) {
    std::copy(claimed.begin(), claimed.end(), size);
    EXPECT_EQ(test.show(jpeg), codecBadDataErr);
  }
}

TEST(JPEGDecoding, RefusesDamageAndShowsTheNextFrame) {
  const JPEGOptions options{64, 480, 2, 1, false, false, false, 4};
  const Bytes jpeg = makeJPEG(options);
  auto test = sessionFor(options);
  const auto cut = [&jpeg](size_t size) { return std::span(jpeg).first(size); };
  for (size_t size : {size_t{1}, size_t{2}, size_t{3}, size_t{20}, size_t{200}, jpeg.size() / 2, jpeg.size() * 3 / 4})
    EXPECT_EQ(test.show(cut(size)), codecBadDataErr) << size;
  Bytes zeroed = jpeg;
  std::fill(zeroed.begin() + static_cast<ptrdiff_t>(jpeg.size() / 2),
            zeroed.begin() + static_cast<ptrdiff_t>(jpeg.size() / 2 + 400), 0);
  EXPECT_NE(test.show(zeroed), noErr);
  EXPECT_EQ(test.show(Bytes(5000, 0xFF)), codecBadDataErr);
  EXPECT_EQ(std::count_if(test.calls.begin(), test.calls.end(), [](const auto& call) { return call.image != nullptr; }),
            0);
  // Cameras leave out the last marker, or cut off the last rows, or fill up with zeros.
  EXPECT_EQ(test.show(cut(jpeg.size() - 2)), noErr);
  EXPECT_EQ(test.show(cut(jpeg.size() - jpeg.size() / 20)), noErr);
  Bytes padded = jpeg;
  padded.resize(jpeg.size() + 4096);
  EXPECT_EQ(test.show(padded), noErr);
  EXPECT_EQ(test.show(jpeg), noErr);
  EXPECT_EQ(pixelsOf(*test.picture(), 2, 1), decodePlainly(jpeg));
}

TEST(HuffmanTables, AreAllReadOrNone) {
  const Bytes tables = stripTables(makeJPEG({16, 16, 2, 1})).tables;
  ASSERT_EQ(readHuffmanTables(tables).size(), 4U);
  const auto changed = [&tables](size_t offset, uint8_t value) {
    Bytes copy = tables;
    copy[offset] = value;
    return copy;
  };
  EXPECT_TRUE(readHuffmanTables({}).empty());
  EXPECT_TRUE(readHuffmanTables(std::span(tables).first(tables.size() - 1)).empty());
  EXPECT_TRUE(readHuffmanTables(changed(1, 0)).empty()) << "another length";
  EXPECT_TRUE(readHuffmanTables(changed(2, 0x20)).empty()) << "no class";
  EXPECT_TRUE(readHuffmanTables(changed(2, 0x04)).empty()) << "no identifier";
  EXPECT_TRUE(readHuffmanTables(changed(3, 255)).empty()) << "more codes than bytes";
}

}  // namespace
}  // namespace vesk
