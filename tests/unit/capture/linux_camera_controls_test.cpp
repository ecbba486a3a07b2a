#include <gtest/gtest.h>

#include <filesystem>

#include <vesk/vci.h>
#include "capture/linux/cameras/linux_camera.h"
#include "capture/linux/cameras/linux_cameras.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

namespace vesk::capture {
namespace {

using test::FakeControls;
using test::FakeV4L2;
using test::TemporaryFolder;
using Bytes = std::vector<uint8_t>;
using Settings = std::vector<std::pair<uint32_t, int32_t>>;

constexpr const char* kFirst = "/dev/video0";
constexpr const char* kSecond = "/dev/video2";
constexpr auto kVendorSet = propertySetIdentifier("A1B2C3D4-E5F6-4711-8899-AABBCCDDEEFF");
constexpr uint32_t kAllModes = 0b1111;

/// The numbers as properties carry them, four bytes each.
Bytes longs(std::initializer_list<int32_t> numbers) {
  Bytes bytes;
  for (const int32_t number : numbers)
    for (const int shift : {0, 8, 16, 24}) bytes.push_back(static_cast<uint8_t>(number >> shift));
  return bytes;
}

/// What UVC cameras have, on the first node; a rarer kind of head on the second.
std::vector<FakeControls::Control> usualControls() {
  return {{V4L2_CID_BRIGHTNESS, -64, 64, 0},
          {V4L2_CID_CONTRAST, 0, 65535, 32},
          {V4L2_CID_HUE, -18000, 18000, -100},
          {V4L2_CID_SATURATION, -100, 70000, 0},
          {V4L2_CID_POWER_LINE_FREQUENCY, 0, 2, 2, 0, 0b111},
          {V4L2_CID_AUTO_WHITE_BALANCE, 0, 1, 1},
          {V4L2_CID_WHITE_BALANCE_TEMPERATURE, 2800, 6500, 4000, 0, 0, V4L2_CID_AUTO_WHITE_BALANCE, 0},
          {V4L2_CID_EXPOSURE_AUTO, 0, 3, 3, 0, kAllModes},
          {V4L2_CID_EXPOSURE_ABSOLUTE, 3, 100000, 250, 0, 0, V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL},
          {V4L2_CID_PAN_ABSOLUTE, -36000, 36000, 0},
          {V4L2_CID_TILT_ABSOLUTE, -7200, 7200, 3600},
          {V4L2_CID_HFLIP, 0, 1, 0}};
}
std::vector<FakeControls::Control> headControls() {
  return {{V4L2_CID_PAN_SPEED, -1, 7, 0},
          {V4L2_CID_TILT_SPEED, -5, 5, 0},
          {V4L2_CID_ZOOM_CONTINUOUS, -3, 3, 0, V4L2_CTRL_FLAG_WRITE_ONLY},
          {V4L2_CID_PAN_RELATIVE, -3200, 3200, 0, V4L2_CTRL_FLAG_WRITE_ONLY},
          {V4L2_CID_TILT_RELATIVE, -1600, 1600, 0, V4L2_CTRL_FLAG_WRITE_ONLY},
          {V4L2_CID_PAN_RESET, 0, 0, 0, V4L2_CTRL_FLAG_WRITE_ONLY},
          {V4L2_CID_TILT_RESET, 0, 0, 0, V4L2_CTRL_FLAG_WRITE_ONLY},
          {V4L2_CID_SHARPNESS, 0, 7, 3, V4L2_CTRL_FLAG_DISABLED},
          {V4L2_CID_FOCUS_ABSOLUTE, 0, 250, 10, V4L2_CTRL_FLAG_GRABBED},
          {V4L2_CID_ZOOM_ABSOLUTE, 100, 500, 100, V4L2_CTRL_FLAG_READ_ONLY}};
}

class LinuxCameraControls : public testing::Test {
 protected:
  void SetUp() override {
    FakeControls first{.controls = usualControls()};
    first.units[{3, 1}] = {{5, 2, 0x34, 0x12}, false};
    first.units[{3, 4}] = {{7, 2}, true, false};
    FakeControls second{.controls = headControls()};
    second.units[{3, 9}] = {{42}};
    second.units[{5, kMirror}] = {{1}};
    mCalls->addNode(kFirst, {.controls = first});
    mCalls->addNode(kSecond, {.controls = second});
    open({{0, 3, kVendorSet, {1, 4}}, {1, 3, kVendorSet, {4, 9}}});
  }

