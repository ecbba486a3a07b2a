#include "apps/camera/camera_controls_model.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include <vesk/video_device.h>
#include "apps/camera/camera_memory.h"
#include "apps/camera/text.h"
#include "capture/simulated/simulated_source.h"
#include "tests/support/device_test.h"
#include "tests/support/temporary_folder.h"

namespace vesk::camera {
namespace {

using capture::SimulatedSource;

/// Serves the main thread until something is so.
template <class Condition>
bool becomes(Condition isSo) {
  const gint64 end = g_get_monotonic_time() + 20 * G_TIME_SPAN_SECOND;
  while (!isSo()) {
    if (g_get_monotonic_time() > end) return false;
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(500);
  }
  return true;
}

constexpr CameraControlsModel::Times kHurry{std::chrono::milliseconds(1), std::chrono::milliseconds(1),
                                            std::chrono::milliseconds(1), std::chrono::milliseconds(1)};

/// A model, and what it has reported.
struct Model : CameraControlsModel {
  explicit Model(const test::TemporaryFolder& folder) : CameraControlsModel(folder.path(), kHurry) {
    onFailure = [this](const Error& error) { failures.push_back(error.what); };
  }
  void show(const std::shared_ptr<VeskDeviceInfo>& info) {
    setCamera(info);
    EXPECT_TRUE(becomes([&] { return isKnown(); }));
  }
  int64_t current(ControlID id) const { return find(id) ? find(id)->current : -1; }
  bool isAutomatic(ControlID id) const { return find(id) && find(id)->isAutomatic.value_or(false); }
  std::vector<std::string> failures;
};

struct SimulatedControls : testing::Test {
  SimulatedControls() { capture::setSource(source); }
  ~SimulatedControls() override {
    VeskDeviceManager::destroy();
    capture::setSource(nullptr);
  }
  static std::shared_ptr<VeskDeviceInfo> infoOf(const std::string& path) { return test::DeviceTest::infoOf(path); }
  /// The camera as another program has it.
  static std::shared_ptr<VeskVideoDevice> opened(const std::string& path = SimulatedSource::kCameraPath) {
    auto camera = VeskVideoDevice::initWithDeviceInfo(infoOf(path));
    EXPECT_EQ(camera->openDevice(), 0);
    return camera;
  }
  /// Another one of the same kind in its place, with everything at its default.
  void replug() {
    EXPECT_TRUE(source->unplug(SimulatedSource::kCameraPath));
    source->waitForHotplug();
    EXPECT_TRUE(source->plugIn(SimulatedSource::kCameraPath));
    source->waitForHotplug();
  }

