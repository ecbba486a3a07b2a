/// Drawing and encoding a picture, each beside the least that libraries take for it, in one run.
///
///   draw_bench [--runs N]                   a table on standard output; no display needed
///   draw_bench --window I420-FILE FRAMES    plays 1080p planes in a 1280 × 720 window, 30 a second
///                                           (compare_drawing.py runs it beside a player)
///
/// Figures are CPU time of the whole process, the renderer's threads included; the best of N runs
/// taken in turn.

#include <libyuv.h>
#include <sys/resource.h>

// GLFW must not bring GL headers of its own.
#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <jpeglib.h>  // after <cstdio>, whose types it takes

#include <vesk/bitmap_image_rep.h>
#include <vesk/preview_view.h>
#include "platform/graphics/gl_features.h"
#include "platform/pixels/picture_planes.h"
#include "tests/support/offscreen_host.h"

namespace {

using namespace vesk;
using Bytes = std::vector<uint8_t>;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kViewWidth = 1280;
constexpr int kViewHeight = 720;

double cpuMilliseconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

double costOf(const std::function<void()>& work, int times) {
  const double before = cpuMilliseconds();
  for (int i = 0; i < times; ++i) work();
  return (cpuMilliseconds() - before) / times;
}

/// A row of the table: both run in turn, after one warm-up.
void compare(const char* what, int runs, int times, const std::function<void()>& ours,
             const std::function<void()>& peer) {
  double best[2] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
  ours();
  peer();
  for (int run = 0; run < runs; ++run) {
    best[0] = std::min(best[0], costOf(ours, times));
    best[1] = std::min(best[1], costOf(peer, times));
  }
  std::printf("| %-64s | %7.3f | %7.3f | %5.2f |\n", what, best[0], best[1], best[0] / best[1]);
  std::fflush(stdout);
}

/// Something like a camera's picture: smooth shades, edges and some noise.
uint8_t sampleAt(int x, int y, uint32_t& random) {
  random = random * 1664525U + 1013904223U;
  const int shade = (x * 3 + y * 5) / 40 % 160 + ((x / 64 + y / 48) % 2 ? 40 : 0);
  return static_cast<uint8_t>(30 + shade + static_cast<int>(random >> 29));
}

struct Planes {
  std::shared_ptr<Bytes> bytes;
  CVPixelBufferRef buffer;
};

Planes makePlanes(int width, int height, bool isFullRange) {
  auto bytes = std::make_shared<Bytes>(static_cast<size_t>(width * height * 3 / 2));
  uint32_t random = 1;
  uint8_t* to = bytes->data();
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) *to++ = sampleAt(x, y, random);
  for (int i = 0; i < width * height / 2; ++i) *to++ = static_cast<uint8_t>(128 + i / 640 % 64 - 32);
  const auto size = static_cast<size_t>(width) * static_cast<size_t>(height);
  const auto row = static_cast<size_t>(width);
  const CVPixelBuffer::Planes planes{PixelPlane{bytes->data(), row}, PixelPlane{bytes->data() + size, row / 2},
                                     PixelPlane{bytes->data() + size * 5 / 4, row / 2}};
  return {bytes, CVPixelBuffer::wrap(width, height, kCVPixelFormat_420Planar, planes,
                                     {YCbCrColour::Matrix::kBT601, isFullRange}, bytes)};
}

/// libyuv scales and converts, GL takes RGBA and draws a rectangle of it: what a careful program does.
class Floor {
 public:
  Floor() : mScaled(kViewWidth * kViewHeight * 3 / 2), mPixels(kViewWidth * kViewHeight * 4) {
    glGenTextures(1, &mTexture);
    glBindTexture(GL_TEXTURE_2D, mTexture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, kViewWidth, kViewHeight, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
  }

  void draw(const CVPixelBuffer& buffer) {
    uint8_t* const y = mScaled.data();
    uint8_t* const u = y + kViewWidth * kViewHeight;
    uint8_t* const v = u + kViewWidth * kViewHeight / 4;
    libyuv::I420Scale(buffer.plane(0).data, kWidth, buffer.plane(1).data, kWidth / 2, buffer.plane(2).data, kWidth / 2,
                      kWidth, kHeight, y, kViewWidth, u, kViewWidth / 2, v, kViewWidth / 2, kViewWidth, kViewHeight,
                      libyuv::kFilterBilinear);
    libyuv::I420ToABGR(y, kViewWidth, u, kViewWidth / 2, v, kViewWidth / 2, mPixels.data(), kViewWidth * 4, kViewWidth,
                       kViewHeight);
    glClear(GL_COLOR_BUFFER_BIT);
    glBindTexture(GL_TEXTURE_2D, mTexture);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kViewWidth, kViewHeight, GL_RGBA, GL_UNSIGNED_BYTE, mPixels.data());
    glEnable(GL_TEXTURE_2D);
    glBegin(GL_QUADS);
    glTexCoord2f(0, 1);
    glVertex2f(0, 0);
    glTexCoord2f(0, 0);
    glVertex2f(0, kViewHeight);
    glTexCoord2f(1, 0);
    glVertex2f(kViewWidth, kViewHeight);
    glTexCoord2f(1, 1);
    glVertex2f(kViewWidth, 0);
    glEnd();
    glDisable(GL_TEXTURE_2D);
    glFlush();
  }

