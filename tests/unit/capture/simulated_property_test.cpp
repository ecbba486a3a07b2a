#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

#include <vesk/four_char_code.h>
#include <vesk/property_sets.h>
#include <vesk/vci.h>
#include "capture/simulated/simulated_pattern.h"
#include "capture/simulated/simulated_source.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/meanwhile.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/capture/packet_decoder.h"

// The controls of simulated cameras: what is taken and refused, and what they do to the pictures.

namespace vesk::capture {
namespace {

using test::PacketDecoder;
using test::Recorder;
using Bytes = std::vector<uint8_t>;

constexpr int kWidth = 320, kHeight = 240;
constexpr uint32_t kCodecs[] = {kCMPixelFormat_422YpCbCr8, kCMVideoCodecType_MotionJPEG, kCMVideoCodecType_H264};

Bytes little(int64_t value, size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return bytes;
}

/// A decoded picture: luma of every pixel, and colour of every second one of every second row.
struct Picture {
  uint8_t luma(int x, int y) const { return y_[static_cast<size_t>(y) * kWidth + static_cast<size_t>(x)]; }
  double mean(const Bytes& plane) const {
    double sum = 0;
    for (const uint8_t each : plane) sum += each;
    return sum / static_cast<double>(plane.size());
  }
  /// The share of pixels, below the number and above the noise, that are near those of `other` at the place
  /// that `from` gives for theirs.
  template <class From>
  double likeness(const Picture& other, From from) const {
    int fitting = 0, count = 0;
    for (int y = 40; y < 200; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const auto [otherX, otherY] = from(x, y);
        if (otherY < 40 || otherY >= 200) continue;
        ++count;
        const int wrapped = ((otherX % kWidth) + kWidth) % kWidth;
        if (std::abs(luma(x, y) - other.luma(wrapped, otherY)) < 12) ++fitting;
      }
    }
    return static_cast<double>(fitting) / count;
  }

  Bytes y_, cb, cr;
};

Picture fromPacked(const Bytes& bytes) {
  Picture picture;
  for (size_t i = 0; i + 3 < bytes.size(); i += 4) {
    picture.cb.push_back(bytes[i]);
    picture.y_.push_back(bytes[i + 1]);
    picture.cr.push_back(bytes[i + 2]);
    picture.y_.push_back(bytes[i + 3]);
  }
  return picture;
}

Picture pictureOf(const AVFrame& frame) {
  Picture picture;
  const auto copy = [&frame](int plane, int width, int rows, Bytes& into) {
    for (int row = 0; row < rows; ++row) {
      const uint8_t* const from = frame.data[plane] + row * frame.linesize[plane];
      into.insert(into.end(), from, from + width);
    }
  };
  const int chromaRows = frame.format == AV_PIX_FMT_YUV420P ? kHeight / 2 : kHeight;
  copy(0, kWidth, kHeight, picture.y_);
  copy(1, kWidth / 2, chromaRows, picture.cb);
  copy(2, kWidth / 2, chromaRows, picture.cr);
  return picture;
}

class SimulatedProperty : public testing::Test {
 protected:
  int32_t set(const PropertySetIdentifier& identifier, uint32_t number, const Bytes& value) {
    return camera->setProperty(identifier, number, value);
  }
  /// A property's value as a number; its status below 0 when it cannot be read.
  int64_t get(const PropertySetIdentifier& identifier, uint32_t number, size_t size,
              uint32_t request = kRequestCurrent) {
    Bytes value(size);
    auto valueSize = static_cast<uint32_t>(size);
    const int32_t status = camera->getProperty(request, identifier, number, value, valueSize);
    if (status != 0) return -1000 - status;
    uint64_t read = 0;
    for (size_t i = size; i-- > 0;) read = read << 8 | value[i];
    return size == 2 ? static_cast<int16_t>(read) : size == 4 ? static_cast<int32_t>(read) : static_cast<int64_t>(read);
  }
  void use(const char* path) { camera = source.open(DeviceKind::kVideo, path); }