  void open(std::vector<ExtensionUnit> units) {
    std::vector<std::shared_ptr<OpenNode>> nodes;
    int error = 0;
    for (const char* const name : {kFirst, kSecond}) nodes.push_back(OpenNode::open(mCalls, name, error));
    mCamera = std::make_unique<LinuxCamera>("Test Camera", nodes, std::move(units));
  }

  /// The value, which the caller has `room` for; empty on failure.
  Bytes get(const PropertySetIdentifier& set, uint32_t number, uint32_t request = kRequestCurrent, size_t room = 8) {
    Bytes value(room, 0xEE);
    auto size = static_cast<uint32_t>(room);
    mStatus = mCamera->getProperty(request, set, number, value, size);
    value.resize(mStatus == kVCISuccess ? size : 0);
    return value;
  }
  int32_t getStatus(const PropertySetIdentifier& set, uint32_t number, uint32_t request = kRequestCurrent,
                    size_t room = 8) {
    get(set, number, request, room);
    return mStatus;
  }
  int32_t set(const PropertySetIdentifier& set, uint32_t number, const Bytes& value) {
    return mCamera->setProperty(set, number, value);
  }
  FakeControls& controls(const char* node = kFirst) { return mCalls->controlsOf(node); }
  /// What the last property that was set came to.
  Settings lastSettings(const char* node = kFirst) {
    const auto& all = controls(node).settings;
    return all.empty() ? Settings{} : all.back();
  }

