#include "capture/encoding/encoded_camera.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/interface/usual_bit_rate.h"
#include "tests/support/fake_capture_source.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/h264_stream.h"
#include "tests/support/log_recorder.h"
#include "tests/support/meanwhile.h"
#include "tests/unit/capture/packet_decoder.h"
#include "tests/unit/decompression/jpeg_builder.h"

namespace vesk::capture {
namespace {

using test::Bytes;
using test::FakeCaptureSource;
using test::Gate;
using test::PacketDecoder;

constexpr uint32_t kRaw = kCMPixelFormat_422YpCbCr8;
constexpr uint32_t kJPEG = kCMVideoCodecType_MotionJPEG;
constexpr uint32_t kH264 = kCMVideoCodecType_H264;
constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int64_t kInterval = 33'333;
constexpr VideoParameters kAsked = {kH264, kWidth, kHeight, 333333, 10'000'000, 8'000'000};

/// A picture as the encoder should see it: planar 4:2:0 in video levels.
struct Planes {
  Bytes y = Bytes(size_t{kWidth} * kHeight);
  Bytes cb = Bytes(size_t{kWidth} * kHeight / 4);
  Bytes cr = cb;
};

struct CameraPicture {
  Bytes bytes;
  Planes planes;
};

/// Slopes in all directions, moving on from picture to picture.
CameraPicture makeRaw(int number) {
  CameraPicture raw;
  raw.bytes.resize(size_t{kWidth} * kHeight * 2);
  const auto luma = [number](int x, int y) { return static_cast<uint8_t>(16 + (x + y / 2 + number * 4) % 220); };
  const auto cb = [](int x) { return static_cast<uint8_t>(48 + x / 2); };
  const auto cr = [](int y) { return static_cast<uint8_t>(220 - y / 2); };
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const size_t at = (static_cast<size_t>(y) * kWidth + static_cast<size_t>(x)) * 2;
      raw.bytes[at] = x % 2 == 0 ? cb(x) : cr(y);
      raw.bytes[at + 1] = luma(x, y);
      raw.planes.y[at / 2] = luma(x, y);
      const size_t chromaAt = static_cast<size_t>(y / 2) * (kWidth / 2) + static_cast<size_t>(x / 2);
      raw.planes.cb[chromaAt] = cb(x & ~1);
      raw.planes.cr[chromaAt] = cr(y & ~1);
    }
  }
  return raw;
}

/// What a JPEG picture looks like, worked out from its pixels in floating point.
Planes lookOf(const Bytes& jpeg, const test::JPEGOptions& options) {
  const Bytes pixels = test::decodePlainly(jpeg);
  const size_t components = options.across == 0 ? 1 : 3;
  Planes planes;
  std::vector<double> cb(planes.cb.size()), cr(planes.cr.size());
  for (size_t at = 0; at < planes.y.size(); ++at) {
    const uint8_t* const pixel = &pixels[at * components];
    double luma = pixel[0], blue = 128, red = 128;
    if (components == 3) blue = pixel[1], red = pixel[2];
    if (options.isRGB) {
      luma = 0.299 * pixel[0] + 0.587 * pixel[1] + 0.114 * pixel[2];
      blue = 128 + (pixel[2] - luma) / 1.772;
      red = 128 + (pixel[0] - luma) / 1.402;
    }
    const size_t chromaAt = at / kWidth / 2 * (kWidth / 2) + at % kWidth / 2;
    planes.y[at] = static_cast<uint8_t>(std::lround(16 + luma * 219 / 255));
    cb[chromaAt] += (128 + (blue - 128) * 224 / 255) / 4;
    cr[chromaAt] += (128 + (red - 128) * 224 / 255) / 4;
  }
  for (size_t at = 0; at < cb.size(); ++at) {
    planes.cb[at] = static_cast<uint8_t>(std::lround(cb[at]));
    planes.cr[at] = static_cast<uint8_t>(std::lround(cr[at]));
  }
  return planes;
}