 private:
  Bytes mScaled;
  Bytes mPixels;
  GLuint mTexture = 0;
};

/// Bytes that were handed to textures, counted in the one call that does it.
uint64_t gUploaded = 0;
decltype(epoxy_glTexSubImage2D) gUpload = nullptr;

void GLAPIENTRY countUpload(GLenum target, GLint level, GLint x, GLint y, GLsizei width, GLsizei height, GLenum format,
                            GLenum type, const void* pixels) {
  const bool isOne = format == GL_RED || format == GL_LUMINANCE;
  const bool isTwo = format == GL_RG || format == GL_LUMINANCE_ALPHA;
  gUploaded += uint64_t(width) * uint64_t(height) * (isOne ? 1 : isTwo ? 2 : 4);
  gUpload(target, level, x, y, width, height, format, type, pixels);
}

struct Kind {
  const char* name;
  test::OffscreenHost::Profile profile;
  GLLimits limits;
  bool isWidget = false;
};

constexpr Kind kKinds[] = {
    {"OpenGL with fixed functions", test::OffscreenHost::Profile::kCompatibility, {}},
    {"OpenGL core", test::OffscreenHost::Profile::kCore, {}},
    {"OpenGL core, a widget", test::OffscreenHost::Profile::kCore, {}, true},
    {"OpenGL ES 3, a widget", test::OffscreenHost::Profile::kES3, {.version = 30}, true},
    {"OpenGL ES 3", test::OffscreenHost::Profile::kES3, {.version = 30}},
    {"OpenGL ES 2", test::OffscreenHost::Profile::kES2, {.version = 20}},
    {"a card's way, core", test::OffscreenHost::Profile::kCore, {.isHardware = true}},
};

/// A window, or a widget of a toolkit, which is drawn into a texture of its own.
struct Host : test::OffscreenHost {
  using OffscreenHost::OffscreenHost;
  bool makeContextCurrent() override {
    if (!OffscreenHost::makeContextCurrent()) return false;
    if (!isWidget) return true;
    if (framebuffer == 0) {
      GLuint texture = 0;
      glGenTextures(1, &texture);
      glBindTexture(GL_TEXTURE_2D, texture);
      glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, kViewWidth, kViewHeight, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
      glGenFramebuffers(1, &framebuffer);
      glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
      glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    }
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    return true;
  }
  bool isWidget = false;
  GLuint framebuffer = 0;
};

/// A view in a window of one kind of context.
struct Preview {
  explicit Preview(const Kind& kind) : host({kViewWidth, kViewHeight}, kind.profile) {
    host.isWidget = kind.isWidget;
    limitGL(kind.limits);
    view->setWindow(&host);
    view->display();
  }
  ~Preview() {
    view->setWindow(nullptr);
    limitGL({});
  }
  void draw(const CVPixelBufferRef& buffer) const {
    view->refresh(CIImage::imageWithCVImageBuffer(buffer));
    view->displayIfNeeded();
    view->openGLContext()->makeCurrentContext();
    glFinish();
  }

  Host host;
  std::shared_ptr<VeskPreviewView> view = VeskPreviewView::initWithFrame({0, 0, kViewWidth, kViewHeight});
};

void compareDrawing(int runs) {
  // Two in turn: what is on show already is not uploaded again.
  const std::array<Planes, 2> pictures{makePlanes(kWidth, kHeight, false), makePlanes(kWidth, kHeight, false)};
  test::OffscreenHost host({kViewWidth, kViewHeight});
  const auto context = NSOpenGLContext::initWithWindow(host);
  context->makeCurrentContext();
  glMatrixMode(GL_PROJECTION);
  glOrtho(0, kViewWidth, 0, kViewHeight, -1, 1);
  Floor floor;
  for (const Kind& kind : kKinds) {
    const Preview preview(kind);
    size_t turn = 0;
    compare((std::string("1080p I420 in 720p, ") + kind.name + " / libyuv, RGBA, quad").c_str(), runs, 30,
            [&] { preview.draw(pictures[++turn % 2].buffer); },
            [&] {
              context->makeCurrentContext();
              floor.draw(*pictures[0].buffer);
              glFinish();
            });
  }
}

