#include <vesk/preview_view.h>

#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "platform/graphics/cairo_handles.h"
#include "platform/graphics/graphics_context.h"
#include "tests/support/log_recorder.h"
#include "tests/support/offscreen_host.h"
#include "tests/support/pictures.h"

namespace vesk {
namespace {

using test::Colour;
using test::colourAt;
using test::isNear;
using test::OffscreenHost;

constexpr Colour kBlack{0, 0, 0};
constexpr Colour kSky{40, 120, 220};
constexpr Colour kGrass{60, 180, 40};
constexpr Colour kBrick{200, 60, 50};
constexpr Colour kSand{230, 210, 150};

/// Four fields, so that a picture on its head or its side is noticed.
CIImageRef fields(int32_t width, int32_t height, uint32_t format = kCVPixelFormat_420Planar) {
  return CIImage::imageWithCVImageBuffer(test::fieldsPicture(width, height, format, {kSky, kGrass, kBrick, kSand}));
}
CIImageRef plain(Colour colour) {
  return CIImage::imageWithCVImageBuffer(test::plainPicture(640, 480, colour));
}

/// Where a picture lies in the view, in pixels from the top left, and the view's colours there.
struct Place {
  int left;
  int top;
  int right;
  int bottom;
};

struct PreviewViewTest : testing::Test {
  explicit PreviewViewTest(NSSize size = {640, 480}) : host(size) {
    view = VeskPreviewView::initWithFrame({0, 0, size.width, size.height});
    view->setWindow(&host);
  }
  ~PreviewViewTest() override {
    if (view) view->setWindow(nullptr);
  }

  void resize(NSSize size) {
    host.resize(size);
    view->setFrame({0, 0, size.width, size.height});
  }

  /// Looks just inside the picture's corners and just outside of its edges (where the view still is).
  void expectPicture(const CGImage& shown, Place place, int margin = 2) {
    const int middle = (place.top + place.bottom) / 2;
    const auto expectNear = [&](int x, int y, Colour colour, const char* what) {
      if (x < 0 || y < 0 || x >= shown.width() || y >= shown.height()) return;
      EXPECT_TRUE(isNear(colourAt(shown, x, y), colour, 3))
          << what << " at " << x << "," << y << ": " << test::textOf(colourAt(shown, x, y));
    };
    const int left = std::max(place.left, 0) + margin;
    const int right = std::min(place.right, shown.width()) - 1 - margin;
    expectNear(left, place.top + margin, kSky, "upper left");
    expectNear(right, place.top + margin, kGrass, "upper right");
    expectNear(left, place.bottom - 1 - margin, kBrick, "lower left");
    expectNear(right, place.bottom - 1 - margin, kSand, "lower right");
    expectNear(place.left - 1, middle, kBlack, "beyond the left edge");
    expectNear(place.right, middle, kBlack, "beyond the right edge");
    expectNear((place.left + place.right) / 2, place.top - 1, kBlack, "above");
    expectNear((place.left + place.right) / 2, place.bottom, kBlack, "below");
  }

