#include <vesk/camera_status_display.h>

#include <epoxy/gl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <vesk/atomic_file.h>
#include <vesk/bitmap_image_rep.h>
#include <vesk/cg_image.h>
#include <vesk/open_gl_context.h>
#include "tests/support/log_recorder.h"
#include "tests/support/offscreen_host.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using Pixel = std::array<uint8_t, 4>;

struct CameraStatusDisplayTest : testing::Test {
  CameraStatusDisplayTest() {
    context->makeCurrentContext();
    glViewport(0, 0, 64, 48);
    glMatrixMode(GL_PROJECTION);
    glOrtho(0, 64, 0, 48, -1, 1);
    glMatrixMode(GL_MODELVIEW);
  }

  /// Writes a PNG; pixels are premultiplied RGBA from the upper left.
  std::string write(int32_t width, int32_t height, const std::vector<Pixel>& pixels) const {
    std::vector<uint8_t> bytes;
    for (const Pixel& pixel : pixels) bytes.insert(bytes.end(), pixel.begin(), pixel.end());
    const auto bitmap = NSBitmapImageRep::initWithCGImage(CGImage::create(width, height, bytes));
    std::string path = folder.file("status.png");
    writeToFileAtomically(path, bitmap->representationUsingType(NSPNGFileType));
    return path;
  }

  static Pixel at(int x, int y) {
    const auto pixel = test::drawnPixels(1, 1, x, y);
    return {pixel[0], pixel[1], pixel[2], pixel[3]};
  }

  test::TemporaryFolder folder;
  test::OffscreenHost host{{64, 48}};
  std::shared_ptr<NSOpenGLContext> context = NSOpenGLContext::initWithWindow(host);
};

TEST_F(CameraStatusDisplayTest, RewritesEveryPixelFromTheBottomUp) {
  struct Row {
    Pixel rgba;
    Pixel buffer;
  };
  const std::vector<Row> rows = {
      {{0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF}},
      {{0, 0, 0, 0xFF}, {0, 0, 0, 0xFF}},
      {{0, 0, 0, 0}, {0, 0, 0, 0xFF}},
      {{0x64, 0x64, 0x64, 0xFF}, {0, 0x64, 0x64, 0xFF}},
      {{1, 2, 0x80, 0xFF}, {0, 0x80, 2, 0xFF}},
      {{1, 2, 0x81, 0xFF}, {0xFF, 0x81, 2, 0xFF}},
  };
  std::vector<Pixel> pixels;
  for (auto row = rows.rbegin(); row != rows.rend(); ++row) pixels.push_back(row->rgba);  // the last row is uppermost
  uint8_t* buffer = nullptr;
  const NSSize size = CameraStatusDisplay::getImage(write(1, static_cast<int32_t>(rows.size()), pixels), &buffer);
  ASSERT_EQ(size, (NSSize{1, static_cast<float>(rows.size())}));
  for (size_t i = 0; i < rows.size(); ++i) {
    Pixel found{};
    std::copy_n(buffer + i * 4, 4, found.begin());
    EXPECT_EQ(found, rows[i].buffer) << i;
  }
  std::free(buffer);
}

TEST_F(CameraStatusDisplayTest, ShowsThePictureUprightInTheMiddleOnBlack) {
  constexpr Pixel kUpper{10, 200, 20, 255};  // shown: red from its green, green from its blue
  constexpr Pixel kLower{10, 30, 220, 255};
  std::vector<Pixel> pixels(20 * 10, kUpper);
  std::fill(pixels.begin() + 100, pixels.end(), kLower);
  const auto display = CameraStatusDisplay::initWithStatusImage(write(20, 10, pixels));
  display->setViewSize({64, 48});
  glClearColor(1, 1, 1, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  display->renderStatus();
  EXPECT_EQ(at(22, 28), (Pixel{200, 20, 0, 255}));
  EXPECT_EQ(at(41, 28), (Pixel{200, 20, 0, 255}));
  EXPECT_EQ(at(22, 19), (Pixel{30, 220, 255, 255}));
  for (const auto& [x, y] : {std::pair{21, 24}, std::pair{42, 24}, std::pair{32, 18}, std::pair{32, 29}})
    EXPECT_EQ(at(x, y), (Pixel{0, 0, 0, 255})) << x << "," << y;

  display->setViewSize({10, 4});  // smaller than the picture: it overhangs on every side
  display->renderStatus();
  EXPECT_EQ(at(0, 0), (Pixel{30, 220, 255, 255}));
  EXPECT_EQ(at(14, 6), (Pixel{200, 20, 0, 255}));
  EXPECT_EQ(at(15, 2), (Pixel{0, 0, 0, 255}));

  display->cleanup();
  glClearColor(1, 1, 1, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  display->renderStatus();
  EXPECT_EQ(at(32, 24), (Pixel{255, 255, 255, 255})) << "nothing is drawn any more";
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(CameraStatusDisplayTest, HasNoPictureWhereThereIsNone) {
  const std::string whole = test::contentOf(write(20, 10, std::vector<Pixel>(200, Pixel{1, 2, 3, 255})));
  const std::string damaged = folder.write("damaged.png", whole.substr(0, whole.size() / 2));
  ASSERT_EQ(mkfifo(folder.file("pipe.png").c_str(), 0600), 0);
  for (const std::string& path :
       {folder.file("missing.png"), folder.write("text.png", "text"), damaged, folder.file("pipe.png")}) {
    test::LogRecorder log;
    const auto display = CameraStatusDisplay::initWithStatusImage(path);
    uint8_t* buffer = nullptr;
    EXPECT_EQ(CameraStatusDisplay::getImage(path, &buffer), NSSize{});
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(log.items().size(), 2U);
    display->renderStatus();
    display->cleanup();
  }
}

TEST_F(CameraStatusDisplayTest, DrawsNothingOfWhatIsLargerThanATexture) {
  GLint most = 0;
  glGetIntegerv(GL_MAX_RECTANGLE_TEXTURE_SIZE, &most);
  const std::string path = write(most + 1, 1, std::vector<Pixel>(static_cast<size_t>(most) + 1, {255, 255, 255, 255}));
  test::LogRecorder log;
  const auto display = CameraStatusDisplay::initWithStatusImage(path);
  EXPECT_EQ(log.items().size(), 1U);
  display->setViewSize({64, 48});
  glClearColor(0, 0, 1, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  display->renderStatus();
  EXPECT_EQ(at(32, 24), (Pixel{0, 0, 255, 255}));
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

}  // namespace
}  // namespace vesk