  /// A picture that comes when the flash is long over: the twelfth of a second.
  Picture take(uint32_t codec) {
    EXPECT_EQ(camera->setVideoParameters({codec, kWidth, kHeight, 333333, 10000000, 2'000'000}), 0);
    test::FrameRecorder frames;
    EXPECT_EQ(camera->start(0, frames.callback()), 0);
    const auto taken = frames.waitFor(30);
    EXPECT_EQ(camera->stop(0), 0);
    PacketDecoder decoder(codec == kCMVideoCodecType_H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_MJPEG);
    for (const auto& frame : taken) {
      const AVFrame* const decoded = codec == kCMPixelFormat_422YpCbCr8 ? nullptr : decoder.decode(frame.bytes);
      Picture picture = decoded ? pictureOf(*decoded) : fromPacked(frame.bytes);
      const auto number = readFrameCounter(picture.y_.data(), kWidth, kWidth, kHeight);
      EXPECT_TRUE(number.has_value());
      if (number && *number % 30 == 12) return picture;
    }
    ADD_FAILURE() << "no such picture came";
    return fromPacked(Bytes(kWidth * kHeight * 2));
  }

  Transport transport;
  SimulatedSource source{{.pace = Pace::kFast}, transport};
  std::unique_ptr<CaptureDevice> camera = source.open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
};

TEST_F(SimulatedProperty, KeepsWhatItTakesAndRefusesTheRest) {
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), 0);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2, kRequestMinimum), -64);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2, kRequestMaximum), 64);
  EXPECT_EQ(set(kImageControlSet, kBrightness, little(-64, 2)), 0);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -64);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2, kRequestDefault), 0);

  EXPECT_EQ(set(kImageControlSet, kBrightness, little(65, 2)), kVCIInvalidArgument);
  EXPECT_EQ(set(kImageControlSet, kBrightness, little(0, 4)), kVCIInvalidArgument);
  EXPECT_EQ(set(kImageControlSet, kBrightness, {}), kVCIInvalidArgument);
  EXPECT_EQ(set(kImageControlSet, kSaturation, little(65000, 2)), kVCIInvalidArgument);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 1), -1000 - kVCIInvalidArgument);
  EXPECT_EQ(get(kImageControlSet, kAntiFlicker, 1, kRequestMaximum), -1000 - kVCIFailed);
  EXPECT_EQ(get(kImageControlSet, 99, 2), -1000 - kVCIPropertyNotSupported);
  EXPECT_EQ(set({}, kBrightness, little(0, 2)), kVCIPropertyNotSupported);
  EXPECT_EQ(set(kDeviceInformationSet, kFirmwareVersion, little(0, 4)), kVCIFailed);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -64);

  // Another handle on the same camera sees the same; another camera does not.
  const auto first = std::move(camera);
  use(SimulatedSource::kCameraPath);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -64);
  use(SimulatedSource::kPlainCameraPath);
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), 0);
}

TEST_F(SimulatedProperty, AnAutomaticModeKeepsItsControlToItself) {
  const struct {
    PropertySetIdentifier set;
    uint32_t mode;
    int on, off;
    uint32_t number;
    size_t size;
    int value;
  } rows[] = {{kCameraControlSet, kAutoExposureMode, 8, 1, kExposure, 4, 100},
              {kCameraControlSet, kAutoFocus, 1, 0, kFocus, 2, 100},
              {kImageControlSet, kAutoWhiteBalance, 1, 0, kWhiteBalance, 2, 3000},
              {kImageControlSet, kAutoHue, 1, 0, kHue, 2, 100}};
  for (const auto& row : rows) {
    ASSERT_EQ(set(row.set, row.mode, little(row.on, 1)), 0) << row.number;
    EXPECT_EQ(set(row.set, row.number, little(row.value, row.size)), kVCIFailed) << row.number;
    EXPECT_GE(get(row.set, row.number, row.size), -999) << row.number;
    ASSERT_EQ(set(row.set, row.mode, little(row.off, 1)), 0) << row.number;
    EXPECT_EQ(set(row.set, row.number, little(row.value, row.size)), 0) << row.number;
    EXPECT_EQ(get(row.set, row.number, row.size), row.value) << row.number;
  }
  EXPECT_EQ(set(kCameraControlSet, kAutoExposureMode, little(2, 1)), kVCIInvalidArgument);
}