  OffscreenHost host;
  std::shared_ptr<VeskPreviewView> view;
};

struct PlacementRow {
  const char* name;
  NSSize view;
  int32_t width;
  int32_t height;
  Place place;  ///< expected
};

std::ostream& operator<<(std::ostream& stream, const PlacementRow& row) {
  return stream << row.name;
}

struct Placement : PreviewViewTest, testing::WithParamInterface<PlacementRow> {};

TEST_P(Placement, IsWhereTheRulesSay) {
  const PlacementRow& row = GetParam();
  resize(row.view);
  for (const uint32_t format : {kCVPixelFormat_420Planar, kCVPixelFormat_32RGBA}) {  // copied, and by texture
    view->refresh(fields(row.width, row.height, format));
    const CGImageRef shown = view->snapshot();
    ASSERT_TRUE(shown);
    expectPicture(*shown, row.place);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Placement,
    testing::Values(PlacementRow{"SmallIsUnscaledInTheMiddle", {640, 480}, 320, 240, {160, 120, 480, 360}},
                    PlacementRow{"LargestUnscaled", {801, 601}, 639, 359, {81, 121, 720, 480}},
                    PlacementRow{"WideEnoughIsScaled", {640, 100}, 640, 200, {160, 0, 480, 100}},
                    PlacementRow{"HighEnoughIsScaled", {640, 480}, 320, 360, {107, 0, 533, 480}},
                    PlacementRow{"NarrowViewCutsBothSides", {400, 300}, 1280, 720, {-67, 0, 467, 300}},
                    PlacementRow{"WideViewHasBars", {800, 300}, 1280, 720, {133, 0, 667, 300}},
                    PlacementRow{"Enlarged", {1400, 720}, 640, 360, {60, 0, 1340, 720}},
                    PlacementRow{"OddSizes", {1001, 333}, 1279, 721, {205, 0, 796, 333}}),
    [](const auto& row) { return row.param.name; });

/// A picture in which every pixel differs from its neighbours.
CIImageRef noise(int32_t width, int32_t height, std::minstd_rand& random) {
  const auto buffer = CVPixelBuffer::create(width, height, kCMPixelFormat_422YpCbCr8);
  std::ranges::generate(buffer->data(), [&random] { return static_cast<uint8_t>(random() >> 8); });
  return CIImage::imageWithCVImageBuffer(buffer);
}

/// The same picture as pixels with alpha, which are drawn by texture on every driver.
CIImageRef textured(const CIImageRef& image) {
  return CIImage::imageWithCGImage(CIContext().createCGImage(image, image->extent()));
}

/// Looks whether each row of `picture` is in the view once, whole pixels from the view's middle: of a
/// picture that is larger than the view the lower left part.
void expectUnscaled(const CGImage& shown, const CGImage& picture) {
  const auto half = [](int32_t difference) { return (difference - (difference & 1)) / 2; };
  const int32_t left = half(shown.width() - picture.width());
  const int32_t bottom = half(shown.height() - picture.height());
  const int32_t first = std::max(left, 0);
  const int32_t end = left + std::min(picture.width(), shown.width());
  int32_t wrong = 0;
  for (int32_t y = std::max(bottom, 0); y < bottom + std::min(picture.height(), shown.height()); ++y) {
    const auto pixel = [](const CGImage& image, int32_t x, int32_t up) {
      return image.pixels().begin() + (static_cast<ptrdiff_t>(image.height() - 1 - up) * image.width() + x) * 4;
    };
    if (first < end &&
        !std::equal(pixel(shown, first, y), pixel(shown, end, y), pixel(picture, first - left, y - bottom)))
      ++wrong;
  }
  EXPECT_EQ(wrong, 0) << "rows";
}

// What every real graphics card shows is what a software renderer shows, at any offset of the picture.
TEST_F(PreviewViewTest, ShowsTheSamePixelsByTextureAndByCopy) {
  std::minstd_rand random(20);
  const auto below = [&random](int most) { return static_cast<int32_t>(random() % static_cast<unsigned>(most)) + 1; };
  for (int trial = 0; trial < 400; ++trial) {
    const NSSize size{static_cast<float>(below(800)), static_cast<float>(below(600))};
    const auto image = noise(below(639), below(359), random);
    resize(size);
    view->refresh(image);
    const CGImageRef copied = view->snapshot();
    view->refresh(textured(image));
    const CGImageRef drawn = view->snapshot();
    ASSERT_TRUE(copied && drawn);
    ASSERT_TRUE(copied->pixels() == drawn->pixels())
        << image->extent().width << " x " << image->extent().height << " in " << size.width << " x " << size.height;
    expectUnscaled(*drawn, *CIContext().createCGImage(image, image->extent()));
  }
}

TEST_F(PreviewViewTest, ScalesToTheSamePlaceByTextureAndByCopy) {
  std::minstd_rand random(7);
  for (int trial = 0; trial < 60; ++trial) {
    const auto side = [&random](int least, int most) {
      return static_cast<int32_t>(random() % (most - least)) + least;
    };
    const NSSize size{static_cast<float>(side(1, 1000)), static_cast<float>(side(40, 700))};
    const auto image = fields(side(640, 1400), side(360, 900));
    resize(size);
    view->refresh(image);
    const CGImageRef copied = view->snapshot();
    view->refresh(textured(image));
    const CGImageRef drawn = view->snapshot();
    ASSERT_TRUE(copied && drawn);
    int differing = 0;
    for (int32_t y = 0; y < drawn->height(); ++y)
      for (int32_t x = 0; x < drawn->width(); ++x)
        differing += isNear(colourAt(*copied, x, y), colourAt(*drawn, x, y), 4) ? 0 : 1;
    // The filters differ where two fields meet: in a cross of a few pixels.
    EXPECT_LE(differing, 6 * (drawn->width() + drawn->height()))
        << image->extent().width << " x " << image->extent().height << " in " << size.width << " x " << size.height;
  }
}

// The part of the image with the region's numbers is shown, so only the lower left of what is larger.
TEST_F(PreviewViewTest, ShowsTheLowerLeftOfASmallPictureInASmallerView) {
  resize({300, 200});
  for (const uint32_t format : {kCVPixelFormat_420Planar, kCVPixelFormat_32RGBA}) {
    view->refresh(fields(400, 300, format));
    const CGImageRef shown = view->snapshot();
    ASSERT_TRUE(shown);
    // The image's (0, 0, 300, 200), put at (-50, -50): it ends at (250, 150), y upwards.
    for (const auto& [x, y, colour] :
         {std::tuple{1, 198, kBrick}, std::tuple{148, 102, kBrick}, std::tuple{152, 198, kSand},
          std::tuple{248, 102, kSand}, std::tuple{2, 97, kSky}, std::tuple{248, 52, kGrass},
          std::tuple{252, 150, kBlack}, std::tuple{2, 47, kBlack}, std::tuple{298, 2, kBlack}})
      EXPECT_TRUE(isNear(colourAt(*shown, x, y), colour, 3))
          << x << "," << y << ": " << test::textOf(colourAt(*shown, x, y));
  }
}

TEST_F(PreviewViewTest, IsOpaqueAroundThePicture) {
  std::vector<uint8_t> pixels(64 * 64 * 4, 0);  // transparent
  for (const CIImageRef& image :
       {CIImageRef(), fields(320, 240), CIImage::imageWithCGImage(CGImage::create(64, 64, pixels))}) {
    view->refresh(image);
    view->setIsRecording(1);
    view->displayIfNeeded();
    view->openGLContext()->makeCurrentContext();
    const auto surface = test::drawnPixels(640, 480);
    int seenThrough = 0;
    for (size_t i = 3; i < surface.size(); i += 4) seenThrough += surface[i] == 0xFF ? 0 : 1;
    EXPECT_EQ(seenThrough, 0);
  }
}

TEST_F(PreviewViewTest, ClearsWithTheColourOfASubclassAndKeepsIt) {
  view->displayIfNeeded();
  glClearColor(0, 0, 1, 0);
  view->refresh(fields(320, 240));
  EXPECT_TRUE(isNear(colourAt(*view->snapshot(), 5, 5), {0, 0, 255}, 0));
  std::array<GLfloat, 4> colour{};
  glGetFloatv(GL_COLOR_CLEAR_VALUE, colour.data());
  EXPECT_EQ(colour, (std::array<GLfloat, 4>{0, 0, 1, 0}));
}

TEST_F(PreviewViewTest, ShowsBlackWithoutAPicture) {
  view->refresh(fields(640, 480));
  ASSERT_TRUE(isNear(colourAt(*view->snapshot(), 10, 10), kSky, 3));
  view->setImage(nullptr);
  EXPECT_TRUE(isNear(colourAt(*view->snapshot(), 10, 10), kBlack, 0));
}

TEST_F(PreviewViewTest, AsksForARedrawOnlyWhenThePictureIsAnother) {
  view->displayIfNeeded();
  const auto image = fields(640, 480);
  const int before = host.redrawRequests;
  view->refresh(image);
  view->refresh(image);
  view->refresh(fields(640, 480));
  EXPECT_EQ(host.redrawRequests, before + 1) << "requests are merged";
  view->displayIfNeeded();
  view->displayIfNeeded();
  EXPECT_EQ(host.presents, 2);
  view->setImage(view->image());
  view->setIsRecording(1);
  EXPECT_FALSE(view->needsDisplay());
}

TEST_F(PreviewViewTest, RedrawsThePartThatWasAskedFor) {
  view->refresh(fields(640, 480));
  view->displayIfNeeded();
  view->setImage(plain(kBrick), {0, 0, 320, 480});
  view->displayIfNeeded();
  view->openGLContext()->makeCurrentContext();
  EXPECT_TRUE(isNear(test::drawnColour(10, 470), kBrick, 3));
  EXPECT_TRUE(isNear(test::drawnColour(630, 470), kGrass, 3)) << "kept from the drawing before";

  host.keeps = false;  // a double-buffered window: everything is drawn
  view->setNeedsDisplayInRect({0, 0, 1, 1});
  view->displayIfNeeded();
  EXPECT_TRUE(isNear(test::drawnColour(630, 470), kBrick, 3));
}

TEST_F(PreviewViewTest, SetsUpOnceAndFollowsItsBounds) {
  struct Watching : VeskPreviewView {
    using VeskPreviewView::VeskPreviewView;
    void viewBoundsDidChange(NSRect bounds) override { changes.push_back(bounds); }
    std::vector<NSRect> changes;
  };
  view->setWindow(nullptr);
  Watching watching({0, 0, 640, 480});
  watching.setWindow(&host);
  watching.snapshot();
  watching.snapshot();
  EXPECT_EQ(host.swapInterval, 1);
  EXPECT_TRUE(host.acceptsMoves);
  EXPECT_EQ(host.updates, 1);
  host.resize({300, 200});
  watching.setFrame({0, 0, 300, 200});
  watching.snapshot();
  EXPECT_EQ(watching.changes, (std::vector<NSRect>{{0, 0, 640, 480}, {0, 0, 300, 200}}));
  watching.setWindow(nullptr);
}

/// How much red there is where the label goes: 120 × 24 from the upper left.
int redPixels(const CGImage& shown) {
  int count = 0;
  for (int y = 6; y < 34; ++y)
    for (int x = 8; x < 140; ++x) {
      const Colour colour = colourAt(shown, x, y);
      if (colour.red > 200 && colour.green < 80 && colour.blue < 80) ++count;
    }
  return count;
}

TEST_F(PreviewViewTest, LabelsARecordingInItsUpperLeftCorner) {
  view->refresh(plain(kSand));
  EXPECT_EQ(redPixels(*view->snapshot()), 0);
  view->setIsRecording(2);
  EXPECT_EQ(redPixels(*view->snapshot()), 0);
  view->setIsRecording(1);
  const int red = redPixels(*view->snapshot());
  EXPECT_GT(red, 300);
  resize({800, 600});
  EXPECT_EQ(redPixels(*view->snapshot()), red);
  view->setIsRecording(0);
  EXPECT_EQ(redPixels(*view->snapshot()), 0);
}

TEST_F(PreviewViewTest, LabelStaysAsItIsWhenPartsAreRedrawn) {
  view->refresh(plain(kSand));
  view->displayIfNeeded();
  view->setIsRecording(1);
  view->setNeedsDisplayInRect({300, 0, 20, 20});  // far from the label, which shows all the same
  view->displayIfNeeded();
  const auto pixels = [&] {
    view->openGLContext()->makeCurrentContext();
    return test::drawnPixels(640, 480);
  };
  const auto first = pixels();
  for (const NSRect part : {NSRect{300, 0, 20, 20}, NSRect{0, 0, 640, 465}, NSRect{40, 450, 30, 30}}) {
    view->setNeedsDisplayInRect(part);
    view->displayIfNeeded();
    EXPECT_TRUE(pixels() == first) << part.x << "," << part.y;
  }
  EXPECT_EQ(view->snapshot()->pixels().size(), first.size());
  EXPECT_TRUE(pixels() == first) << "as in a drawing of the whole view";

  const NSRect label{0, 440, 120, 40};
  for (const auto& [isRecording, part] : {std::pair(0U, label), std::pair(1U, NSRect{300, 0, 20, 20})}) {
    view->setIsRecording(isRecording);
    view->setNeedsDisplayInRect(part);
    view->displayIfNeeded();
  }
  EXPECT_TRUE(pixels() == first) << "again, after it was drawn over while nothing was recorded";
}

TEST_F(PreviewViewTest, HasNoSnapshotWithoutAWholePixel) {
  view->refresh(fields(640, 480));
  for (const NSSize size : {NSSize{0.5F, 480}, NSSize{640, 0.5F}, NSSize{0, 0}}) {
    view->setFrame({0, 0, size.width, size.height});
    EXPECT_EQ(view->snapshot(), nullptr) << size.width << " x " << size.height;
  }
}

TEST_F(PreviewViewTest, LeavesTheSurfaceOfAnotherViewAlone) {
  view->refresh(fields(640, 480));
  const CGImageRef before = view->snapshot();
  const auto other = VeskPreviewView::initWithFrame({0, 0, 640, 480});
  other->refresh(fields(320, 240));
  other->drawRect({0, 0, 640, 480});
  view->openGLContext()->makeCurrentContext();
  EXPECT_TRUE(isNear(test::drawnColour(5, 475), kSky, 3));
}

/// A page of 640 × 480 that views are printed on.
class Page {
 public:
  void print(VeskPreviewView& view, NSRect rect) {
    NSGraphicsContext::setCurrentContext(NSGraphicsContext::graphicsContextWithGraphicsPort(mPort.get(), 480, false));
    view.drawRect(rect);
    NSGraphicsContext::setCurrentContext(nullptr);
    cairo_surface_flush(mSurface.get());
  }
  /// The word of a pixel; 0 where nothing was printed.
  uint32_t at(int x, int y) const {
    const auto* const row = cairo_image_surface_get_data(mSurface.get()) +
                            static_cast<ptrdiff_t>(y) * cairo_image_surface_get_stride(mSurface.get());
    return reinterpret_cast<const uint32_t*>(row)[x];
  }

 private:
  const SurfacePtr mSurface{cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 640, 480)};
  const CairoPtr mPort{cairo_create(mSurface.get())};
};

TEST_F(PreviewViewTest, ShowsAPictureAfterItWasPrintedWithoutAWindow) {
  view->setWindow(nullptr);
  view = VeskPreviewView::initWithFrame({0, 0, 640, 480});
  view->refresh(fields(640, 480));
  Page page;
  page.print(*view, {0, 0, 640, 480});
  EXPECT_NE(page.at(0, 0), 0U) << "printed";
  view->setWindow(&host);
  EXPECT_TRUE(isNear(colourAt(*view->snapshot(), 10, 10), kSky, 3));
}

TEST_F(PreviewViewTest, SaysOnceThatAContextCannotDrawAndPresentsNothing) {
  view->setWindow(nullptr);
  OffscreenHost old({640, 480}, OffscreenHost::Profile::kES1);
  test::LogRecorder log;
  view->setWindow(&old);
  view->setIsRecording(1);
  for (int frame = 0; frame < 3; ++frame) {
    view->refresh(fields(640, 480));
    view->displayIfNeeded();
    view->drawRect({0, 0, 640, 480});
  }
  EXPECT_EQ(view->snapshot(), nullptr);
  old.makeContextCurrent();
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  EXPECT_EQ(old.presents, 0);
  EXPECT_TRUE(view->cannotDraw());
  EXPECT_EQ(log.items().size(), 1U);
  EXPECT_EQ(log.count("OpenGL 2.1"), 1U);
  view->setWindow(nullptr);
  view->setWindow(&host);
  EXPECT_TRUE(view->snapshot());
}

TEST_F(PreviewViewTest, ShowsThePictureWhateverTextureTargetIsLeftOn) {
  view->displayIfNeeded();
  for (const GLenum target : {GL_TEXTURE_RECTANGLE, GL_TEXTURE_3D, GL_TEXTURE_CUBE_MAP}) {
    GLuint name = 0;
    glGenTextures(1, &name);
    glBindTexture(target, name);
    const std::array<uint8_t, 4> green{0, 255, 0, 255};
    if (target == GL_TEXTURE_RECTANGLE)
      glTexImage2D(target, 0, GL_RGBA, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, green.data());
    glEnable(target);
    view->refresh(fields(640, 480, kCVPixelFormat_32RGBA));
    EXPECT_TRUE(isNear(colourAt(*view->snapshot(), 10, 10), kSky, 3)) << target;
    glDisable(target);
    glDeleteTextures(1, &name);
  }
}

TEST_F(PreviewViewTest, GetsNewTexturesInAnotherWindow) {
  view->setIsRecording(1);
  view->refresh(plain(kSand));
  const int red = redPixels(*view->snapshot());
  view->setWindow(nullptr);
  OffscreenHost other({640, 480});
  view->setWindow(&other);
  EXPECT_EQ(redPixels(*view->snapshot()), red);
  view->setWindow(nullptr);
  EXPECT_EQ(view->snapshot(), nullptr);
}

TEST_F(PreviewViewTest, PrintsTheRegionOfThePictureAndNothingElse) {
  Page page;
  const auto colour = [](uint32_t word) {
    return Colour{static_cast<int>(word >> 16 & 0xFF), static_cast<int>(word >> 8 & 0xFF),
                  static_cast<int>(word & 0xFF)};
  };
  view->setIsRecording(1);
  view->refresh(fields(640, 480));
  page.print(*view, {0, 200, 640, 280});
  EXPECT_TRUE(isNear(colour(page.at(3, 3)), kSky, 3));
  EXPECT_TRUE(isNear(colour(page.at(636, 3)), kGrass, 3));
  EXPECT_TRUE(isNear(colour(page.at(3, 276)), kBrick, 3));
  EXPECT_EQ(page.at(3, 284), 0U) << "below the region";
  EXPECT_EQ(host.presents, 0);
}

struct OwnDrawing : VeskPreviewView, CIContextDrawing {
  using VeskPreviewView::VeskPreviewView;
  void drawRectInCIContext(CGRect rect, CIContext& context) override {
    regions.push_back(rect);
    const auto image = CIImage::imageWithCVImageBuffer(test::plainPicture(64, 64, kGrass));
    context.drawImage(image, CGRect{600, 440, 40, 40}, image->extent());
  }
  std::vector<CGRect> regions;
};

TEST_F(PreviewViewTest, LeavesThePictureToASubclassThatDrawsItself) {
  view->setWindow(nullptr);
  OwnDrawing own({0, 0, 640, 480});
  own.setWindow(&host);
  own.refresh(fields(640, 480));
  own.setIsRecording(1);
  const CGImageRef shown = own.snapshot();
  EXPECT_GT(redPixels(*shown), 100);
  EXPECT_TRUE(isNear(colourAt(*shown, 620, 20), kGrass, 3));
  EXPECT_TRUE(isNear(colourAt(*shown, 300, 300), kBlack, 0)) << "its own picture is not drawn";
  own.setNeedsDisplayInRect({10.5F, 20.5F, 30, 700});
  own.displayIfNeeded();

  Page().print(own, {10.5F, 20.5F, 30, 40});
  EXPECT_EQ(own.regions, (std::vector<CGRect>{{0, 0, 640, 480}, {9, 19, 33, 461}, {10, 20, 31, 41}}));
  own.setWindow(nullptr);
}

struct PointerDelegate : VeskPreviewSessionDelegate, VeskPreviewPointerDelegate {
  void audioGainChanged(float /*level*/) override {}
  void mouseDidEnterView() override { ++entered; }
  void mouseDidLeaveView() override { ++left; }
  int entered = 0;
  int left = 0;
};

TEST_F(PreviewViewTest, TellsOfThePointerAndRedrawsOnlyInAPreviewState) {
  PointerDelegate delegate;
  view->setDelegate(&delegate);
  view->displayIfNeeded();
  view->pointerMovedTo({10, 10});
  view->pointerMovedTo({20, 10});
  EXPECT_EQ(delegate.entered, 1);
  view->setFrame({0, 0, 320, 240});  // its area is replaced under the pointer
  view->displayIfNeeded();
  view->pointerMovedTo({20, 20});
  EXPECT_EQ(delegate.entered, 1);
  view->pointerMovedTo({400, 20});
  EXPECT_EQ(delegate.left, 1);
  EXPECT_EQ(host.cursorsSet, 1);
  EXPECT_FALSE(view->needsDisplay());

  view->setPreviewState(-1);
  view->pointerMovedTo({20, 20});
  EXPECT_TRUE(view->needsDisplay());
  view->displayIfNeeded();
  view->pointerLeft();
  EXPECT_TRUE(view->needsDisplay());
  EXPECT_EQ(delegate.left, 2);

  host.isKey = false;
  view->pointerMovedTo({20, 20});
  EXPECT_EQ(delegate.entered, 2) << "silent without the keyboard's focus";
  view->setDelegate(nullptr);
  host.isKey = true;
  view->pointerMovedTo({21, 20});
}

TEST(PreviewView, WorksWithoutAWindow) {
  VeskPreviewView view({0, 0, 100, 100});
  view.awakeFromNib();
  const auto image = CIImage::imageWithCVImageBuffer(test::plainPicture(64, 64, kSky));
  view.refresh(image);
  EXPECT_EQ(view.image(), image);
  view.displayIfNeeded();
  view.setImage(nullptr);
  EXPECT_EQ(view.image(), nullptr);
  EXPECT_EQ(view.trackingAreas().size(), 1U);
  EXPECT_EQ(view.trackingAreas()[0]->options(), 0x223U);

  test::LogRecorder log;
  EXPECT_TRUE(view.acceptsFirstMouse({}));
  EXPECT_TRUE(view.acceptsFirstResponder());
  EXPECT_EQ(log.items(), (std::vector<std::string>{"Accepts First Mouse", "Accepts First Responder"}));
}

}  // namespace
}  // namespace vesk
