// A camera that changes its pictures' size and parameter sets while it is shown.

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include <vesk/ci_image.h>
#include <vesk/four_char_code.h>
#include <vesk/icm_decoder.h>
#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include <vesk/run_loop.h>
#include "tests/support/h264_stream.h"
#include "tests/unit/decompression/jpeg_builder.h"
#include "tests/unit/sessions/recording_test.h"

namespace vesk::test {
namespace {

/// A picture as it looks: its size, and a number made of its first plane.
struct Look {
  int32_t width = 0;
  int32_t height = 0;
  uint64_t content = 0;
  bool operator==(const Look&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Look& look) {
  return out << look.width << "x" << look.height << " #" << look.content % 10'000;
}

Look lookOf(const CVPixelBuffer& picture) {
  Look look{picture.width(), picture.height()};
  for (size_t row = 0; row < static_cast<size_t>(picture.height()); ++row)
    for (size_t at = 0; at < static_cast<size_t>(picture.width()); ++at)
      look.content = look.content * 31 + picture.plane(0).data[row * picture.bytesPerRow() + at];
  return look;
}

/// What a decoder of its own makes of the frames.
struct Looks : DecoderProtocol {
  void displayData(CVImageBufferRef image) override { all.push_back(lookOf(*image)); }
  std::vector<Look> all;
};
std::vector<Look> decoded(uint32_t codec, int width, int height, std::vector<Bytes> frames) {
  Looks looks;
  const auto decoder = ICMDecoder::initWithWidth(static_cast<uint32_t>(width), static_cast<uint32_t>(height), codec);
  decoder->setDelegate(&looks);
  for (Bytes& frame : frames) decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), 0);
  return looks.all;
}

/// Each unit of a stream as a buffer of its own, with its start code.
std::vector<Bytes> piecesOf(const Bytes& stream) {
  std::vector<Bytes> pieces;
  for (const Bytes& unit : unitsOf(stream)) {
    pieces.push_back({0, 0, 0, 1});
    pieces.back().insert(pieces.back().end(), unit.begin(), unit.end());
  }
  return pieces;
}

template <class T>
std::vector<T> operator+(std::vector<T> first, const std::vector<T>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

struct PreviewChanges : RecordingTest {
  /// What is shown of the buffers, one after the other, by a preview whose camera is set to this format.
  std::vector<Look> shown(uint32_t codec, int width, int height, const std::vector<Bytes>& buffers) {
    camera->setFormat(CMVideoFormatDescription::create(codec, width, height));
    const auto view = VeskPreviewView::initWithFrame({0, 0, 64, 64});
    const auto session = VeskPreviewSession::initWithDevice(camera, nullptr);
    session->openSession();
    EXPECT_EQ(session->startSessionWithPreview(view), 0);
    std::vector<Look> looks;
    std::shared_ptr<const CIImage> last;
    for (Bytes buffer : buffers) {
      fakeCamera->deliver(buffer, ++time);
      NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
      if (view->image() != last) looks.push_back(lookOf(*view->image()->imageBuffer()));
      last = view->image();
    }
    session->closeSession();
    return looks;
  }

  int64_t time = 0;
};

TEST_F(PreviewChanges, ShowsWhatTheCameraSendsNow) {
  constexpr uint32_t kH264 = kCMVideoCodecType_H264;
  auto small = streamsOf(accessUnitsOf("MIDR_MW_D.264"));
  auto large = streamsOf(accessUnitsOf("street-640x480-slices.h264"));
  for (auto* const clip : {&small, &large}) clip->resize(20);
  const auto ofSmall = decoded(kH264, 176, 144, small);
  const auto ofLarge = decoded(kH264, 640, 480, large);
  ASSERT_EQ(ofSmall.size(), 20U);
  ASSERT_EQ(ofLarge.size(), 20U);
  const auto setsOfLarge = [&] {
    auto pieces = piecesOf(large[0]);
    std::erase_if(pieces, [](const Bytes& piece) { return (piece[4] & 0x1F) <= 5; });
    return pieces;
  }();
  const auto inPieces = [&](std::vector<Bytes> clip) {  // parameter sets in buffers of their own
    auto pieces = piecesOf(clip[0]);
    const auto slices =
        std::find_if(pieces.begin(), pieces.end(), [](const Bytes& piece) { return (piece[4] & 0x1F) <= 5; });
    std::vector<Bytes> buffers(pieces.begin(), slices);
    Bytes rest;
    for (auto piece = slices; piece != pieces.end(); ++piece) rest.insert(rest.end(), piece->begin(), piece->end());
    buffers.push_back(rest);
    buffers.insert(buffers.end(), clip.begin() + 1, clip.end());
    return buffers;
  };
  const auto padded = [&](std::vector<Bytes> clip) {  // with filler, as a camera of a constant bit rate sends it
    clip[0].insert(clip[0].end(), {0, 0, 0, 1, 12});
    clip[0].resize(clip[0].size() + 3'000'000, 0xFF);
    clip[0].push_back(0x80);
    return clip;
  };
  const struct {
    const char* label;
    std::vector<Bytes> buffers;
    std::vector<Look> expected;
  } rows[] = {
      {"sets in key pictures", small + large + small, ofSmall + ofLarge + ofSmall},
      {"sets by themselves", inPieces(small) + inPieces(large) + inPieces(small), ofSmall + ofLarge + ofSmall},
      {"key pictures far larger than the first ones", small + padded(large) + small, ofSmall + ofLarge + ofSmall},
      {"sets that change before the first picture", setsOfLarge + inPieces(small) + large, ofSmall + ofLarge},
      {"one set that changes before the other has come", std::vector<Bytes>{setsOfLarge[0]} + inPieces(small) + large,
       ofSmall + ofLarge},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(shown(kH264, 176, 144, row.buffers), row.expected);
  }
}

TEST_F(PreviewChanges, ShowsJPEGPicturesOfTheSizeOfNow) {
  constexpr uint32_t kJPEG = kCMVideoCodecType_MotionJPEG;
  const std::vector<Bytes> frames = {makeJPEG({.width = 64, .height = 48}), makeJPEG({.width = 320, .height = 240}),
                                     makeJPEG({.width = 64, .height = 48, .seed = 2})};
  const auto looks = shown(kJPEG, 64, 48, frames);
  EXPECT_EQ(looks, decoded(kJPEG, 320, 240, frames));
  EXPECT_EQ(looks.size(), 3U);
}

}  // namespace
}  // namespace vesk::test
