#include <vesk/bitmap_image_rep.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ostream>
#include <string>
#include <vector>

#include <vesk/atomic_file.h>
#include "platform/pixels/picture_planes.h"
#include "tests/support/pictures.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using test::Colour;
using test::colourAt;
using test::isNear;
using test::kFields;
using test::TemporaryFolder;

using Matrix = YCbCrColour::Matrix;

struct JPEGRow {
  const char* name;
  uint32_t format;
  YCbCrColour colour;
  int32_t width = 80;
  int32_t height = 48;
};

std::ostream& operator<<(std::ostream& stream, const JPEGRow& row) {
  return stream << row.name;
}

struct JPEG : testing::TestWithParam<JPEGRow> {};

TEST_P(JPEG, IsUprightAtFullSizeInItsColours) {
  const JPEGRow& row = GetParam();
  const auto buffer = test::fieldsPicture(row.width, row.height, row.format, kFields, row.colour);
  const auto bitmap = NSBitmapImageRep::initWithCIImage(CIImage::imageWithCVImageBuffer(buffer));
  const std::vector<uint8_t> bytes = bitmap->representationUsingType(NSJPEGFileType);
  const TemporaryFolder folder;
  ASSERT_TRUE(writeToFileAtomically(folder.file("a.jpeg"), bytes));
  const CGImageRef read = CGImageCreateWithFile(folder.file("a.jpeg"));
  ASSERT_TRUE(read);
  ASSERT_EQ(read->width(), row.width);
  ASSERT_EQ(read->height(), row.height);
  const bool isGray = row.format == kCVPixelFormat_Gray;
  for (size_t field = 0; field < 4; ++field) {
    const int x = field % 2 == 0 ? 3 : row.width - 1;  // the last column and row are not the filling of a block
    const int y = field < 2 ? 3 : row.height - 1;
    Colour expected = kFields.at(field);
    if (isGray) expected = test::rgbOf({test::ycbcrOf(expected, row.colour).y, 128, 128}, row.colour);
    EXPECT_TRUE(isNear(colourAt(*read, x, y), expected, 8))
        << "field " << field << ": " << test::textOf(colourAt(*read, x, y)) << " for " << test::textOf(expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, JPEG,
    testing::Values(JPEGRow{"Direct420", kCVPixelFormat_420Planar, {Matrix::kBT601, true}},
                    JPEGRow{"Direct422", kCVPixelFormat_422Planar, {Matrix::kBT601, true}},
                    JPEGRow{"OddFullRange", kCVPixelFormat_420Planar, {Matrix::kBT601, true}, 83, 51},
                    JPEGRow{"Video420", kCVPixelFormat_420Planar, {}},
                    JPEGRow{"OddVideo420", kCVPixelFormat_420Planar, {}, 83, 51},
                    JPEGRow{"By709", kCVPixelFormat_420Planar, {Matrix::kBT709, false}, 83, 51},
                    JPEGRow{"FullRange709", kCVPixelFormat_422Planar, {Matrix::kBT709, true}},
                    JPEGRow{"Video444", kCVPixelFormat_444Planar, {}, 81, 47},
                    JPEGRow{"BiPlanar", kCVPixelFormat_420BiPlanar, {}, 83, 51},
                    JPEGRow{"Packed422", kCMPixelFormat_422YpCbCr8, {}, 82, 50},
                    JPEGRow{"OddPacked422", kCMPixelFormat_422YpCbCr8, {Matrix::kBT601, true}, 83, 51},
                    JPEGRow{"Gray", kCVPixelFormat_Gray, {}, 83, 51},
                    JPEGRow{"RGBA", kCVPixelFormat_32RGBA, {}, 83, 51}, JPEGRow{"BGRA", kCVPixelFormat_32BGRA, {}}),
    [](const auto& row) { return row.param.name; });

TEST(NSBitmapImageRep, RefusesWhatNoJPEGCanHold) {
  const auto wide =
      NSBitmapImageRep::initWithCIImage(CIImage::imageWithCVImageBuffer(test::plainPicture(65'502, 2, {1, 2, 3})));
  EXPECT_TRUE(wide->representationUsingType(NSJPEGFileType).empty());
  EXPECT_EQ(NSBitmapImageRep::initWithCIImage(nullptr), nullptr);
}

TEST(NSBitmapImageRep, ComesBackFromPNGAsItWas) {
  std::vector<uint8_t> pixels;
  for (uint8_t i = 0; i < 40; ++i) {
    const auto alpha = static_cast<uint8_t>(i % 2 == 0 ? 255 : 200);
    for (const uint8_t part : {uint8_t{100}, static_cast<uint8_t>(i * 4), uint8_t{7}, alpha}) pixels.push_back(part);
  }
  const auto bitmap = NSBitmapImageRep::initWithCGImage(CGImage::create(8, 5, pixels));
  const TemporaryFolder folder;
  ASSERT_TRUE(writeToFileAtomically(folder.file("a.png"), bitmap->representationUsingType(NSPNGFileType)));
  const CGImageRef read = CGImageCreateWithFile(folder.file("a.png"));
  ASSERT_TRUE(read);
  ASSERT_EQ(read->pixels().size(), pixels.size());
  for (size_t i = 0; i < pixels.size(); ++i) EXPECT_NEAR(read->pixels()[i], pixels[i], 1) << i;
}

TEST(CGImage, TellsWhyAFileIsNoPicture) {
  const TemporaryFolder folder;
  Error why;
  EXPECT_EQ(CGImageCreateWithFile(folder.file("missing.png"), &why), nullptr);
  EXPECT_EQ(why.cause, Cause::kNoFile);
  EXPECT_EQ(CGImageCreateWithFile(folder.write("text.png", "no picture at all"), &why), nullptr);
  // A bitmap file whose header promises 60,000 × 60,000 pixels.
  std::string huge("BM\x36\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0\x60\xEA\0\0\x60\xEA\0\0\x01\0\x18\0", 30);
  huge.resize(100, '\0');
  EXPECT_EQ(CGImageCreateWithFile(folder.write("huge.bmp", huge), &why), nullptr);
  EXPECT_TRUE(why.what.ends_with("it is too large")) << why.what;
  EXPECT_EQ(CGImage::create(2, 2, std::vector<uint8_t>(15)), nullptr);
}

TEST(CGImage, RefusesFilesThatWereCutOffOrAreNoPlainFiles) {
  const TemporaryFolder folder;
  const auto bitmap = NSBitmapImageRep::initWithCIImage(
      CIImage::imageWithCVImageBuffer(test::fieldsPicture(97, 61, kCVPixelFormat_32RGBA, kFields)));
  const auto jpeg = bitmap->representationUsingType(NSJPEGFileType);
  const auto png = bitmap->representationUsingType(NSPNGFileType);
  std::string bmp("BM\0\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0\x08\0\0\0\x04\0\0\0\x01\0\x18\0", 30);
  bmp.resize(54, '\0');
  bmp.resize(54 + 8 * 3 * 4, '\x40');
  const std::string files[] = {
      {jpeg.begin(), jpeg.end()}, {png.begin(), png.end()}, bmp, "P6 8 4 255\n" + std::string(size_t{8} * 4 * 3, 'x')};
  Error why;
  for (const std::string& whole : files) {
    EXPECT_TRUE(CGImageCreateWithFile(folder.write("picture", whole), &why)) << why.what;
    for (size_t length = 0; length < whole.size(); length += 1 + whole.size() / 20) {
      why = {};
      EXPECT_FALSE(CGImageCreateWithFile(folder.write("picture", whole.substr(0, length)), &why)) << length;
      EXPECT_TRUE(why);
    }
    EXPECT_FALSE(CGImageCreateWithFile(folder.write("picture", whole.substr(0, whole.size() - 1)), &why));
  }
  // A preview inside of a JPEG has an end of its own.
  std::string preview = files[0].substr(0, 2) + "\xFF\xE1";
  preview += {'\0', '\x08', 'E', 'x', 'i', 'f', '\xFF', '\xD9'};
  preview += files[0].substr(2);
  EXPECT_TRUE(CGImageCreateWithFile(folder.write("picture", preview), &why)) << why.what;
  EXPECT_FALSE(CGImageCreateWithFile(folder.write("picture", preview.substr(0, preview.size() - 60)), &why));
  EXPECT_TRUE(why.what.ends_with("it was cut off")) << why.what;

  ASSERT_EQ(mkfifo(folder.file("pipe.png").c_str(), 0600), 0);
  for (const std::string& path : {folder.file("pipe.png"), folder.path(), std::string("/dev/zero")}) {
    EXPECT_FALSE(CGImageCreateWithFile(path, &why));
    EXPECT_TRUE(why.what.ends_with("it is not a plain file")) << why.what;
  }
}

TEST(WriteToFileAtomically, ReplacesWholeFilesOrLeavesThemAlone) {
  const TemporaryFolder folder;
  const std::string path = folder.write("a", "before");
  const std::vector<uint8_t> bytes(100'000, 'x');
  EXPECT_TRUE(writeToFileAtomically(path, bytes));
  EXPECT_EQ(test::contentOf(path), std::string(bytes.begin(), bytes.end()));
  NSError error;
  EXPECT_FALSE(writeToFileAtomically(folder.file("none/a"), bytes, &error));
  EXPECT_EQ(error.code, ENOENT);
  std::filesystem::create_directory(folder.file("folder"));
  EXPECT_FALSE(writeToFileAtomically(folder.file("folder"), bytes, &error));
  EXPECT_NE(error.description.find("folder"), std::string::npos);
  const auto count = std::distance(std::filesystem::directory_iterator(folder.path()), {});
  EXPECT_EQ(count, 2) << "something was left beside the files";
}

}  // namespace
}  // namespace vesk