double psnr(const Bytes& expected, const uint8_t* actual, int rowBytes, size_t width) {
  double sum = 0;
  for (size_t at = 0; at < expected.size(); ++at) {
    const size_t place = at / width * static_cast<size_t>(rowBytes) + at % width;
    const double difference = expected[at] - actual[place];
    sum += difference * difference;
  }
  return 10 * std::log10(255 * 255 * static_cast<double>(expected.size()) / std::max(sum, 1.0));
}

void expectLikeness(const AVFrame* picture, const Planes& planes, double least) {
  ASSERT_NE(picture, nullptr);
  ASSERT_EQ(picture->width, kWidth);
  ASSERT_EQ(picture->height, kHeight);
  EXPECT_GE(psnr(planes.y, picture->data[0], picture->linesize[0], kWidth), least);
  EXPECT_GE(psnr(planes.cb, picture->data[1], picture->linesize[1], kWidth / 2), least);
  EXPECT_GE(psnr(planes.cr, picture->data[2], picture->linesize[2], kWidth / 2), least);
  EXPECT_EQ(picture->color_range, AVCOL_RANGE_MPEG);
  EXPECT_EQ(picture->colorspace, AVCOL_SPC_SMPTE170M);
  EXPECT_EQ(picture->color_primaries, AVCOL_PRI_BT709);
  EXPECT_EQ(picture->color_trc, AVCOL_TRC_BT709);
}

class EncodedCameraTest : public testing::Test {
 protected:
  void SetUp() override {
    mFake = mSource.attachCamera("test");
    offer({{kRaw, {{kWidth, kHeight, {333333}}}}});
  }

  void offer(std::vector<VideoFormat> formats) {
    mFake->videoFormats = std::move(formats);
    mCamera = EncodedCamera::wrap(mSource.open(DeviceKind::kVideo, "test"), "Test Camera");
  }
  int32_t start(FrameCallback callback) {
    EXPECT_EQ(mCamera->setVideoParameters(kAsked), kVCISuccess);
    return mCamera->start(1, std::move(callback));
  }
  FrameCallback receiver() { return mFrames.callback(); }
  bool isKey(size_t number) { return test::holdsKeyPicture(mFrames.waitFor(number + 1)[number].bytes); }
  EncodingCounts counts() { return dynamic_cast<EncodedCamera&>(*mCamera).counts(); }

  test::LogRecorder mLog;
  test::FrameRecorder mFrames;
  FakeCaptureSource mSource;
  std::shared_ptr<test::FakeDevice> mFake;
  std::unique_ptr<CaptureDevice> mCamera;
};

TEST(H264EncoderTest, SaysWhetherItIsMissingOrRefusesTheSettings) {
  struct Row {
    const char* label;
    int width;
    uint32_t numerator;
    bool isMissing;
    Cause cause;
    const char* what;
    const char* remedy;
  };
  for (const Row& row :
       {Row{"fits", 320, 1, false, Cause::kNone, "", ""},
        Row{"an odd width", 321, 1, false, Cause::kNoFormat, "refuses 321 × 240 at 30 pictures", "another size"},
        Row{"no interval", 320, 0, false, Cause::kNoFormat, "refuses 320 × 240", "another size"},
        Row{"no encoder", 321, 1, true, Cause::kNoEncoder, "has no H.264 encoder", "Install"}}) {
    H264Encoder::pretendMissing(row.isMissing);
    Error error;
    const auto encoder = H264Encoder::create({.width = row.width,
                                              .height = kHeight,
                                              .intervalNumerator = row.numerator,
                                              .intervalDenominator = 30,
                                              .bitRate = 1'000'000,
                                              .preset = "superfast",
                                              .profile = "main"},
                                             "the camera \"C\"", error);
    H264Encoder::pretendMissing(false);
    EXPECT_EQ(encoder != nullptr, row.cause == Cause::kNone) << row.label;
    EXPECT_EQ(error.cause, row.cause) << row.label;
    EXPECT_NE(error.what.find(row.what), std::string::npos) << row.label << ": " << error.what;
    EXPECT_NE(error.remedy.find(row.remedy), std::string::npos) << row.label << ": " << error.remedy;
  }
}