  int32_t mStatus = 0;
  std::shared_ptr<FakeV4L2> mCalls = std::make_shared<FakeV4L2>();
  std::unique_ptr<LinuxCamera> mCamera;
};

TEST_F(LinuxCameraControls, ReadAndWriteNumbersInThePropertysOwnFormat) {
  const struct {
    const PropertySetIdentifier& set;
    uint32_t number;
    Bytes initial, minimum, maximum;  ///< minimum and maximum empty: not reported
    Bytes value;
    Settings made;
  } rows[] = {
      {kImageControlSet, kBrightness, {0, 0}, {0xC0, 0xFF}, {64, 0}, {0xFE, 0xFF}, {{V4L2_CID_BRIGHTNESS, -2}}},
      {kImageControlSet, kContrast, {32, 0}, {0, 0}, {0xFF, 0xFF}, {0, 0x90}, {{V4L2_CID_CONTRAST, 0x9000}}},
      // A driver's range that does not fit the property is cut.
      {kImageControlSet, kSaturation, {0, 0}, {0, 0}, {0xFF, 0xFF}, {1, 0}, {{V4L2_CID_SATURATION, 1}}},
      {kImageControlSet, kAntiFlicker, {2}, {0}, {2}, {1}, {{V4L2_CID_POWER_LINE_FREQUENCY, 1}}},
      {kImageControlSet, kAutoWhiteBalance, {1}, {}, {}, {0}, {{V4L2_CID_AUTO_WHITE_BALANCE, 0}}},
      {kCameraControlSet, kAutoExposureMode, {8}, {}, {}, {1}, {{V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL}}},
      {kCameraControlSet,
       kExposure,
       longs({250}),
       longs({3}),
       longs({100'000}),
       longs({65'536}),
       {{V4L2_CID_EXPOSURE_ABSOLUTE, 65'536}}},
      // Both at once: a head that is sent to one after the other turns twice.
      {kCameraControlSet,
       kPanTilt,
       longs({0, 3600}),
       longs({-36'000, -7200}),
       longs({36'000, 7200}),
       longs({-3600, 1}),
       {{V4L2_CID_PAN_ABSOLUTE, -3600}, {V4L2_CID_TILT_ABSOLUTE, 1}}},
  };
  for (const auto& row : rows) {
    const std::string label = "property " + std::to_string(row.number);
    EXPECT_EQ(get(row.set, row.number), row.initial) << label;
    EXPECT_EQ(get(row.set, row.number, kRequestDefault), row.initial) << label;
    EXPECT_EQ(get(row.set, row.number, kRequestMinimum), row.minimum) << label;
    EXPECT_EQ(get(row.set, row.number, kRequestMaximum), row.maximum) << label;
    EXPECT_EQ(mStatus, row.maximum.empty() ? kVCIFailed : kVCISuccess) << label;
    EXPECT_EQ(getStatus(row.set, row.number, kRequestCurrent, row.initial.size() - 1), kVCIInvalidArgument) << label;
    EXPECT_EQ(set(row.set, row.number, Bytes(row.initial.size() + 1)), kVCIInvalidArgument) << label;

    ASSERT_EQ(set(row.set, row.number, row.value), kVCISuccess) << label;
    EXPECT_EQ(lastSettings(), row.made) << label;
    EXPECT_EQ(get(row.set, row.number), row.value) << label;
    EXPECT_EQ(get(row.set, row.number, kRequestDefault), row.initial) << label;
  }
  EXPECT_EQ(controls().settings.size(), std::size(rows));
  controls().controls[0].current = 17;  // by another program
  EXPECT_EQ(get(kImageControlSet, kBrightness), Bytes({17, 0}));
}

TEST_F(LinuxCameraControls, ExposureModesAreThoseThatTheCameraHas) {
  constexpr struct {
    uint32_t choices;
    uint8_t mode;
    std::optional<int32_t> choice;  ///< none: refused
  } kRows[] = {{kAllModes, 1, V4L2_EXPOSURE_MANUAL},
               {kAllModes, 2, V4L2_EXPOSURE_AUTO},
               {kAllModes, 4, V4L2_EXPOSURE_SHUTTER_PRIORITY},
               {kAllModes, 8, V4L2_EXPOSURE_APERTURE_PRIORITY},
               {kAllModes, 3, std::nullopt},
               {0b1010, 4, std::nullopt},
               {0b0011, 8, V4L2_EXPOSURE_AUTO},
               {0b0011, 1, V4L2_EXPOSURE_MANUAL}};
  FakeControls::Control& control = controls().controls[7];
  ASSERT_EQ(control.id, uint32_t{V4L2_CID_EXPOSURE_AUTO});
  for (const auto& row : kRows) {
    control.choices = row.choices;
    control.current = V4L2_EXPOSURE_MANUAL;
    EXPECT_EQ(set(kCameraControlSet, kAutoExposureMode, {row.mode}), row.choice ? kVCISuccess : kVCIInvalidArgument)
        << int{row.mode};
    EXPECT_EQ(*control.current, row.choice.value_or(V4L2_EXPOSURE_MANUAL)) << int{row.mode};
    if (!row.choice) continue;
    EXPECT_EQ(get(kCameraControlSet, kAutoExposureMode), Bytes({row.mode}));
  }
}

TEST_F(LinuxCameraControls, RefuseWhatCannotBeSetAndChangeNothing) {
  const struct {
    const char* label;
    const PropertySetIdentifier& set;
    uint32_t number;
    Bytes value;
    int32_t status;
  } rows[] = {
      {"below", kImageControlSet, kBrightness, {0x9C, 0xFF}, kVCIInvalidArgument},
      {"above", kImageControlSet, kBrightness, {65, 0}, kVCIInvalidArgument},
      {"no switch", kMirrorSet, kMirror, {2}, kVCIInvalidArgument},
      {"ruled by a mode", kCameraControlSet, kExposure, {100, 0, 0, 0}, kVCIFailed},
      {"ruled by a switch", kImageControlSet, kWhiteBalance, {0, 16}, kVCIFailed},
      {"held by another", kCameraControlSet, kFocus, {20, 0}, kVCIBusy},
      {"only to be read", kCameraControlSet, kZoom, {200, 0, 0, 0}, kVCIFailed},
      {"not there", kCameraControlSet, kAutoFocus, {1}, kVCIPropertyNotSupported},
      {"disabled", kImageControlSet, kSharpness, {1, 0}, kVCIPropertyNotSupported},
      {"no such set", kSunTrimSet, kSunTrim, {1}, kVCIPropertyNotSupported},
  };
  for (const auto& row : rows) EXPECT_EQ(set(row.set, row.number, row.value), row.status) << row.label;
  controls().controls[7].current = V4L2_EXPOSURE_MANUAL;
  EXPECT_EQ(set(kCameraControlSet, kExposure, {0, 0, 0, 0x80}), kVCIInvalidArgument) << "not below";
  EXPECT_TRUE(controls(kFirst).settings.empty());
  EXPECT_TRUE(controls(kSecond).settings.empty());
  EXPECT_EQ(getStatus(kImageControlSet, kWhiteBalance), kVCISuccess) << "what a mode rules can be read";
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness, kRequestMaximum + 1), kVCIInvalidArgument);
  EXPECT_EQ(getStatus(kImageControlSet, kSharpness), kVCIPropertyNotSupported);
}

TEST_F(LinuxCameraControls, ReportWhatADriversErrorMeans) {
  constexpr struct {
    unsigned long request;
    int error;
    int32_t status;
  } kRows[] = {{VIDIOC_S_EXT_CTRLS, EACCES, kVCIFailed},
               {VIDIOC_S_EXT_CTRLS, EIO, kVCIFailed},
               {VIDIOC_S_EXT_CTRLS, EBUSY, kVCIBusy},
               {VIDIOC_S_EXT_CTRLS, ERANGE, kVCIInvalidArgument},
               {VIDIOC_S_EXT_CTRLS, EILSEQ, kVCIFailed},
               {VIDIOC_S_EXT_CTRLS, EPROTO, kVCIFailed},
               {VIDIOC_S_EXT_CTRLS, EPIPE, kVCIFailed},
               {VIDIOC_G_EXT_CTRLS, EPIPE, kVCIFailed},
               {VIDIOC_G_EXT_CTRLS, ETIMEDOUT, kVCIFailed},  // once
               // A camera that fails to answer is not one that lacks the control.
               {VIDIOC_QUERY_EXT_CTRL, EIO, kVCIFailed},
               {VIDIOC_QUERY_EXT_CTRL, ENOTTY, kVCIPropertyNotSupported}};
  for (const auto& row : kRows) {
    mCalls->failNext(kFirst, row.request, row.error);
    const bool isSetting = row.request == VIDIOC_S_EXT_CTRLS;
    const int32_t status =
        isSetting ? set(kImageControlSet, kBrightness, {1, 0}) : getStatus(kImageControlSet, kBrightness);
    EXPECT_EQ(status, row.status) << row.error;
    EXPECT_TRUE(mCalls->isCalm(kFirst));
    EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCISuccess) << "and goes on";
  }
  mCalls->remove(kFirst);
  mCalls->remove(kSecond);
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCIFailed);
  EXPECT_EQ(set(kCameraControlSet, kPanTilt, Bytes(8)), kVCIFailed);
  EXPECT_EQ(getStatus(kVendorSet, 1), kVCIFailed);
  EXPECT_TRUE(mCamera->propertyItems(kImageControlSet).empty());
}

TEST_F(LinuxCameraControls, AreNotAskedAgainForAWhileOfACameraThatHangs) {
  constexpr int64_t kSeconds = 1'000'000;
  test::LogRecorder log;
  const auto statusOfOneThatHangs = [this] {
    mCalls->failNext(kFirst, VIDIOC_G_EXT_CTRLS, ETIMEDOUT);
    return getStatus(kImageControlSet, kBrightness);
  };
  EXPECT_EQ(statusOfOneThatHangs(), kVCIFailed);
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCISuccess) << "one may come from a busy moment";
  mCalls->pass(31 * kSeconds);
  EXPECT_EQ(statusOfOneThatHangs(), kVCIFailed);
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCISuccess) << "as may one of long after";
  EXPECT_TRUE(log.items().empty());
  EXPECT_EQ(statusOfOneThatHangs(), kVCIFailed);
  EXPECT_EQ(log.items().size(), 1u);
  EXPECT_EQ(statusOfOneThatHangs(), kVCIFailed);
  EXPECT_EQ(set(kImageControlSet, kBrightness, {1, 0}), kVCIFailed);
  EXPECT_EQ(getStatus(kVendorSet, 1), kVCIFailed);
  EXPECT_FALSE(mCalls->isCalm(kFirst)) << "the camera was not asked";
  EXPECT_TRUE(controls(kFirst).settings.empty());
  EXPECT_EQ(getStatus(kCameraControlSet, kFocus), kVCISuccess) << "its other node answers";
  mCalls->pass(10 * kSeconds);
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCIFailed) << "asked again, it still hangs";
  EXPECT_TRUE(mCalls->isCalm(kFirst));
  mCalls->pass(10 * kSeconds);
  EXPECT_EQ(getStatus(kImageControlSet, kBrightness), kVCISuccess);
  EXPECT_EQ(log.items().size(), 1u);
}

TEST_F(LinuxCameraControls, HeadsTurnByTheirOwnSpeedOrStep) {
  using Row = std::pair<Bytes, Settings>;
  const auto expectTurns = [this](std::vector<Row> rows) {
    for (const auto& [value, made] : rows) {
      EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, value), kVCISuccess);
      EXPECT_EQ(lastSettings(kSecond), made) << int{value[0]} << " " << int{value[2]};
    }
  };
  expectTurns({{{1, 0, 0, 0}, {{V4L2_CID_PAN_SPEED, 1}, {V4L2_CID_TILT_SPEED, 0}}},
               {{0xFF, 0, 0xFF, 0}, {{V4L2_CID_PAN_SPEED, -1}, {V4L2_CID_TILT_SPEED, -5}}},
               {{1, 4, 0xFF, 2}, {{V4L2_CID_PAN_SPEED, 4}, {V4L2_CID_TILT_SPEED, -2}}}});
  EXPECT_EQ(get(kCameraControlSet, kRelativePanTilt), Bytes({1, 4, 0xFF, 2}));
  EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {1, 8, 0, 0}), kVCIInvalidArgument);
  expectTurns({{{0, 0, 0, 0}, {{V4L2_CID_PAN_SPEED, 0}, {V4L2_CID_TILT_SPEED, 0}}}});

  EXPECT_EQ(get(kRelativeMotionSet, kMotionPanTilt), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(get(kRelativeMotionSet, kMotionPanTilt, kRequestMaximum), Bytes({0x80, 0x0C, 0x40, 0x06}));
  EXPECT_EQ(set(kRelativeMotionSet, kMotionPanTilt, {0x40, 0, 0xC0, 0xFF}), kVCISuccess);
  EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_PAN_RELATIVE, 64}, {V4L2_CID_TILT_RELATIVE, -64}}));
  EXPECT_EQ(set(kRelativeMotionSet, kMotionReset, {kResetPanAndTilt}), kVCISuccess);
  EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_PAN_RESET, 1}, {V4L2_CID_TILT_RESET, 1}}));
  EXPECT_EQ(set(kRelativeMotionSet, kMotionReset, {2}), kVCISuccess);
  EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_TILT_RESET, 1}}));
  EXPECT_EQ(set(kRelativeMotionSet, kMotionReset, {4}), kVCIInvalidArgument);
  EXPECT_EQ(set(kCameraControlSet, kRelativeZoom, longs({-2})), kVCISuccess);
  EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_ZOOM_CONTINUOUS, -2}}));
  EXPECT_EQ(get(kCameraControlSet, kRelativeZoom), Bytes({0, 0, 0, 0}));

  auto& all = controls(kSecond).controls;
  all.erase(all.begin(), all.begin() + 2);
  expectTurns({{{1, 0, 0, 0}, {{V4L2_CID_PAN_RELATIVE, 200}, {V4L2_CID_TILT_RELATIVE, 0}}},
               {{0, 0, 0xFF, 9}, {{V4L2_CID_PAN_RELATIVE, 0}, {V4L2_CID_TILT_RELATIVE, -100}}}});
  EXPECT_EQ(get(kCameraControlSet, kRelativePanTilt), Bytes({0, 0, 0, 0}));
  all.erase(all.begin() + 2);  // a head that only turns sideways
  EXPECT_EQ(set(kRelativeMotionSet, kMotionPanTilt, {1, 0, 1, 0}), kVCISuccess);
  EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_PAN_RELATIVE, 1}}));
}

