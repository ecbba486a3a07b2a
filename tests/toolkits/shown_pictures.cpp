#include "tests/toolkits/shown_pictures.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <vesk/bitmap_image_rep.h>
#include <vesk/pixel_buffer.h>

// Last: they define names that others use.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace vesk::test {
namespace {

/// A picture with a luma plane of these levels and no colour, as a camera's decoder hands it over.
CIImageRef pictureOf(int32_t width, int32_t height, std::vector<uint8_t> luma) {
  const auto bytes = std::make_shared<std::vector<uint8_t>>(std::move(luma));
  const CVPixelBuffer::Planes planes{PixelPlane{bytes->data(), static_cast<size_t>(width)}, {}, {}};
  const YCbCrColour colour{YCbCrColour::Matrix::kBT601, true};
  return CIImage::imageWithCVImageBuffer(
      CVPixelBuffer::wrap(width, height, kCVPixelFormat_Gray, planes, colour, bytes));
}

PFNGLTEXSUBIMAGE2DPROC gUpload = nullptr;

}  // namespace

int gUploads = 0;

CIImageRef gray(int level) {
  return pictureOf(kWidth, kHeight, std::vector<uint8_t>(size_t{kWidth} * kHeight, static_cast<uint8_t>(level)));
}

CIImageRef noise(int32_t width, int32_t height) {
  static std::mt19937 random(7);
  std::vector<uint8_t> luma(static_cast<size_t>(width) * static_cast<size_t>(height));
  for (uint8_t& level : luma) level = static_cast<uint8_t>(random() % 256);
  return pictureOf(width, height, std::move(luma));
}

Pixels readFramebuffer(const NSRect& frame) {
  Pixels pixels(static_cast<int32_t>(frame.width), static_cast<int32_t>(frame.height));
  std::vector<uint8_t> rgba(pixels.bytes.size() / 3 * 4);
  glReadPixels(0, 0, pixels.width, pixels.height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  const uint8_t* from = rgba.data();
  for (int32_t y = pixels.height - 1; y >= 0; --y)
    for (int32_t x = 0; x < pixels.width; ++x, from += 4) std::copy_n(from, 3, pixels.at(x, y));
  return pixels;
}

Pixels readScreen(int32_t width, int32_t height) {
  static Display* const display = XOpenDisplay(nullptr);
  Pixels pixels(width, height);
  XImage* const image = XGetImage(display, DefaultRootWindow(display), 0, 0, static_cast<unsigned>(width),
                                  static_cast<unsigned>(height), AllPlanes, ZPixmap);
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      const unsigned long pixel = XGetPixel(image, x, y);
      uint8_t* const to = pixels.at(x, y);
      to[0] = static_cast<uint8_t>(pixel >> 16);
      to[1] = static_cast<uint8_t>(pixel >> 8);
      to[2] = static_cast<uint8_t>(pixel);
    }
  XDestroyImage(image);
  return pixels;
}

bool isExact(Pixels shown, const CIImageRef& picture) {
  const auto expected = NSBitmapImageRep::initWithCIImage(picture);
  const int32_t width = expected->pixelsWide();
  const int32_t height = expected->pixelsHigh();
  const int32_t left = (shown.width - width) / 2;
  const int32_t top = shown.height - (shown.height - height) / 2 - height;  // the odd row is above
  if (left < 0 || top < 0) return false;
  const uint8_t* wanted = expected->bitmapData();
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x, wanted += 4)
      if (!std::equal(wanted, wanted + 3, shown.at(left + x, top + y))) return false;
  return true;
}

::testing::AssertionResult comes(const std::function<bool()>& isSo) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!isSo() && std::chrono::steady_clock::now() < end) serveLoop();
  return isSo() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "it did not come";
}

void runFor(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  comes([end] { return std::chrono::steady_clock::now() >= end; });
}

void countUploads() {
  gUploads = 0;
  if (gUpload) return;
  gUpload = epoxy_glTexSubImage2D;
  epoxy_glTexSubImage2D = [](GLenum target, GLint level, GLint x, GLint y, GLsizei width, GLsizei height, GLenum format,
                             GLenum type, const void* pixels) {
    if (width == kWidth) ++gUploads;
    gUpload(target, level, x, y, width, height, format, type, pixels);
  };
}

}  // namespace vesk::test
