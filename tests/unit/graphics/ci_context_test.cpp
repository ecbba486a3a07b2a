#include <vesk/ci_context.h>

#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "platform/pixels/picture_planes.h"
#include "tests/support/offscreen_host.h"
#include "tests/support/pictures.h"

namespace vesk {
namespace {

using test::Colour;
using test::colourAt;
using test::isNear;
using test::kFields;
using test::kPictureFormats;
using test::PictureFormat;

/// What a field is to look like: its colour after a way through the layout's own values.
Colour expectedOf(Colour colour, const PictureFormat& row) {
  if (hasAlpha(row.format)) return colour;
  test::YCbCr value = test::ycbcrOf(colour, row.colour);
  if (row.format == kCVPixelFormat_Gray) value = {value.y, 128, 128};
  return test::rgbOf(value, row.colour);
}

/// A context that draws into a surface of 96 × 64 in points.
struct CIContextTest : testing::Test {
  CIContextTest() {
    context->makeCurrentContext();
    ci = CIContext::contextWithCGLContext(context, nullptr);
    glViewport(0, 0, 96, 64);
    glMatrixMode(GL_PROJECTION);
    glOrtho(0, 96, 0, 64, -1, 1);
    glMatrixMode(GL_MODELVIEW);
    glClear(GL_COLOR_BUFFER_BIT);
  }

  /// The surface as drawn so far, the top row first.
  static CGImageRef shown() {
    std::vector<uint8_t> rows;
    for (int y = 64; y-- > 0;) {
      const auto row = test::drawnPixels(96, 1, 0, y);
      rows.insert(rows.end(), row.begin(), row.end());
    }
    return CGImage::create(96, 64, std::move(rows));
  }