TEST_F(LinuxCameraControls, NudgesGoAtTheHeadsOwnSpeedAsFarAsItGoesThatWay) {
  constexpr struct {
    const char* label;
    int64_t minimum, maximum, usual;
    int32_t there, back;
  } kRows[] = {{"the slowest reported as the minimum", -1, 7, 4, 4, -1},
               {"both ways", -8, 8, 4, 4, -4},
               {"a default that it does not reach", -3, 3, 5, 3, -3},
               {"no default", -5, 5, 0, 5, -5}};
  for (const auto& row : kRows) {
    auto& pan = controls(kSecond).controls[0];
    ASSERT_EQ(pan.id, uint32_t{V4L2_CID_PAN_SPEED});
    pan = {V4L2_CID_PAN_SPEED, row.minimum, row.maximum, row.usual};
    for (const auto& [direction, speed] : {std::pair(uint8_t{1}, row.there), std::pair(uint8_t{0xFF}, row.back)}) {
      EXPECT_EQ(set(kCameraControlSet, kRelativePanTilt, {direction, 0, 0, 0}), kVCISuccess) << row.label;
      EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_PAN_SPEED, speed}, {V4L2_CID_TILT_SPEED, 0}})) << row.label;
    }
  }
}

TEST_F(LinuxCameraControls, AHeadsPositionsDoNotStandInEachOthersWay) {
  const auto turnTo = [this](int32_t pan, int32_t tilt) {
    return set(kCameraControlSet, kPanTilt, longs({pan, tilt}));
  };
  FakeControls::Control& tilt = controls().controls[10];
  ASSERT_EQ(tilt.id, uint32_t{V4L2_CID_TILT_ABSOLUTE});
  tilt.current = 7300;  // more than its maximum
  EXPECT_EQ(turnTo(3600, 7300), kVCISuccess);
  EXPECT_EQ(lastSettings(), Settings({{V4L2_CID_PAN_ABSOLUTE, 3600}, {V4L2_CID_TILT_ABSOLUTE, 7200}}));
  EXPECT_EQ(turnTo(-40000, 0), kVCISuccess);
  EXPECT_EQ(lastSettings(), Settings({{V4L2_CID_PAN_ABSOLUTE, -36000}, {V4L2_CID_TILT_ABSOLUTE, 0}}));

  tilt.flags = V4L2_CTRL_FLAG_READ_ONLY;
  tilt.current = 7300;
  const size_t before = controls().settings.size();
  EXPECT_EQ(turnTo(3600, 100), kVCIFailed);
  EXPECT_EQ(controls().settings.size(), before);
  EXPECT_EQ(turnTo(3600, 7300), kVCISuccess);
  EXPECT_EQ(lastSettings(), Settings({{V4L2_CID_PAN_ABSOLUTE, 3600}}));
  controls().controls[9].flags = V4L2_CTRL_FLAG_READ_ONLY;
  EXPECT_EQ(turnTo(3600, 7300), kVCIFailed);
}