/// What goes to a card for a picture, beside the pixels that it had to be made into.
void printUploads() {
  const Preview preview(std::end(kKinds)[-1]);
  const Planes planar = makePlanes(kWidth, kHeight, false);
  const auto packed = CVPixelBuffer::create(kWidth, kHeight, kCMPixelFormat_422YpCbCr8);
  preview.draw(packed);
  gUpload = epoxy_glTexSubImage2D;
  epoxy_glTexSubImage2D = countUpload;
  std::printf("\n| bytes uploaded a pixel | ours | as pixels |\n|---|---|---|\n");
  for (const auto& [name, buffer] : {std::pair{"4:2:0 planes", planar.buffer}, std::pair{"packed 4:2:2", packed}}) {
    gUploaded = 0;
    preview.draw(buffer);
    std::printf("| %s | %.2f | 4 |\n", name, static_cast<double>(gUploaded) / (kWidth * kHeight));
  }
  epoxy_glTexSubImage2D = gUpload;
}

void compareConversion(int runs) {
  const Planes planar = makePlanes(kViewWidth, kViewHeight, false);
  const auto& source = *planar.buffer;
  const auto packed = CVPixelBuffer::create(kViewWidth, kViewHeight, kCMPixelFormat_422YpCbCr8);
  libyuv::I420ToUYVY(source.plane(0).data, kViewWidth, source.plane(1).data, kViewWidth / 2, source.plane(2).data,
                     kViewWidth / 2, packed->data().data(), kViewWidth * 2, kViewWidth, kViewHeight);
  const size_t rowBytes = kViewWidth * 4;
  Bytes ours(rowBytes * kViewHeight);
  Bytes peer(ours.size());
  const auto convert = [&](YCbCrColour colour) {
    PicturePlanes picture = planesOf(*packed);
    picture.colour = colour;
    convertPicture(picture, PixelOrder::kBGRA, ours.data(), rowBytes);
  };
  const auto libyuvs = [&] {
    libyuv::UYVYToARGB(packed->data().data(), kViewWidth * 2, peer.data(), kViewWidth * 4, kViewWidth, kViewHeight);
  };
  compare(
      "720p UYVY to display pixels / libyuv's UYVYToARGB", runs, 200, [&] { convert({}); }, libyuvs);
  Bytes planes(static_cast<size_t>(kViewWidth) * kViewHeight * 2);
  uint8_t* const y = planes.data();
  uint8_t* const u = y + static_cast<ptrdiff_t>(kViewWidth) * kViewHeight;
  uint8_t* const v = u + static_cast<ptrdiff_t>(kViewWidth) * kViewHeight / 2;
  compare(
      "the same by BT.709 / libyuv's UYVYToI422, I422ToARGBMatrix", runs, 200,
      [&] {
        convert({YCbCrColour::Matrix::kBT709, false});
      },
      [&] {
        libyuv::UYVYToI422(packed->data().data(), kViewWidth * 2, y, kViewWidth, u, kViewWidth / 2, v, kViewWidth / 2,
                           kViewWidth, kViewHeight);
        libyuv::I422ToARGBMatrix(y, kViewWidth, u, kViewWidth / 2, v, kViewWidth / 2, peer.data(), kViewWidth * 4,
                                 &libyuv::kYuvH709Constants, kViewWidth, kViewHeight);
      });
}

/// libjpeg-turbo alone, handed planes that have JPEG's range already.
void encodeBare(const CVPixelBuffer& buffer) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &bytes, &size);
  info.image_width = static_cast<JDIMENSION>(buffer.width());
  info.image_height = static_cast<JDIMENSION>(buffer.height());
  info.in_color_space = JCS_YCbCr;
  info.input_components = 3;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, kJPEGQuality, TRUE);
  info.raw_data_in = TRUE;
  jpeg_start_compress(&info, TRUE);
  JSAMPROW rows[3][16];
  JSAMPARRAY planes[3] = {rows[0], rows[1], rows[2]};
  while (info.next_scanline < info.image_height) {
    for (size_t row = 0; row < 16; ++row) {
      const size_t y = std::min<size_t>(info.next_scanline + row, info.image_height - 1);
      rows[0][row] = const_cast<JSAMPROW>(buffer.plane(0).data + y * buffer.plane(0).bytesPerRow);
      for (size_t plane = 1; plane < 3; ++plane)
        rows[plane][row / 2] = const_cast<JSAMPROW>(buffer.plane(plane).data + y / 2 * buffer.plane(plane).bytesPerRow);
    }
    jpeg_write_raw_data(&info, planes, 16);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::free(bytes);
}