TEST_F(SimulatedProperty, ModelsHaveDifferentProperties) {
  const auto has = [this](const PropertySetIdentifier& identifier, uint32_t item) {
    const auto sets = camera->propertySets();
    const auto items = camera->propertyItems(identifier);
    return std::count(sets.begin(), sets.end(), identifier) == 1 && std::count(items.begin(), items.end(), item) == 1;
  };
  EXPECT_TRUE(has(kMirrorSet, kMirror) && has(kCameraControlSet, kPanTilt) && has(kDeviceInformationSet, kEEPROMInfo));
  EXPECT_FALSE(has(kRelativeMotionSet, kMotionPanTilt) || has(kAlternateInformationSet, kEEPROMInfo));
  EXPECT_EQ(get(kDeviceInformationSet, kFirmwareVersion, 4), 0x12340205);

  use(SimulatedSource::kPlainCameraPath);
  EXPECT_FALSE(has(kMirrorSet, kMirror) || has(kCameraControlSet, kPanTilt) || has(kDeviceInformationSet, 1));
  EXPECT_TRUE(has(kRelativeMotionSet, kMotionPanTilt) && has(kAlternateInformationSet, kFirmwareVersion));
  EXPECT_EQ(get(kDeviceInformationSet, kFirmwareVersion, 4), -1000 - kVCIPropertyNotSupported);

  SimulatedModel model;
  model.information = SimulatedModel::Information::kNone;
  EXPECT_TRUE(source.setModel(SimulatedSource::kPlainCameraPath, model));
  EXPECT_FALSE(source.setModel("nowhere", model));
  EXPECT_TRUE(has(kMirrorSet, kMirror));
  EXPECT_EQ(get(kAlternateInformationSet, kFirmwareVersion, 4), -1000 - kVCIPropertyNotSupported);
}

TEST_F(SimulatedProperty, TheHeadGoesAndRemembersItsWay) {
  using Kind = HeadMove::Kind;
  use(SimulatedSource::kPlainCameraPath);
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {1, 0, 0, 0}), 0);  // clockwise: to the right
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {0, 0, 0, 0}), 0);
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {0, 0, 1, 0}), 0);  // up
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {2, 0, 0, 0}), kVCIInvalidArgument);
  EXPECT_EQ(set(kRelativeMotionSet, kMotionPanTilt, {0x40, 0, 0xC0, 0xFF}), 0);  // a degree right, a degree down
  for (int i = 0; i < 2; ++i) EXPECT_EQ(set(kRelativeMotionSet, kMotionPanTilt, {0, 8, 0, 0}), 0);
  EXPECT_EQ(set(kRelativeMotionSet, kMotionReset, {1}), 0);
  EXPECT_EQ(set(kRelativeMotionSet, kMotionReset, {3}), 0);
  const std::vector<HeadMove> expected = {{Kind::kTurn, 14400, 0},      {Kind::kStop, 14400, 0},
                                          {Kind::kTurn, 14400, 14400},  {Kind::kStep, 18000, 10800},
                                          {Kind::kStep, 126000, 10800}, {Kind::kStep, 126000, 10800},  // the limit
                                          {Kind::kReset, 0, 10800},     {Kind::kReset, 0, 0}};
  EXPECT_EQ(source.headMoves(SimulatedSource::kPlainCameraPath), expected);

  use(SimulatedSource::kCameraPath);
  EXPECT_EQ(set(kCameraControlSet, kPanTilt, {0x10, 0x0E, 0, 0, 0xF0, 0xF1, 0xFF, 0xFF}), 0);  // 1 and -1 degree
  EXPECT_EQ(get(kCameraControlSet, kPanTilt, 8), 0xFFFFF1F000000E10);
  EXPECT_EQ(set(kCameraControlSet, kPanTilt, {0, 0, 0, 0x7F, 0, 0, 0, 0}), 0) << "too far";
  EXPECT_EQ(get(kCameraControlSet, kPanTilt, 8), 126000);
  EXPECT_EQ(set(kCameraControlSet, kRelativeZoom, little(30, 4)), 0);
  EXPECT_EQ(set(kCameraControlSet, kRelativeZoom, little(-10, 4)), 0);
  EXPECT_EQ(get(kCameraControlSet, kZoom, 4), 120);
}