TEST_F(LinuxCameraControls, ZoomsGoOutAndStopWhereTheRangeIsReportedAsPositive) {
  auto& zoom = controls(kSecond).controls[2];
  ASSERT_EQ(zoom.id, uint32_t{V4L2_CID_ZOOM_CONTINUOUS});
  zoom.minimum = 1;
  zoom.maximum = 7;
  EXPECT_EQ(get(kCameraControlSet, kRelativeZoom, kRequestMinimum), longs({-7}));
  for (const int32_t speed : {-7, -1, 0, 7}) {
    EXPECT_EQ(set(kCameraControlSet, kRelativeZoom, longs({speed})), kVCISuccess);
    EXPECT_EQ(lastSettings(kSecond), Settings({{V4L2_CID_ZOOM_CONTINUOUS, speed}}));
  }
  EXPECT_EQ(set(kCameraControlSet, kRelativeZoom, longs({-8})), kVCIInvalidArgument);
}

TEST_F(LinuxCameraControls, ListWhatIsOnAnyOfTheCamerasNodes) {
  EXPECT_EQ(mCamera->propertySets(), std::vector<PropertySetIdentifier>({kCameraControlSet, kImageControlSet,
                                                                         kMirrorSet, kRelativeMotionSet, kVendorSet}));
  using Items = std::vector<uint32_t>;
  EXPECT_EQ(mCamera->propertyItems(kCameraControlSet),
            Items({kAutoExposureMode, kExposure, kFocus, kZoom, kRelativeZoom, kPanTilt, kRelativePanTilt}));
  EXPECT_EQ(mCamera->propertyItems(kRelativeMotionSet), Items({kMotionPanTilt, kMotionReset}));
  EXPECT_EQ(mCamera->propertyItems(kVendorSet), Items({1, 4, 9}));
  EXPECT_EQ(mCamera->propertyItems(kSunTrimSet), Items());
}