/// The planes of a video range picture in JPEG's range, as any encoder must be given them.
Planes widened(const Planes& video) {
  Planes planes = makePlanes(kWidth, kHeight, true);
  const size_t luma = static_cast<size_t>(kWidth) * kHeight;
  for (size_t i = 0; i < planes.bytes->size(); ++i) {
    const double value = (*video.bytes)[i];
    const double full = i < luma ? (value - 16) * 255 / 219 : (value - 128) * 255 / 224 + 128;
    (*planes.bytes)[i] = static_cast<uint8_t>(std::clamp(full + 0.5, 0.0, 255.0));
  }
  return planes;
}

void compareEncoding(int runs) {
  const Planes full = makePlanes(kWidth, kHeight, true);
  const Planes video = makePlanes(kWidth, kHeight, false);
  const Planes converted = widened(video);
  const auto encode = [](const CVPixelBufferRef& buffer) {
    const auto bitmap = NSBitmapImageRep::initWithCIImage(CIImage::imageWithCVImageBuffer(buffer));
    if (bitmap->representationUsingType(NSJPEGFileType).empty()) std::abort();
  };
  compare(
      "1080p JPEG, full range planes / bare libjpeg-turbo", runs, 10, [&] { encode(full.buffer); },
      [&] { encodeBare(*full.buffer); });
  compare(
      "the same, video range / bare libjpeg-turbo, converted before", runs, 10, [&] { encode(video.buffer); },
      [&] { encodeBare(*converted.buffer); });
}

/// A window of GLFW that carries the view.
class Window : public HostWindow {
 public:
  Window() {
    if (!glfwInit()) return;
    glfwWindowHint(GLFW_RESIZABLE, GLFW_FALSE);
    mWindow = glfwCreateWindow(kViewWidth, kViewHeight, "draw_bench", nullptr, nullptr);
  }
  ~Window() override { glfwTerminate(); }

  explicit operator bool() const { return mWindow != nullptr; }
  bool makeContextCurrent() override {
    glfwMakeContextCurrent(mWindow);
    return true;
  }
  void clearCurrentContext() override { glfwMakeContextCurrent(nullptr); }
  void present() override { glfwSwapBuffers(mWindow); }
  void setSwapInterval(int32_t interval) override { glfwSwapInterval(interval); }
  void requestRedraw() override {}

 private:
  GLFWwindow* mWindow = nullptr;
};

int play(const char* path, int frames) {
  Window window;
  FILE* const file = std::fopen(path, "rb");
  if (!window || !file) {
    std::fprintf(stderr, "draw_bench: no display, or no file\n");
    return 1;
  }
  const auto view = VeskPreviewView::initWithFrame({0, 0, kViewWidth, kViewHeight});
  view->setWindow(&window);
  int shown = 0;
  auto next = std::chrono::steady_clock::now();
  for (; shown < frames; ++shown) {
    auto bytes = std::make_shared<Bytes>(static_cast<size_t>(kWidth * kHeight * 3 / 2));
    if (std::fread(bytes->data(), 1, bytes->size(), file) != bytes->size()) break;
    const size_t size = static_cast<size_t>(kWidth) * kHeight;
    const CVPixelBuffer::Planes planes{PixelPlane{bytes->data(), kWidth}, PixelPlane{bytes->data() + size, kWidth / 2},
                                       PixelPlane{bytes->data() + size * 5 / 4, kWidth / 2}};
    view->refresh(CIImage::imageWithCVImageBuffer(
        CVPixelBuffer::wrap(kWidth, kHeight, kCVPixelFormat_420Planar, planes, {}, bytes)));
    std::this_thread::sleep_until(next);
    next += std::chrono::microseconds(33'333);
    view->displayIfNeeded();
    glfwPollEvents();
  }
  std::fclose(file);
  view->setWindow(nullptr);
  std::printf("%d\n", shown);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--window") == 0) return play(argv[2], std::atoi(argv[3]));
  const int runs = argc == 3 && std::strcmp(argv[1], "--runs") == 0 ? std::max(std::atoi(argv[2]), 1) : 7;
  if (argc != 1 && argc != 3) {
    std::fprintf(stderr, "Usage: draw_bench [--runs N] | draw_bench --window I420-FILE FRAMES\n");
    return 2;
  }
  std::printf("| CPU ms | ours | peer | ratio |\n|---|---|---|---|\n");
  compareDrawing(runs);
  compareConversion(runs);
  compareEncoding(runs);
  printUploads();
  return 0;
}