TEST_F(SimulatedProperty, ControlsChangeThePicturesOfEveryCodec) {
  for (const uint32_t codec : kCodecs) {
    SCOPED_TRACE(fourCharString(codec));
    EXPECT_EQ(set(kMirrorSet, kMirror, {0}), 0);
    const Picture plain = take(codec);
    const double luma = plain.mean(plain.y_), cb = plain.mean(plain.cb), cr = plain.mean(plain.cr);
    const auto spread = [](const Picture& picture, const Bytes& plane) {
      const double mean = picture.mean(plane);
      double sum = 0;
      for (const uint8_t each : plane) sum += std::abs(each - mean);
      return sum / static_cast<double>(plane.size());
    };
    const auto with = [&](const PropertySetIdentifier& identifier, uint32_t number, const Bytes& value,
                          const Bytes& back) {
      EXPECT_EQ(set(identifier, number, value), 0);
      Picture picture = take(codec);
      EXPECT_EQ(set(identifier, number, back), 0);
      return picture;
    };

    const Picture lighter = with(kImageControlSet, kBrightness, little(32, 2), little(0, 2));
    EXPECT_GT(lighter.mean(lighter.y_), luma + 30);
    const Picture darker = with(kImageControlSet, kBrightness, little(-32, 2), little(0, 2));
    EXPECT_LT(darker.mean(darker.y_), luma - 25);
    const Picture flat = with(kImageControlSet, kContrast, little(8, 2), little(32, 2));
    EXPECT_LT(spread(flat, flat.y_), spread(plain, plain.y_) / 2);
    const Picture grey = with(kImageControlSet, kSaturation, little(0, 2), little(64, 2));
    EXPECT_LT(spread(grey, grey.cb), 3);
    EXPECT_GT(spread(plain, plain.cb), 25);
    const Picture turned = with(kImageControlSet, kHue, little(9000, 2), little(0, 2));
    EXPECT_NEAR(turned.mean(turned.cb), 256 - cr, 6);  // a quarter of the circle: blue from red, red from blue
    EXPECT_NEAR(turned.mean(turned.cr), cb, 6);

    EXPECT_EQ(set(kCameraControlSet, kAutoExposureMode, {1}), 0);
    const Picture brief = with(kCameraControlSet, kExposure, little(156, 4), little(312, 4));
    EXPECT_LT(brief.mean(brief.y_), luma * 0.7);
    EXPECT_EQ(set(kImageControlSet, kAutoWhiteBalance, {0}), 0);
    const Picture warm = with(kImageControlSet, kWhiteBalance, little(6500, 2), little(4600, 2));
    EXPECT_GT(warm.mean(warm.cr), cr + 10);
    EXPECT_LT(warm.mean(warm.cb), cb - 10);

    const Picture mirrored = with(kMirrorSet, kMirror, {1}, {0});
    EXPECT_GT(mirrored.likeness(plain, [](int x, int y) { return std::pair(kWidth - 1 - x, y); }), 0.97);
    EXPECT_LT(mirrored.likeness(plain, [](int x, int y) { return std::pair(x, y); }), 0.5);
    const Picture closer = with(kCameraControlSet, kZoom, little(200, 4), little(100, 4));
    const auto halfway = [](int place, int count) { return (count - 1) / 2 + (place - (count - 1) / 2) / 2; };
    EXPECT_GT(closer.likeness(plain, [&](int x, int y) { return std::pair(halfway(x, kWidth), halfway(y, kHeight)); }),
              0.95);
    // Eight degrees of sixty-four: an eighth of the width.
    const Picture right = with(kCameraControlSet, kPanTilt, {0x80, 0x70, 0, 0, 0, 0, 0, 0}, Bytes(8));
    EXPECT_GT(right.likeness(plain, [](int x, int y) { return std::pair(x + kWidth / 8, y); }), 0.97);
    const Picture up = with(kCameraControlSet, kPanTilt, {0, 0, 0, 0, 0x80, 0x70, 0, 0}, Bytes(8));
    const auto noiseRow = [](const Picture& picture) {  // where the band of noise begins
      for (int y = 40; y < kHeight; ++y)
        if (std::abs(picture.luma(2, y) - picture.luma(2, 40)) > 8) return y;
      return kHeight;
    };
    EXPECT_NEAR(noiseRow(plain), 210, 3);
    EXPECT_EQ(noiseRow(up), kHeight) << "what is below goes down and out";

    const Picture again = take(codec);
    EXPECT_GT(again.likeness(plain, [](int x, int y) { return std::pair(x, y); }), 0.99);
  }
}

TEST_F(SimulatedProperty, ANudgeMovesThePicture) {
  use(SimulatedSource::kPlainCameraPath);
  const Picture plain = take(kCMPixelFormat_422YpCbCr8);
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {1, 0, 0, 0}), 0);
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {0, 0, 0, 0}), 0);
  const Picture turned = take(kCMPixelFormat_422YpCbCr8);
  EXPECT_GT(turned.likeness(plain, [](int x, int y) { return std::pair(x + 20, y); }), 0.999);
}