  const std::shared_ptr<SimulatedSource> source = std::make_shared<SimulatedSource>();
  const test::TemporaryFolder folder;
};

TEST_F(SimulatedControls, WhatAPersonSetsComesBackWithTheCamera) {
  int64_t exposure = 0;
  {
    Model model(folder);
    model.show(infoOf(SimulatedSource::kCameraPath));
    model.set(ControlID::kBrightness, 41);
    EXPECT_EQ(model.current(ControlID::kBrightness), 41) << "shown at once";
    model.set(ControlID::kAutoExposure, 0);
    EXPECT_FALSE(model.isAutomatic(ControlID::kExposure)) << "no more grey";
    EXPECT_TRUE(becomes([] { return opened()->getBrightnessCur() == 41 && !opened()->isAutoExposureSet(); }));
    exposure = *opened()->getExposureCur();
    model.setCamera(nullptr);
    EXPECT_TRUE(model.controls().empty());
  }
  // The time that the mode had found is kept along, since the camera forgets it.
  const auto before = opened();
  EXPECT_EQ(CameraMemory(folder.path(), *before->deviceInfo()).settings(),
            (ControlValues{{"autoExposure", 0}, {"brightness", 41}, {"exposure", exposure}}));
  replug();
  ASSERT_NE(opened()->getBrightnessCur(), 41);

  Model model(folder);
  model.show(infoOf(SimulatedSource::kCameraPath));
  EXPECT_EQ(model.current(ControlID::kBrightness), 41);
  EXPECT_FALSE(model.isAutomatic(ControlID::kExposure));
  EXPECT_EQ(opened()->getBrightnessCur(), 41);
  EXPECT_EQ(model.failures, std::vector<std::string>());

  // A control is reset with its mode; once all are, nothing is kept.
  model.reset(ControlID::kExposure);
  EXPECT_TRUE(becomes([] { return opened()->isAutoExposureSet(); }));
  EXPECT_EQ(opened()->getBrightnessCur(), 41);
  model.resetAll();
  EXPECT_TRUE(becomes([] { return opened()->getBrightnessCur() == opened()->getBrightnessDefault(); }));
  model.setCamera(nullptr);
  const CameraMemory memory(folder.path(), *before->deviceInfo());
  EXPECT_TRUE(becomes([&] { return memory.settings().empty(); }));
}

TEST_F(SimulatedControls, OtherProgramsChangesShowWhileSomebodyWatches) {
  Model model(folder);
  model.show(infoOf(SimulatedSource::kCameraPath));
  model.setWatched(true);
  const auto other = opened();
  other->setContrastCur(17);
  EXPECT_TRUE(becomes([&] { return model.current(ControlID::kContrast) == 17; }));
  other->setAutoFocusCur(0);
  EXPECT_TRUE(becomes([&] { return !model.isAutomatic(ControlID::kFocus); }));
  model.setCamera(nullptr);
  EXPECT_TRUE(CameraMemory(folder.path(), *other->deviceInfo()).settings().empty()) << "they are not this person's";
}

TEST_F(SimulatedControls, PresetsAreSavedAppliedRenamedAndRemoved) {
  Model model(folder);
  model.show(infoOf(SimulatedSource::kCameraPath));
  const std::vector<std::string> names = {"../../Küche/1", ".hidden", "Bühne 100 %"};
  for (size_t i = 0; i < names.size(); ++i) {
    model.set(ControlID::kBrightness, static_cast<int64_t>(i) + 10);
    model.savePreset(names[i]);
  }
  EXPECT_TRUE(becomes([&] { return model.presets().size() == names.size(); }));
  for (const std::string& name : names)
    EXPECT_NE(std::find(model.presets().begin(), model.presets().end(), name), model.presets().end()) << name;

  model.applyPreset(names[0]);
  EXPECT_TRUE(becomes([&] { return model.current(ControlID::kBrightness) == 10; }));
  EXPECT_EQ(opened()->getBrightnessCur(), 10);
  EXPECT_TRUE(opened()->isAutoExposureSet());

  model.renamePreset(names[0], names[1]);
  EXPECT_TRUE(becomes([&] { return model.failures.size() == 1; })) << "there is one of that name";
  model.renamePreset(names[0], "Kitchen");
  model.removePreset(names[1]);
  model.savePreset("");
  EXPECT_TRUE(becomes([&] { return model.failures.size() == 2; })) << "a preset needs a name";
  EXPECT_EQ(model.presets(), (std::vector<std::string>{"Bühne 100 %", "Kitchen"}));
  EXPECT_TRUE(becomes([&] { return CameraMemory(folder.path(), *model.camera()).settings()["brightness"] == 10; }));
}

TEST_F(SimulatedControls, HeadsMoveWhileHeldAndStop) {
  {
    Model model(folder);  // a head that is sent to positions
    model.show(infoOf(SimulatedSource::kCameraPath));
    const ControlState pan = *model.find(ControlID::kPan);
    model.startMoving(HeadTurn::kRight);
    EXPECT_TRUE(becomes([&] { return model.current(ControlID::kPan) == pan.maximum; })) << "and no further";
    model.stopMoving();
    model.moveOnce(HeadTurn::kZoomIn);
    EXPECT_TRUE(becomes([&] { return opened()->getZoomCur() > opened()->getZoomDef(); }));
    model.centre();
    EXPECT_TRUE(becomes([&] { return model.current(ControlID::kPan) == pan.initial; }));
    EXPECT_EQ(model.failures, std::vector<std::string>());
  }
  Model model(folder);  // one that is nudged
  model.show(infoOf(SimulatedSource::kPlainCameraPath));
  ASSERT_TRUE(model.canMove(HeadTurn::kUp));
  const auto turns = [&] {
    const auto moves = source->headMoves(SimulatedSource::kPlainCameraPath);
    return std::count_if(moves.begin(), moves.end(),
                         [](const auto& move) { return move.kind == capture::HeadMove::Kind::kTurn; });
  };
  model.startMoving(HeadTurn::kRight);
  EXPECT_TRUE(becomes([&] { return turns() >= 2; }));
  model.stopMoving();
  model.setCamera(nullptr);  // lets the step under way end
  model.show(infoOf(SimulatedSource::kPlainCameraPath));
  const auto moves = source->headMoves(SimulatedSource::kPlainCameraPath);
  EXPECT_EQ(moves.back().kind, capture::HeadMove::Kind::kStop);
  EXPECT_GT(moves.back().pan, 0) << "to the right as the camera looks";
  EXPECT_LE(turns(), 4);
}

TEST_F(SimulatedControls, TheFormatIsKeptForTheCameraAndOfferedInWords) {
  const auto info = infoOf(SimulatedSource::kCameraPath);
  {
    Model model(folder);
    model.show(info);
    ASSERT_TRUE(model.format().format);
    EXPECT_EQ(sizeName(model.format().format->dimensions()), "720p (1280 × 720)") << "automatic";
    EXPECT_EQ(sizesIn(model.formats(), std::nullopt).front(), (CMVideoDimensions{1920, 1080}));
    EXPECT_EQ(rateName(ratesIn(model.formats(), {}).back()), "7.5 a second");
    EXPECT_FALSE(model.isEncodedHere());
    model.setFormat({kCMPixelFormat_422YpCbCr8, CMVideoDimensions{640, 480}, 15.0});
    EXPECT_TRUE(becomes([&] { return model.format().request.rate == 15.0; }));
    // 640 × 480 × 2 bytes × 15 a second × 60 s
    EXPECT_EQ(costText(model.format(), false),
              "640 × 480, 15 a second. About " + sizeText(552'960'000) + " a minute. The disk must be fast.");
  }
  Model model(folder);
  model.show(info);
  EXPECT_EQ(model.format().format->mediaSubType(), kCMPixelFormat_422YpCbCr8);
  model.setCamera(nullptr);

  const CameraMemory memory(folder.path(), *info);
  EXPECT_FALSE(memory.keepFormat(VideoFormatRequest{{}, CMVideoDimensions{123, 45}, {}}));
  model.show(info);
  EXPECT_EQ(model.format().format->dimensions(), (CMVideoDimensions{1280, 720})) << "it does not have that";
  EXPECT_TRUE(memory.format()) << "but may again, at another port";
}

struct SlowControls : test::DeviceTest {
  /// A camera that only has brightness, whose motor takes until it is let go.
  std::shared_ptr<test::FakeDevice> slowCamera() {
    auto camera = source->attachCamera("slow");
    camera->answerProperty = [this](const test::PropertyCall& call, std::span<uint8_t> value) -> int32_t {
      const CameraControl& brightness = cameraControl(ControlID::kBrightness);
      if (call.set != brightness.set || call.number != brightness.number) return 14;
      if (call.isWrite) {
        isWriting = true;
        go.wait();
        if (refuses) return 8;
        level = static_cast<int16_t>(call.value[0] | call.value[1] << 8);
        written.push_back(level);
        return 0;
      }
      const auto request = static_cast<ControlRequest>(call.request);
      const int answer = request == ControlRequest::kMaximum   ? 100
                         : request == ControlRequest::kCurrent ? level.load()
                                                               : 0;
      value[0] = static_cast<uint8_t>(answer);
      value[1] = 0;
      return 0;
    };
    return camera;
  }