  test::OffscreenHost host{{96, 64}};
  std::shared_ptr<NSOpenGLContext> context = NSOpenGLContext::initWithWindow(host);
  std::shared_ptr<CIContext> ci;
};

void expectFields(const CGImage& image, const PictureFormat& row, int left, int top, int width, int height,
                  int tolerance = 2) {
  for (size_t field = 0; field < 4; ++field) {
    const int x = left + (field % 2 == 0 ? 2 : width - 3);
    const int y = top + (field < 2 ? 2 : height - 3);
    const Colour expected = expectedOf(kFields.at(field), row);
    EXPECT_TRUE(isNear(colourAt(image, x, y), expected, tolerance))
        << "field " << field << ": " << test::textOf(colourAt(image, x, y)) << " for " << test::textOf(expected);
  }
}

struct Formats : CIContextTest, testing::WithParamInterface<PictureFormat> {};

TEST_P(Formats, AreDrawnUprightInTheirColours) {
  const PictureFormat& row = GetParam();
  for (const auto& [width, height] : {std::pair{48, 32}, std::pair{47, 31}}) {
    const auto image =
        CIImage::imageWithCVImageBuffer(test::fieldsPicture(width, height, row.format, kFields, row.colour));
    glClear(GL_COLOR_BUFFER_BIT);
    ci->drawImage(image, CGPoint{10, 5}, image->extent());
    expectFields(*shown(), row, 10, 64 - 5 - height, width, height);
    ci->drawImage(image, CGRect{0, 0, 96, 64}, image->extent());
    expectFields(*shown(), row, 0, 0, 96, 64);
    ci->drawImage(image, CGRect{0, 0, 20, 14}, image->extent());
    expectFields(*shown(), row, 0, 50, 20, 14, 4);  // a box filter rounds each sample down
    const CGImageRef bitmap = ci->createCGImage(image, image->extent());
    ASSERT_EQ(bitmap->width(), width);
    expectFields(*bitmap, row, 0, 0, width, height);
  }
}

INSTANTIATE_TEST_SUITE_P(All, Formats, testing::ValuesIn(kPictureFormats),
                         [](const auto& row) { return row.param.name; });

TEST_F(CIContextTest, DrawsOnlyThePartThatIsAskedFor) {
  for (const uint32_t format : {kCVPixelFormat_420Planar, kCVPixelFormat_32BGRA}) {
    const auto image = CIImage::imageWithCVImageBuffer(test::fieldsPicture(40, 40, format, kFields));
    glClear(GL_COLOR_BUFFER_BIT);
    // The source reaches beyond the picture to the lower left: nothing is there.
    ci->drawImage(image, CGPoint{10, 10}, CGRect{-10, -10, 30, 30});
    CGImageRef picture = shown();
    EXPECT_TRUE(isNear(colourAt(*picture, 21, 63 - 21), kFields[2], 2));
    EXPECT_TRUE(isNear(colourAt(*picture, 38, 63 - 38), kFields[2], 2));
    EXPECT_TRUE(isNear(colourAt(*picture, 18, 63 - 21), {}, 0));
    EXPECT_TRUE(isNear(colourAt(*picture, 41, 63 - 21), {}, 0));
    // The right half, twice as large.
    ci->drawImage(image, CGRect{0, 0, 40, 60}, CGRect{20, 0, 20, 40});
    picture = shown();
    EXPECT_TRUE(isNear(colourAt(*picture, 5, 10), kFields[1], 2));
    EXPECT_TRUE(isNear(colourAt(*picture, 38, 55), kFields[3], 2));
  }
}

TEST_F(CIContextTest, HeedsTheScissorAndLeavesGLAsItWas) {
  const auto image = CIImage::imageWithCVImageBuffer(test::fieldsPicture(96, 64, kCVPixelFormat_420Planar, kFields));
  glScissor(20, 10, 7, 5);
  glEnable(GL_SCISSOR_TEST);
  glColor3f(0, 0, 0);
  ci->drawImage(image, CGPoint{0, 0}, image->extent());
  const CGImageRef picture = shown();
  int painted = 0;
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 96; ++x) painted += isNear(colourAt(*picture, x, y), {}, 0) ? 0 : 1;
  EXPECT_EQ(painted, 35);
  EXPECT_FALSE(isNear(colourAt(*picture, 26, 63 - 14), {}, 0));
  std::array<GLfloat, 4> colour{};
  glGetFloatv(GL_CURRENT_COLOR, colour.data());
  EXPECT_EQ(colour, (std::array<GLfloat, 4>{1, 1, 1, 1}));
  EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST));
  EXPECT_FALSE(glIsEnabled(GL_TEXTURE_2D));
  GLint bound = -1;
  glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &bound);
  EXPECT_EQ(bound, 0);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(CIContextTest, ShowsWhatIsBehindTransparentPixels) {
  std::vector<uint8_t> pixels(96 * 64 * 4, 0);
  for (size_t i = 0; i < pixels.size() / 2; i += 4) {  // the upper half: half transparent red
    pixels[i] = 128;
    pixels[i + 3] = 128;
  }
  glClearColor(0, 0, 1, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  const auto image = CIImage::imageWithCGImage(CGImage::create(96, 64, pixels));
  ci->drawImage(image, CGPoint{0, 0}, image->extent());
  EXPECT_TRUE(isNear(colourAt(*shown(), 5, 5), {128, 0, 127}, 2));
  EXPECT_TRUE(isNear(colourAt(*shown(), 5, 60), {0, 0, 255}, 0));
}

TEST_F(CIContextTest, DrawsNothingElsewhere) {
  const auto image = CIImage::imageWithCVImageBuffer(test::plainPicture(96, 64, kFields[0]));
  test::OffscreenHost other({96, 64});
  const auto otherContext = NSOpenGLContext::initWithWindow(other);
  otherContext->makeCurrentContext();
  glClear(GL_COLOR_BUFFER_BIT);
  ci->drawImage(image, CGPoint{0, 0}, image->extent());
  EXPECT_TRUE(isNear(colourAt(*shown(), 5, 5), {}, 0)) << "drawn into a context that is not its own";
  ci.reset();
  EXPECT_EQ(CGLGetCurrentContext(), otherContext) << "its texture goes in its own context";
  NSOpenGLContext::clearCurrentContext();
  CIContext(context).drawImage(image, CGPoint{0, 0}, image->extent());
}

TEST_F(CIContextTest, SurvivesStrangeSizes) {
  const auto thin = CIImage::imageWithCVImageBuffer(test::plainPicture(3000, 1, kFields[1]));
  ci->drawImage(thin, CGRect{-90'000, 0, 180'000, 64}, thin->extent());  // far too large to scale on the CPU
  EXPECT_TRUE(isNear(colourAt(*shown(), 50, 30), expectedOf(kFields[1], kPictureFormats[3]), 2));
  ci->drawImage(thin, CGRect{0, 0, 1e30F, 64}, thin->extent());
  ci->drawImage(thin, CGRect{0, 0, 0.01F, 0.01F}, thin->extent());
  ci->drawImage(thin, CGRect{0, 0, -5, 5}, thin->extent());
  ci->drawImage(nullptr, CGRect{0, 0, 5, 5}, CGRect{0, 0, 5, 5});
  EXPECT_EQ(ci->createCGImage(thin, {0, 0, 1e9F, 1e9F}), nullptr);
  EXPECT_EQ(ci->createCGImage(thin, {}), nullptr);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST(CIContext, CutsBitmapsOutWithRoundedEdgesAndClearSurroundings) {
  const auto image = CIImage::imageWithCVImageBuffer(test::fieldsPicture(40, 41, kCVPixelFormat_420Planar, kFields));
  const CGImageRef part = CIContext().createCGImage(image, {-1.5F, 30.25F, 5, 20});
  ASSERT_EQ(part->width(), 6);    // -2 to 4
  ASSERT_EQ(part->height(), 21);  // 30 to 51
  EXPECT_EQ(part->pixels()[3], 0) << "above the picture";
  EXPECT_TRUE(isNear(colourAt(*part, 2, 10), expectedOf(kFields[0], kPictureFormats[3]), 2));
  EXPECT_EQ(part->pixels()[10 * 24 + 4 + 3], 0) << "left of the picture";
  EXPECT_EQ(part->pixels()[10 * 24 + 8 + 3], 255);
}

/// Rows of an odd width that end after their last pixel's U and Y, as CVPixelBuffer makes them.
TEST(CIContext, CompletesTheLastPixelOfAnOddPackedRow) {
  for (const int32_t width : {1, 5}) {
    const auto buffer = CVPixelBuffer::create(width, 3, kCMPixelFormat_422YpCbCr8);
    const std::array<uint8_t, 4> group{90, 145, 128, 145};
    for (size_t i = 0; i < buffer->dataSize(); ++i) buffer->data()[i] = group.at(i % buffer->bytesPerRow() % 4);
    const auto image = CIImage::imageWithCVImageBuffer(buffer);
    const CGImageRef bitmap = CIContext().createCGImage(image, image->extent());
    for (int32_t x = 0; x < width; ++x)
      EXPECT_TRUE(isNear(colourAt(*bitmap, x, 2), test::rgbOf({145, 90, 128}, {}), 2)) << x << " of " << width;
  }
}

}  // namespace
}  // namespace vesk
