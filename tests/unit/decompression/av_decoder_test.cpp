#include <gtest/gtest.h>

#include <array>

#include "platform/decompression/av_picture.h"
#include "tests/unit/decompression/session_under_test.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace vesk {
namespace {

using test::describe;
using test::SessionUnderTest;
using Bytes = std::vector<uint8_t>;

AVFramePtr makeFrame(AVPixelFormat format, int width, int height) {
  AVFramePtr frame(av_frame_alloc());
  frame->format = format;
  frame->width = width;
  frame->height = height;
  EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
  return frame;
}

TEST(AVPicture, StandsWhereLibavcodecWroteIt) {
  const struct {
    AVPixelFormat format;
    uint32_t pixelFormat;
    size_t planes;
    bool isFullRange;
  } rows[] = {
      {AV_PIX_FMT_YUV420P, kCVPixelFormat_420Planar, 3, false},
      {AV_PIX_FMT_YUVJ420P, kCVPixelFormat_420Planar, 3, true},
      {AV_PIX_FMT_YUVJ422P, kCVPixelFormat_422Planar, 3, true},
      {AV_PIX_FMT_YUV444P, kCVPixelFormat_444Planar, 3, false},
      {AV_PIX_FMT_NV12, kCVPixelFormat_420BiPlanar, 2, false},
      {AV_PIX_FMT_GRAY8, kCVPixelFormat_Gray, 1, false},
      {AV_PIX_FMT_UYVY422, kCMPixelFormat_422YpCbCr8, 1, false},
      {AV_PIX_FMT_BGRA, kCVPixelFormat_32BGRA, 1, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(av_get_pix_fmt_name(row.format));
    auto frame = makeFrame(row.format, 33, 17);
    const std::array<const uint8_t*, 3> data = {frame->data[0], frame->data[1], frame->data[2]};
    CVImageBufferRef picture;
    ASSERT_EQ(makePicture(std::move(frame), {}, &picture), noErr);
    EXPECT_EQ(picture->pixelFormat(), row.pixelFormat);
    EXPECT_EQ(picture->width(), 33);
    EXPECT_EQ(picture->height(), 17);
    ASSERT_EQ(picture->planeCount(), row.planes);
    for (size_t i = 0; i < row.planes; ++i) EXPECT_EQ(picture->plane(i).data, data.at(i));
    EXPECT_EQ(picture->colour().isFullRange, row.isFullRange);
  }
}

TEST(AVPicture, ConvertsWhatItCanAndRefusesTheRest) {
  const struct {
    AVPixelFormat format;
    uint32_t pixelFormat;
    Bytes pixels;    ///< the frame's first bytes: two pixels
    Bytes expected;  ///< of the picture's first plane
  } rows[] = {
      {AV_PIX_FMT_YUYV422, kCVPixelFormat_422Planar, {10, 20, 30, 40}, {10, 30}},
      {AV_PIX_FMT_NV21, kCVPixelFormat_420Planar, {10, 30}, {10, 30}},
      {AV_PIX_FMT_YUV420P10LE, kCVPixelFormat_420Planar, {40, 0, 0xFC, 3}, {10, 255}},
      {AV_PIX_FMT_YUV422P10LE, kCVPixelFormat_422Planar, {40, 0, 0xFC, 3}, {10, 255}},
      {AV_PIX_FMT_RGB24, kCVPixelFormat_32BGRA, {1, 2, 3, 4, 5, 6}, {3, 2, 1, 255, 6, 5, 4, 255}},
      {AV_PIX_FMT_BGR24, kCVPixelFormat_32BGRA, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 255, 4, 5, 6, 255}},
      {AV_PIX_FMT_ARGB, kCVPixelFormat_32BGRA, {9, 1, 2, 3}, {3, 2, 1, 9}},
      {AV_PIX_FMT_RGB565LE, kCVPixelFormat_32BGRA, {0x00, 0xF8}, {0, 0, 255, 255}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(av_get_pix_fmt_name(row.format));
    auto frame = makeFrame(row.format, 2, 2);
    std::copy(row.pixels.begin(), row.pixels.end(), frame->data[0]);
    CVImageBufferRef picture;
    ASSERT_EQ(makePicture(std::move(frame), {}, &picture), noErr);
    EXPECT_EQ(picture->pixelFormat(), row.pixelFormat);
    const uint8_t* const data = picture->plane(0).data;
    EXPECT_EQ(Bytes(data, data + row.expected.size()), row.expected);
  }
  CVImageBufferRef picture;
  EXPECT_EQ(makePicture(makeFrame(AV_PIX_FMT_GBRP, 2, 2), {}, &picture), codecUnimpErr);
  auto upsideDown = makeFrame(AV_PIX_FMT_GRAY8, 2, 2);
  upsideDown->linesize[0] = -upsideDown->linesize[0];
  EXPECT_EQ(makePicture(std::move(upsideDown), {}, &picture), codecUnimpErr);
  EXPECT_EQ(picture, nullptr);
}

TEST(AVPicture, HasTheColoursOfTheStreamBeforeThoseOfTheDescription) {
  using Matrix = YCbCrColour::Matrix;
  const YCbCrColour described{Matrix::kBT709, false};
  const struct {
    AVColorSpace space;
    AVColorRange range;
    YCbCrColour expected;
  } rows[] = {
      {AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED, described},
      {AVCOL_SPC_BT709, AVCOL_RANGE_JPEG, {Matrix::kBT709, true}},
      {AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG, {Matrix::kBT601, false}},
      {AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_UNSPECIFIED, {Matrix::kBT601, false}},
  };
  for (const auto& row : rows) {
    auto frame = makeFrame(AV_PIX_FMT_YUV420P, 2, 2);
    frame->colorspace = row.space;
    frame->color_range = row.range;
    CVImageBufferRef picture;
    ASSERT_EQ(makePicture(std::move(frame), described, &picture), noErr);
    EXPECT_EQ(picture->colour(), row.expected) << av_color_space_name(row.space);
  }
}

TEST(AVDecoding, RawPicturesOfOtherCodesOutliveTheirFrame) {
  SessionUnderTest test(describe(fourCharCode("yuvs"), 4, 2, 16));
  ASSERT_EQ(test.created, noErr);
  const Bytes frame = {1, 101, 2, 102, 3, 103, 4, 104, 5, 105, 6, 106, 7, 107, 8, 108};
  ASSERT_EQ(test.show(frame), noErr);
  const auto first = test.picture();
  ASSERT_TRUE(first);
  ASSERT_EQ(test.show(Bytes(16, 0)), noErr);
  EXPECT_NE(test.picture(), first);
  EXPECT_EQ(first->pixelFormat(), kCVPixelFormat_422Planar);
  EXPECT_EQ(Bytes(first->plane(0).data, first->plane(0).data + 4), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(first->plane(1).data[0], 101);
  EXPECT_EQ(test.show(Bytes(7, 0)), codecBadDataErr);
}

}  // namespace
}  // namespace vesk