  std::promise<void> mayGo;
  std::shared_future<void> go = mayGo.get_future().share();
  std::atomic<bool> isWriting = false;
  std::atomic<bool> refuses = false;
  std::atomic<int16_t> level = 5;
  std::vector<int16_t> written;
  const test::TemporaryFolder folder;
};

TEST_F(SlowControls, TheNewestOfManyValuesIsSetAndNobodyWaits) {
  const auto camera = slowCamera();
  Model model(folder);
  model.show(infoOf("slow"));
  model.setWatched(true);
  model.set(ControlID::kBrightness, 1);
  EXPECT_TRUE(becomes([&] { return isWriting.load(); }));
  for (int value = 2; value <= 60; ++value) model.set(ControlID::kBrightness, value);
  EXPECT_EQ(model.current(ControlID::kBrightness), 60);
  mayGo.set_value();
  bool wasOlder = false;
  EXPECT_TRUE(becomes([&] {
    wasOlder = wasOlder || model.current(ControlID::kBrightness) != 60;
    return level == 60;
  }));
  EXPECT_FALSE(wasOlder) << "what the camera has meanwhile is not shown";
  model.setCamera(nullptr);
  EXPECT_TRUE(becomes([&] { return camera->closed > 0; }));
  EXPECT_EQ(written, (std::vector<int16_t>{1, 60}));
}

TEST_F(SlowControls, WhatIsRefusedIsSaidAndShownAsItIs) {
  slowCamera();
  Model model(folder);
  model.show(infoOf("slow"));
  refuses = true;
  mayGo.set_value();
  model.set(ControlID::kBrightness, 50);
  EXPECT_TRUE(becomes([&] { return !model.failures.empty(); }));
  EXPECT_EQ(model.current(ControlID::kBrightness), 5);
  EXPECT_EQ(model.failures.front().find("a setting was not applied: Brightness ("), 0U) << model.failures.front();
}

TEST_F(SlowControls, ACameraThatCannotBeOpenedYetIsTriedAgain) {
  const auto camera = slowCamera();
  camera->refusesToOpen = true;
  Model model(folder);
  model.setCamera(infoOf("slow"));
  EXPECT_TRUE(becomes([&] { return !model.failures.empty(); })) << "in the end it is said";
  EXPECT_EQ(model.failures.size(), 1U);
  camera->refusesToOpen = false;
  model.setCamera(nullptr);
  model.show(infoOf("slow"));
}

}  // namespace
}  // namespace vesk::camera