TEST_F(EncodedCameraTest, OffersTheRatesOfAllInputsAndTakesTheOneThatHasTheRate) {
  offer({{kJPEG, {{640, 480, {166667}}, {1280, 720, {333333, 666666}}, {1920, 1080, {333333}}}},
         {kRaw, {{640, 480, {333333, 400000}}, {1280, 720, {666666, 1000000}}, {322, 241, {333333}}}}});
  const auto formats = mCamera->videoFormats();
  ASSERT_EQ(formats.size(), 3u);
  EXPECT_EQ(formats[0].codec, kJPEG);
  EXPECT_EQ(formats[1].codec, kRaw);
  EXPECT_EQ(formats[2].codec, kH264) << "after what the camera gives by itself";
  ASSERT_EQ(formats[2].sizes.size(), 3u) << "pictures of odd sides are left out";
  EXPECT_EQ(formats[2].sizes[1].width, 1280);
  EXPECT_EQ(formats[2].sizes[1].intervals, (std::vector<uint32_t>{333333, 666666, 1000000}));

  const struct {
    VideoParameters asked;
    uint32_t codec;
    uint32_t interval;
  } cases[] = {
      {{kH264, 640, 480, 1, 30, 1}, kRaw, 333333},    {{kH264, 640, 480, 1, 20, 1}, kRaw, 400000},
      {{kH264, 640, 480, 1, 60, 1}, kJPEG, 166667},   {{kH264, 1280, 720, 333333, 10'000'000, 1}, kJPEG, 333333},
      {{kH264, 1280, 720, 1, 15, 1}, kRaw, 666666},   {{kH264, 1280, 720, 1, 5, 1}, kRaw, 1000000},
      {{kH264, 1920, 1080, 1, 60, 1}, kJPEG, 333333},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(mCamera->setVideoParameters(each.asked), kVCISuccess);
    const VideoParameters& set = mFake->videoParameters.back();
    EXPECT_EQ(set.codec, each.codec);
    EXPECT_EQ(set.width, each.asked.width);
    EXPECT_EQ(set.intervalNumerator, each.interval);
    EXPECT_EQ(set.intervalDenominator, 10'000'000u);
  }
  EXPECT_NE(mCamera->setVideoParameters({kH264, 322, 241, 1, 30, 1}), kVCISuccess);
}

TEST_F(EncodedCameraTest, LeavesCamerasAloneThatHaveH264OrNothingToEncode) {
  offer({{kH264, {{640, 480, {333333}}}}, {kRaw, {{1280, 720, {333333}}}}});
  EXPECT_EQ(mCamera->videoFormats().size(), 2u);
  offer({{fourCharCode("xxxx"), {{640, 480, {333333}}}}});
  EXPECT_EQ(mCamera->videoFormats().size(), 1u);
}

TEST_F(EncodedCameraTest, GivesTheCamerasOwnPicturesUntouched) {
  ASSERT_EQ(mCamera->setVideoParameters({kRaw, kWidth, kHeight, 1, 30, 0}), kVCISuccess);
  const uint8_t* given = nullptr;
  ASSERT_EQ(mCamera->start(0, [&](uint8_t* bytes, uint32_t, int64_t) { given = bytes; }), kVCISuccess);
  Bytes picture(4);
  mFake->deliver(picture, 1);
  EXPECT_EQ(given, picture.data());
  EXPECT_EQ(mCamera->stop(0), kVCISuccess);
  EXPECT_FALSE(mFake->isCapturing());
}