/// For the thread sanitizer.
TEST_F(SimulatedProperty, MayBeAskedForAnythingWhileTheCameraStartsAndStops) {
  const test::Meanwhile asker([&] {
    EXPECT_EQ(set(kImageControlSet, kBrightness, little(3, 2)), 0);
    EXPECT_EQ(get(kImageControlSet, kBrightness, 2), 3);
    EXPECT_EQ(camera->setVideoParameters({kCMPixelFormat_422YpCbCr8, kWidth, kHeight, 333333, 10000000, 0}), 0);
    EXPECT_GT(camera->propertySets().size() + camera->videoFormats().size(), 3u);
  });
  for (int round = 0; round < 50; ++round) {
    EXPECT_EQ(camera->start(0, [](uint8_t*, uint32_t, int64_t) {}), 0);
    EXPECT_EQ(camera->stop(0), 0);
  }
}

TEST_F(SimulatedProperty, ControlsMayChangeWhilePicturesAreMade) {
  EXPECT_EQ(camera->setVideoParameters({kCMPixelFormat_422YpCbCr8, kWidth, kHeight, 333333, 10000000, 0}), 0);
  Recorder<std::pair<uint32_t, int>> seen;  // the number, and a pixel's luma
  const auto look = [&seen](uint8_t* bytes, uint32_t, int64_t) {
    const auto number = readFrameCounter(bytes + 1, kWidth * 2, kWidth, kHeight, 2);
    seen.add({number.value_or(0xFFFFFFFF), bytes[(100 * kWidth + 4) * 2 + 1]});
  };
  EXPECT_EQ(camera->start(0, look), 0);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(set(kImageControlSet, kBrightness, little(i % 65, 2)), 0);
    EXPECT_EQ(set(kCameraControlSet, kZoom, little(100 + i, 4)), 0);
    if (i % 50 == 0) seen.waitFor(seen.items().size() + 2);
  }
  EXPECT_EQ(set(kImageControlSet, kBrightness, little(64, 2)), 0);
  seen.waitFor(seen.items().size() + 33);
  EXPECT_EQ(camera->stop(0), 0);
  uint32_t expected = seen.items().front().first;
  for (const auto& [number, luma] : seen.items()) EXPECT_EQ(number, expected++);
  EXPECT_EQ(seen.items().back().second, 235);
}

TEST_F(SimulatedProperty, FaultsAndDepartureReachProperties) {
  SimulatedFaults faults;
  faults.propertyStatus = 5;
  EXPECT_TRUE(source.setFaults(SimulatedSource::kCameraPath, faults));
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -1005);
  EXPECT_EQ(set(kImageControlSet, kBrightness, little(1, 2)), 5);
  EXPECT_TRUE(source.setFaults(SimulatedSource::kCameraPath, {}));
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), 0);
  EXPECT_TRUE(source.unplug(SimulatedSource::kCameraPath));
  EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -1000 - kVCIFailed);
}

TEST_F(SimulatedProperty, SettingsAreKeptInAFileWhereOneIsNamed) {
  const test::TemporaryFolder folder;
  ASSERT_EQ(setenv("VESK_SIMULATED_STATE", folder.file("state").c_str(), 1), 0);
  {
    SimulatedSource first;
    camera = first.open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
    EXPECT_EQ(set(kImageControlSet, kBrightness, little(-7, 2)), 0);
    EXPECT_EQ(set(kImageControlSet, kAutoWhiteBalance, {0}), 0);
    EXPECT_EQ(set(kImageControlSet, kWhiteBalance, little(3000, 2)), 0);
    EXPECT_EQ(set(kCameraControlSet, kPanTilt, {16, 0, 0, 0, 32, 0, 0, 0}), 0);
    camera = nullptr;
  }
  SimulatedSource second;
  folder.write("state.plain", "head x\nzz 1 2\n\xFF\n" + std::string(1000, 'f') + " 2 00\nhead 1");
  SimulatedSource third;
  unsetenv("VESK_SIMULATED_STATE");
  for (SimulatedSource* each : {&second, &third}) {
    camera = each->open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
    EXPECT_EQ(get(kImageControlSet, kBrightness, 2), -7);
    EXPECT_EQ(get(kImageControlSet, kWhiteBalance, 2), 3000);
    EXPECT_EQ(get(kCameraControlSet, kPanTilt, 8), 0x2000000010);
  }
}

}  // namespace
}  // namespace vesk::capture