TEST_F(LinuxCameraControls, ExtensionUnitsAnswerByTheirIdentifier) {
  EXPECT_EQ(get(kVendorSet, 1), Bytes({5, 2, 0x34, 0x12}));
  EXPECT_EQ(get(kVendorSet, 1, kRequestMaximum, 4), Bytes({0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(get(kVendorSet, 9), Bytes({42})) << "the unit on the other node";
  EXPECT_EQ(set(kVendorSet, 4, {1, 9}), kVCISuccess);
  EXPECT_EQ(get(kVendorSet, 4, kRequestDefault), Bytes({1, 9}));

  EXPECT_EQ(get(kVendorSet, 1, kRequestCurrent, 3), Bytes({5, 2, 0x34})) << "the first of what it reports";
  EXPECT_EQ(set(kVendorSet, 4, {1}), kVCIInvalidArgument);
  EXPECT_EQ(set(kVendorSet, 1, {1, 2, 3, 4}), kVCIFailed) << "only to be read";
  EXPECT_EQ(getStatus(kVendorSet, 4, kRequestMinimum), kVCIFailed) << "not reported";
  for (const uint32_t number : {0u, 2u, 1u + 256u}) {
    EXPECT_EQ(getStatus(kVendorSet, number), kVCIPropertyNotSupported) << number;
    EXPECT_EQ(set(kVendorSet, number, {1}), kVCIPropertyNotSupported) << number;
  }
  mCalls->failNext(kFirst, UVCIOC_CTRL_QUERY, EPIPE);
  EXPECT_EQ(getStatus(kVendorSet, 1), kVCIFailed);

  EXPECT_EQ(get(kMirrorSet, kMirror), Bytes({0})) << "the control";
  open({{1, 5, kMirrorSet, {kMirror}}});
  EXPECT_EQ(get(kMirrorSet, kMirror), Bytes({1})) << "the maker's own goes before it";
  EXPECT_EQ(mCamera->propertyItems(kMirrorSet), std::vector<uint32_t>({kMirror}));
}

TEST_F(LinuxCameraControls, KeyFramesAreAskedForByControlOrByUnit) {
  mCamera->requestKeyFrame();  // has neither
  EXPECT_EQ(controls().settings.size() + controls(kSecond).settings.size(), 0u);
  controls(kSecond).units[{6, 9}] = {{0, 0, 0, 0}};
  open({{1, 6, propertySetIdentifier("A29E7641-DE04-47E3-8B2B-F4341AFF003B"), {9}}});
  mCamera->requestKeyFrame();
  EXPECT_EQ((controls(kSecond).units[{6, 9}].bytes), Bytes({0, 0, 1, 0}));
  controls().controls.push_back({V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 0, 0, 0, V4L2_CTRL_FLAG_WRITE_ONLY});
  mCamera->requestKeyFrame();
  EXPECT_EQ(lastSettings(), Settings({{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 0}}));
}

/// The beginning of a real camera's descriptors: the device, its configuration, the control interface with
/// an extension unit, and the streaming interface, in which the same subtype means a format.
constexpr uint8_t kDescriptors[] = {
    0x12, 0x01, 0x00, 0x02, 0xEF, 0x02, 0x01, 0x40, 0x34, 0x12, 0x78, 0x56, 0x02, 0x01, 0x01, 0x02, 0x03, 0x01,  //
    0x09, 0x02, 0x16, 0x02, 0x04, 0x01, 0x00, 0x80, 0xFA,                                                        //
    0x08, 0x0B, 0x00, 0x02, 0x0E, 0x03, 0x00, 0x02,                                                              //
    0x09, 0x04, 0x00, 0x00, 0x00, 0x0E, 0x01, 0x00, 0x02,                                                        //
    0x0D, 0x24, 0x01, 0x10, 0x01, 0x4E, 0x00, 0x40, 0x42, 0x0F, 0x00, 0x01, 0x01,                                //
    0x12, 0x24, 0x02, 0x01, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x2E, 0x0A, 0x02,  //
    0x0C, 0x24, 0x05, 0x02, 0x01, 0x00, 0x00, 0x02, 0x5F, 0x17, 0x00, 0x00,                                      //
    0x1A, 0x24, 0x06, 0x03, 0xD4, 0xC3, 0xB2, 0xA1, 0xF6, 0xE5, 0x11, 0x47, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD,  //
    0xEE, 0xFF, 0x04, 0x01, 0x02, 0x01, 0x0F, 0x00,                                                              //
    0x09, 0x24, 0x03, 0x04, 0x01, 0x01, 0x00, 0x03, 0x00,                                                        //
    0x09, 0x04, 0x01, 0x00, 0x01, 0x0E, 0x02, 0x00, 0x00,                                                        //
    0x10, 0x24, 0x01, 0x03, 0x2F, 0x01, 0x81, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,              //
    0x1A, 0x24, 0x06, 0x01, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x00, 0x00, 0x04, 0x01, 0x02, 0x01, 0x0F, 0x00};
constexpr size_t kUnitAt = 18 + 9 + 8 + 9 + 13 + 18 + 12, kUnitLength = 26;
static_assert(kDescriptors[kUnitAt] == kUnitLength && kDescriptors[kUnitAt + 2] == 6);

TEST(ExtensionUnits, AreFoundInWholeDescriptorsOnly) {
  const std::span<const uint8_t> all(kDescriptors);
  const auto units = parseExtensionUnits(all, 0);
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0].id, 3);
  EXPECT_EQ(units[0].identifier, kVendorSet);
  EXPECT_EQ(units[0].selectors, std::vector<uint32_t>({1, 2, 3, 4}));
  EXPECT_TRUE(parseExtensionUnits(all, 1).empty()) << "of another function";
  for (size_t length = 0; length < all.size(); ++length) {
    const Bytes cut(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(length));  // of its own size: nothing behind
    EXPECT_EQ(parseExtensionUnits(cut, 0).size(), length >= kUnitAt + kUnitLength ? 1u : 0u) << length;
  }

  const struct {
    size_t at;
    uint8_t value;
    std::vector<uint32_t> selectors;                  ///< empty: no unit is found
  } rows[] = {{0, 0, {}},                             // a descriptor that never ends
              {0, 255, {}},                           // or reaches far behind the end
              {kUnitAt, 22, {}},                      // too short for its sources
              {kUnitAt + 1, 0x25, {}},                // of another class
              {kUnitAt + 21, 4, {}},                  // more sources than there is room for
              {kUnitAt + 21, 255, {}},                //
              {kUnitAt + 21, 0, {1, 9, 10, 11, 12}},  // none, so that the next byte is the mask's length
              {kUnitAt + 23, 3, {}},                  // a mask that is not whole
              {kUnitAt + 24, 0x81, {1, 8}},
              {18 + 9 + 8 + 5, 0xFF, {}}};  // an interface that is no camera's
  for (const auto& row : rows) {
    Bytes bytes(all.begin(), all.end());
    bytes[row.at] = row.value;
    const auto found = parseExtensionUnits(bytes, 0);
    ASSERT_EQ(found.size(), row.selectors.empty() ? 0u : 1u) << row.at << " " << int{row.value};
    if (!found.empty()) {
      EXPECT_EQ(found[0].selectors, row.selectors) << row.at;
    }
  }
}

class ExtensionUnitFolders : public testing::Test {
 protected:
  /// A USB device with two video functions, and a node of each.
  void SetUp() override {
    Bytes both(std::begin(kDescriptors), std::end(kDescriptors));
    Bytes other = both;
    other[18 + 9 + 8 + 2] = 4;  // the number of the control interface
    other[kUnitAt + 3] = 7;
    both.insert(both.end(), other.begin(), other.end());
    mFolder.write("descriptors", {both.begin(), both.end()});
    mNodes = {addNode("1-1:1.0", "00\n"), addNode("1-1:1.4", "04\n")};
  }
  std::string addNode(const std::string& interface, const std::string& number) const {
    std::string node = mFolder.file(interface) + "/video4linux/video0";
    std::filesystem::create_directories(node);
    std::filesystem::create_directory_symlink("../..", node + "/device");
    if (!number.empty()) mFolder.write(interface + "/bInterfaceNumber", number);
    return node;
  }

  const TemporaryFolder mFolder;
  std::vector<std::string> mNodes;
};

TEST_F(ExtensionUnitFolders, HaveTheUnitsOfTheNodesOwnFunction) {
  std::vector<ExtensionUnit> units;
  addExtensionUnits(mNodes[0], 0, units);
  addExtensionUnits(mNodes[1], 1, units);
  addExtensionUnits(addNode("serial", ""), 2, units);
  addExtensionUnits(mFolder.file("gone"), 3, units);
  ASSERT_EQ(units.size(), 2u);
  EXPECT_EQ(units[0].id, 3);
  EXPECT_EQ(units[0].node, 0u);
  EXPECT_EQ(units[1].id, 7);
  EXPECT_EQ(units[1].node, 1u);
}

TEST_F(ExtensionUnitFolders, AreReadForEachNodeThatCouldBeOpened) {
  auto calls = std::make_shared<FakeV4L2>();
  auto finder = std::make_unique<test::FakeCameraFinder>();
  FakeControls controls;
  controls.units[{7, 1}] = {{42}};
  std::vector<VideoNode> nodes = {test::usbNode(kFirst, "3", 0), test::usbNode(kSecond, "3", 1)};
  for (size_t at = 0; at < nodes.size(); ++at) {
    calls->addNode(nodes[at].node, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}}, .openError = at == 0 ? EBUSY : 0});
    nodes[at].systemPath = mNodes[at];
    nodes[at].capabilities = ":capture:";
  }
  calls->controlsOf(kSecond) = controls;
  finder->set(nodes);
  const test::LogRecorder log;
  LinuxCameras cameras(calls, std::move(finder));
  const auto devices = cameras.devices(DeviceKind::kVideo);
  ASSERT_EQ(devices.size(), 1u);
  const auto camera = cameras.open(DeviceKind::kVideo, devices[0].path);
  ASSERT_NE(camera, nullptr);
  uint8_t value = 0;
  uint32_t size = 1;
  EXPECT_EQ(camera->getProperty(kRequestCurrent, kVendorSet, 1, {&value, 1}, size), kVCISuccess);
  EXPECT_EQ(value, 42);
}

}  // namespace
}  // namespace vesk::capture