TEST_F(EncodedCameraTest, EncodesRawPicturesAsTheyLook) {
  ASSERT_EQ(start(receiver()), kVCISuccess);
  PacketDecoder decoder(AV_CODEC_ID_H264);
  for (int number = 0; number < 12; ++number) {
    CameraPicture raw = makeRaw(number);
    mFake->deliver(raw.bytes, 1'000'000 + number * kInterval);
    const auto frame = mFrames.waitFor(static_cast<size_t>(number) + 1).back();
    EXPECT_EQ(frame.timestamp, 1'000'000 + number * kInterval);
    EXPECT_EQ(test::holdsKeyPicture(frame.bytes), number == 0);
    expectLikeness(decoder.decode(frame.bytes), raw.planes, 60);
  }
  const auto units = test::unitTypesOf(mFrames.items()[0].bytes);
  EXPECT_TRUE(units[0] == 7 && units[1] == 8) << "parameter sets";
  Bytes cut(size_t{kWidth} * kHeight * 2 - 1);
  mFake->deliver(cut, 5'000'000);
  EXPECT_EQ(mCamera->stop(1), kVCISuccess);
  EXPECT_EQ(counts().delivered, 12u);
  EXPECT_EQ(counts().damaged, 1u);
}

TEST_F(EncodedCameraTest, EncodesJPEGPicturesOfEveryKindAsTheyLook) {
  offer({{kJPEG, {{kWidth, kHeight, {333333}}}}});
  const test::JPEGOptions kinds[] = {
      {.width = kWidth, .height = kHeight, .across = 2, .down = 1},
      {.width = kWidth, .height = kHeight, .across = 2, .down = 2},
      {.width = kWidth, .height = kHeight, .across = 1, .down = 1},
      {.width = kWidth, .height = kHeight, .across = 0, .down = 1},
      {.width = kWidth, .height = kHeight, .across = 1, .down = 1, .isRGB = true},
  };
  for (const test::JPEGOptions& kind : kinds) {
    SCOPED_TRACE(testing::Message() << kind.across << "x" << kind.down << (kind.isRGB ? " RGB" : ""));
    const size_t before = mFrames.items().size();
    ASSERT_EQ(start(receiver()), kVCISuccess);
    Bytes jpeg = test::makeJPEG(kind);
    Bytes bare = test::stripTables(jpeg).frame;
    PacketDecoder decoder(AV_CODEC_ID_H264);
    const AVFrame* picture = nullptr;
    for (size_t number = 0; number < 4; ++number) {
      mFake->deliver(bare, static_cast<int64_t>(number) * kInterval);
      picture = decoder.decode(mFrames.waitFor(before + number + 1).back().bytes);
    }
    expectLikeness(picture, lookOf(jpeg, kind), 45);
    EXPECT_EQ(mCamera->stop(1), kVCISuccess);
  }
}

TEST(EncodedBitRate, GoesWithThePixelsOfLargeFramesAndWithTheRate) {
  constexpr uint64_t kThirty = 333333;
  uint32_t before = 0;
  for (const auto& [width, height] :
       {std::pair{320, 240}, {640, 480}, {864, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}}) {
    const uint32_t bitRate = encodedH264BitRate(width, height, kThirty);
    EXPECT_GT(bitRate, before) << width;
    EXPECT_EQ(bitRate == usualH264BitRate(width, height, kThirty), height <= 720) << "as cameras are asked for";
    before = bitRate;
  }
  EXPECT_NEAR(encodedH264BitRate(1920, 1080, kThirty), 3.5e6, 0.1e6);
  EXPECT_NEAR(encodedH264BitRate(1920, 1080, 2 * kThirty), 3.5e6 * 25 / 40, 0.1e6);
  EXPECT_EQ(encodedH264BitRate(INT32_MAX, INT32_MAX, 1), UINT32_MAX) << "whatever comes";
}

/// What no encoder can make small.
Bytes noise(uint32_t seed) {
  Bytes picture(size_t{kWidth} * kHeight * 2);
  for (uint8_t& byte : picture) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(60 + (seed >> 25));
  }
  return picture;
}

TEST_F(EncodedCameraTest, SpendsTheBitsThatSuitTheRateUnlessANumberIsAskedFor) {
  const struct {
    const char* label;
    uint32_t asked, given;  ///< frames a second
    uint32_t bitRate, expected;
  } cases[] = {
      {"30, as ever", 30, 30, 512'000, 512'000}, {"15", 15, 15, 320'000, 320'000},
      {"60", 60, 60, 896'000, 896'000},          {"30 of a camera that has 15", 30, 15, 512'000, 320'000},
      {"none asked for", 15, 15, 0, 320'000},    {"a number", 30, 15, 700'000, 700'000},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.label);
    offer({{kRaw, {{kWidth, kHeight, {10'000'000 / each.given}}}}});
    ASSERT_EQ(mCamera->setVideoParameters({kH264, kWidth, kHeight, 1, each.asked, each.bitRate}), kVCISuccess);
    const size_t before = mFrames.items().size();
    ASSERT_EQ(mCamera->start(1, receiver()), kVCISuccess);
    constexpr uint32_t kSeconds = 4;
    size_t bytes = 0;
    for (uint32_t number = 0; number < kSeconds * each.given; ++number) {
      Bytes picture = noise(number + 1);
      mFake->deliver(picture, int64_t{number} * 1'000'000 / each.given);
      bytes += mFrames.waitFor(before + number + 1).back().bytes.size();
    }
    EXPECT_EQ(mCamera->stop(1), kVCISuccess);
    // The encoder begins with some bits saved up.
    EXPECT_NEAR(static_cast<double>(bytes) * 8 / kSeconds / each.expected, 1.05, 0.1);
  }
}

TEST_F(EncodedCameraTest, LeavesDamagedJPEGPicturesOutAndGoesOn) {
  offer({{kJPEG, {{kWidth, kHeight, {333333}}}}});
  ASSERT_EQ(start(receiver()), kVCISuccess);
  const Bytes whole = test::makeJPEG({.width = kWidth, .height = kHeight});
  Bytes damaged[] = {
      {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(whole.size() / 2)},
      {whole.begin(), whole.begin() + 100},
      Bytes(5000, 0xA5),
      test::makeJPEG({.width = kWidth / 2, .height = kHeight}),
      test::makeJPEG({.width = kWidth * 8, .height = kHeight * 8}),
      {},
  };
  size_t good = 0;
  for (Bytes& each : damaged) {
    mFake->deliver(each, 0);
    Bytes picture = whole;
    mFake->deliver(picture, static_cast<int64_t>(++good) * kInterval);
    EXPECT_EQ(mFrames.waitFor(good).back().timestamp, static_cast<int64_t>(good) * kInterval);
  }
  mCamera->stop(1);
  EXPECT_EQ(counts().damaged, std::size(damaged));
  EXPECT_EQ(mLog.items().size(), 1u) << "at the end";
}

TEST_F(EncodedCameraTest, MakesKeyPicturesByTheClockWhenTheCameraIsSlow) {
  ASSERT_EQ(start(receiver()), kVCISuccess);
  CameraPicture raw = makeRaw(0);
  std::vector<int64_t> keys;
  for (size_t number = 0; number < 40; ++number) {
    mFake->deliver(raw.bytes, static_cast<int64_t>(number) * 150'000);
    if (isKey(number)) keys.push_back(mFrames.items().back().timestamp);
  }
  ASSERT_GE(keys.size(), 3u);
  for (size_t at = 1; at < keys.size(); ++at) EXPECT_LE(keys[at] - keys[at - 1], 2'000'000);
}

TEST_F(EncodedCameraTest, MakesAKeyPictureWhenAsked) {
  mCamera->requestKeyFrame();  // does nothing before the start
  ASSERT_EQ(start(receiver()), kVCISuccess);
  CameraPicture raw = makeRaw(0);
  for (size_t number = 0; number < 12; ++number) {
    if (number == 5) mCamera->requestKeyFrame();
    mFake->deliver(raw.bytes, static_cast<int64_t>(number) * kInterval);
    EXPECT_EQ(isKey(number), number == 0 || number == 5) << number;
  }
}

TEST_F(EncodedCameraTest, LeavesOutOldPicturesWhenTheReceiverIsSlow) {
  Gate gate;
  test::Recorder<int64_t> inside;
  ASSERT_EQ(start([&](uint8_t* bytes, uint32_t length, int64_t timestamp) {
              inside.add(timestamp);
              gate.wait();
              receiver()(bytes, length, timestamp);
            }),
            kVCISuccess);
  CameraPicture raw = makeRaw(0);
  mFake->deliver(raw.bytes, 0);
  inside.waitFor(1);
  for (int64_t number = 1; number < 20; ++number) mFake->deliver(raw.bytes, number);  // never waits
  gate.open();
  const auto frames = mFrames.waitFor(4);
  mCamera->stop(1);
  std::vector<int64_t> stamps;
  stamps.reserve(frames.size());
  for (const auto& frame : frames) stamps.push_back(frame.timestamp);
  EXPECT_EQ(stamps, (std::vector<int64_t>{0, 17, 18, 19}));
  EXPECT_EQ(counts().late, 16u);
  const auto lines = mLog.items();
  ASSERT_EQ(lines.size(), 2u) << "once, and at the end";
  EXPECT_NE(lines[0].find("Choose a smaller size"), std::string::npos);
}

TEST_F(EncodedCameraTest, StopsAndStartsFromInsideTheCallback) {
  std::atomic<int> calls = 0;
  test::Recorder<int32_t> answers;
  CameraPicture raw = makeRaw(0);
  ASSERT_EQ(start([&](uint8_t*, uint32_t, int64_t) {
              ++calls;
              mFake->deliver(raw.bytes, 2);  // waits, and belongs to nobody once stopped
              answers.add(mCamera->stop(1));
              answers.add(mCamera->start(1, receiver()));
            }),
            kVCISuccess);
  mFake->deliver(raw.bytes, 1);
  EXPECT_EQ(answers.waitFor(2), (std::vector<int32_t>{kVCISuccess, kVCISuccess}));
  mFake->deliver(raw.bytes, 3);
  EXPECT_EQ(mFrames.waitFor(1).back().timestamp, 3);
  EXPECT_EQ(mCamera->stop(1), kVCISuccess);
  mFake->deliver(raw.bytes, 4);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(mFrames.items().size(), 1u);
}

TEST_F(EncodedCameraTest, CallsNobodyOnceStoppedHoweverOften) {
  CameraPicture raw = makeRaw(0);
  const test::Meanwhile camera([&, stamp = int64_t{0}]() mutable { mFake->deliver(raw.bytes, stamp++); });
  for (int round = 0; round < 10; ++round) {
    std::atomic<bool> isStopped = false;
    test::Recorder<int> calls;
    ASSERT_EQ(start([&](uint8_t*, uint32_t, int64_t) {
                EXPECT_FALSE(isStopped);
                calls.add(round);
              }),
              kVCISuccess);
    calls.waitFor(static_cast<size_t>(round % 3));
    EXPECT_EQ(mCamera->stop(1), kVCISuccess);
    isStopped = true;
  }
}

TEST_F(EncodedCameraTest, PassesOnWhatTheCameraRefuses) {
  mFake->startStatus = kVCIBusy;
  EXPECT_EQ(start(receiver()), kVCIBusy);
  mFake->startStatus = kVCISuccess;
  EXPECT_EQ(start(receiver()), kVCISuccess);
  mFake->stopStatus = kVCIFailed;
  EXPECT_EQ(mCamera->stop(1), kVCIFailed);
  CameraPicture raw = makeRaw(0);
  mFake->deliver(raw.bytes, 1);
  mFrames.waitFor(1);  // it still runs
  mFake->stopStatus = kVCISuccess;
  EXPECT_EQ(mCamera->stop(1), kVCISuccess);
  mFake->parametersStatus = kVCIFailed;
  EXPECT_EQ(mCamera->setVideoParameters(kAsked), kVCIFailed);
}

}  // namespace
}  // namespace vesk::capture
