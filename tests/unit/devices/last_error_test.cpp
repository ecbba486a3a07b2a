#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include <vesk/video_device.h>
#include "capture/encoding/h264_encoder.h"
#include "capture/linux/cameras/linux_cameras.h"
#include "capture/linux/sound/pulse_connection.h"
#include "capture/linux/sound/sound_source.h"
#include "capture/simulated/simulated_source.h"
#include "tests/support/device_test.h"
#include "tests/support/fake_sound_server.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

// Why something failed, as a host reads it.

namespace vesk {
namespace {

using capture::DeviceKind;

constexpr const char* kNode = "/dev/video0";

/// What is expected of an error.
struct Reason {
  Cause cause;
  const char* words;   ///< in the line that says what failed
  const char* remedy;  ///< among what to do; empty for no remedy
};

void expectError(const Error& error, const Reason& reason, const std::string& label) {
  SCOPED_TRACE(label);
  test::expectError(error, reason.cause, reason.words);
  EXPECT_NE(error.remedy.find(reason.remedy), std::string::npos) << error.remedy;
  EXPECT_EQ(error.remedy.empty(), *reason.remedy == '\0') << error.remedy;
  for (const std::string& text : {error.what, error.remedy}) {
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find("vesk "), std::string::npos) << "a command of a program";
  }
  EXPECT_FALSE(error.what.ends_with(".")) << error.what;
}

std::shared_ptr<VeskVideoDevice> firstCamera() {
  const auto records = VeskVideoDevice::getVideoDeviceList();
  return records->empty() ? nullptr : VeskVideoDevice::initWithDeviceInfo(records->front());
}

struct LastErrorTest : test::DeviceTest {
  test::LogRecorder mLog;
};

/// A camera of the fake kernel's, in a format that it has.
class LinuxErrorTest : public LastErrorTest {
 protected:
  std::shared_ptr<VeskVideoDevice> plugIn(int openError = 0) {
    mCalls = std::make_shared<test::FakeV4L2>();
    test::FakeControls controls;
    controls.controls = {{V4L2_CID_BRIGHTNESS, 0, 10, 5}};
    mCalls->addNode(kNode,
                    {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}}, .openError = openError, .controls = controls});
    auto finder = std::make_unique<test::FakeCameraFinder>();
    finder->set({test::usbNode(kNode, "3", 0, 1)});
    VeskDeviceManager::destroy();
    capture::setSource(std::make_shared<capture::LinuxCameras>(mCalls, std::move(finder)));
    return firstCamera();
  }

  std::shared_ptr<test::FakeV4L2> mCalls;
};

TEST_F(LinuxErrorTest, SaysWhyACameraIsNotOpened) {
  const std::pair<int, Reason> rows[] = {
      {EACCES, {Cause::kNoPermission, "could not be opened: no permission to use /dev/video0", "group \"video\""}},
      {EBUSY, {Cause::kBusy, "could not be opened: another program", "Close that program."}},
      {ENODEV, {Cause::kUnplugged, "was unplugged", "Plug it in again."}},
      {EIO, {Cause::kNotAnswering, "does not answer", "Plug it in again."}},
  };
  for (const auto& [error, reason] : rows) {
    const auto camera = plugIn(error);
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->openDevice(), kVeskStatusFailed);
    expectError(camera->lastError(), reason, std::to_string(error));
    EXPECT_EQ(camera->lastError().subject, camera->deviceInfo()->name());
    EXPECT_EQ(capture::lastError(), camera->lastError());
  }
}

TEST_F(LinuxErrorTest, SaysWhyACameraDoesNotStart) {
  const struct {
    unsigned long request;
    int error;
    int32_t status;
    Reason reason;
  } rows[] = {
      {VIDIOC_STREAMON, ENOSPC, kVeskStatusFailed, {Cause::kNoBandwidth, "the USB bus has no room", "smaller size"}},
      {VIDIOC_S_FMT, EBUSY, kVeskStatusCameraInUse, {Cause::kBusy, "another program", "Close that program."}},
      {VIDIOC_STREAMON, EPROTO, kVeskStatusFailed, {Cause::kNotAnswering, "does not answer", "Plug it in again."}},
      {VIDIOC_REQBUFS, ENODEV, kVeskStatusFailed, {Cause::kUnplugged, "was unplugged", "Plug it in again."}},
      {VIDIOC_S_FMT, EINVAL, kVeskStatusFailed, {Cause::kRefused, "refuses the format", "another format"}},
  };
  for (const auto& row : rows) {
    const auto camera = plugIn();
    ASSERT_EQ(camera->openDevice(), 0);
    camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_MotionJPEG, 640, 480));
    mCalls->failNext(kNode, row.request, row.error);
    EXPECT_EQ(camera->startCapture(), row.status);
    expectError(camera->lastError(), row.reason, std::to_string(row.error));
    EXPECT_NE(camera->lastError().what.find("the camera \"Test Camera\""), std::string::npos);
    EXPECT_EQ(camera->startCapture(), 0);
    EXPECT_FALSE(camera->lastError()) << "it runs";
  }
}

TEST_F(LinuxErrorTest, SaysThatTheEncoderIsMissingWhereACameraNeedsIt) {
  const auto start = [](const std::shared_ptr<VeskVideoDevice>& camera) {
    EXPECT_EQ(camera->openDevice(), 0);
    camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_H264, 640, 480));
    capture::H264Encoder::pretendMissing(true);
    EXPECT_EQ(camera->startCapture(), kVeskStatusFailed);
    expectError(camera->lastError(), {Cause::kNoEncoder, "has no H.264 encoder", "Install a libavcodec"}, "missing");
    capture::H264Encoder::pretendMissing(false);
    EXPECT_EQ(camera->startCapture(), 0);
    camera->closeDevice();
  };
  start(plugIn());
  capture::H264Encoder::pretendMissing(true);
  const auto plain = plugIn();
  ASSERT_EQ(plain->openDevice(), 0);
  EXPECT_EQ(plain->getSupportedFormats()->size(), 1U) << "its own only";
  capture::H264Encoder::pretendMissing(false);
  VeskDeviceManager::destroy();
  capture::setSource(std::make_shared<capture::SimulatedSource>(capture::SourceOptions{}));
  start(firstCamera());
}

TEST_F(LinuxErrorTest, SaysWhyAFormatOrAControlIsNotSet) {
  const auto camera = plugIn();
  const CameraControl& brightness = cameraControl(ControlID::kBrightness);
  EXPECT_EQ(camera->startCapture(), kVeskStatusNotOpen);
  expectError(camera->lastError(), {Cause::kWrongUse, "\"Test Camera\" is not open", ""}, "closed");
  ASSERT_EQ(camera->openDevice(), 0);
  EXPECT_EQ(camera->startCapture(), kVeskStatusNoFormat);
  expectError(camera->lastError(), {Cause::kNoFormat, "no format has been chosen", ""}, "no format");
  EXPECT_EQ(camera->setCaptureFormat(CMVideoFormatDescription::create(kCMVideoCodecType_MotionJPEG, 641, 480)),
            kVeskStatusNoFormat);
  expectError(camera->lastError(), {Cause::kNoFormat, "does not offer this format", "its own formats"}, "another");
  EXPECT_FALSE(camera->getHueCur());
  expectError(camera->lastError(), {Cause::kNotSupported, "does not have this control", ""}, "hue");
  EXPECT_EQ(camera->getBrightnessCur(), 5);
  EXPECT_FALSE(camera->lastError());
  EXPECT_NE(camera->writeControl(brightness, 11), 0);
  expectError(camera->lastError(), {Cause::kRefused, "\"Test Camera\" refused the value", ""}, "out of range");

  const struct {
    int error;
    Reason reason;
  } rows[] = {{EACCES, {Cause::kRefused, "does not let this control be set", "automatic mode"}},
              {EBUSY, {Cause::kBusy, "another program", "Close that program."}},
              {EIO, {Cause::kNotAnswering, "does not answer", "Plug it in again."}},
              {ENODEV, {Cause::kUnplugged, "was unplugged", "Plug it in again."}}};
  for (const auto& row : rows) {
    mCalls->failNext(kNode, VIDIOC_S_EXT_CTRLS, row.error);
    EXPECT_NE(camera->writeControl(brightness, 7), 0);
    expectError(camera->lastError(), row.reason, std::to_string(row.error));
  }
}

TEST_F(LastErrorTest, OfSoundSaysWhetherThereIsAServerAndWhetherItAnswers) {
  const auto info = std::make_shared<VeskDeviceInfo>();
  info->setName("Headset");
  info->setPath("headset");
  info->setDeviceType(kVeskDeviceTypeAudio);
  test::FakeSoundServer server(test::FakeSoundServer::Manner::kAcknowledges);
  Error ignored;
  std::shared_ptr<capture::SoundSystem> system;
  for (capture::PulsePatience patience{std::chrono::milliseconds(20), std::chrono::hours(1)}; !system; ++patience.wait)
    system = makePulseSoundSystem(ignored, patience);
  capture::setSource(std::make_shared<capture::SoundSource>(system));
  VeskDeviceManager::getSharedInstance();
  const auto microphone = VeskAudioDevice::initWithDeviceInfo(info);

  server.behave(test::FakeSoundServer::Manner::kHangsUp);
  EXPECT_EQ(microphone->openDevice(), kVeskStatusFailed);
  expectError(microphone->lastError(), {Cause::kNoSoundServer, "there is no sound server", "Start"}, "gone");
  server.behave(test::FakeSoundServer::Manner::kHangs);
  EXPECT_EQ(microphone->openDevice(), kVeskStatusFailed);
  expectError(microphone->lastError(), {Cause::kNotAnswering, "the sound server does not answer", "Restart"}, "hangs");
}

TEST_F(LastErrorTest, OfSimulatedDevicesIsWhatTheyAreToldToFailWith) {
  const auto simulated = std::make_shared<capture::SimulatedSource>(capture::SourceOptions{});
  capture::setSource(simulated);
  const auto camera = firstCamera();
  const std::string path = camera->deviceInfo()->path().value_or("");
  simulated->setFaults(path, {.openFails = true});
  EXPECT_EQ(camera->openDevice(), kVeskStatusFailed);
  expectError(camera->lastError(), {Cause::kOther, "could not be opened", "Close other programs"}, "general");
  simulated->setFaults(path, {.openFails = true, .error = {Cause::kNoPermission, "not you", "Ask."}});
  EXPECT_EQ(camera->openDevice(), kVeskStatusFailed);
  expectError(camera->lastError(), {Cause::kNoPermission, "not you", "Ask."}, "given");
  simulated->setFaults(path, {.startStatus = kVCIBusy, .propertyStatus = kVCIFailed});
  ASSERT_EQ(camera->openDevice(), 0);
  camera->setFormat(camera->getSupportedFormats()->front());
  EXPECT_EQ(camera->startCapture(), kVeskStatusCameraInUse);
  expectError(camera->lastError(), {Cause::kBusy, "\"Simulated Camera\" is in use elsewhere", "Close other"}, "busy");
  EXPECT_FALSE(camera->getBrightnessCur());
  expectError(camera->lastError(), {Cause::kOther, "\"Simulated Camera\"", "Plug it in"}, "property");
  simulated->setFaults(path, {});
  camera->setAutoExposure(1);
  camera->setExposureCur(100);
  expectError(camera->lastError(), {Cause::kRefused, "does not let this control be set", "automatic mode"}, "ruled");
  simulated->unplug(path);
  EXPECT_EQ(camera->startCapture(), kVeskStatusFailed);
  expectError(camera->lastError(), {Cause::kUnplugged, "was unplugged", "Plug it in again."}, "out");
}

TEST_F(LastErrorTest, OfAMeterSaysWhyNoLevelComes) {
  const auto simulated = std::make_shared<capture::SimulatedSource>(capture::SourceOptions{});
  capture::setSource(simulated);
  const auto records = VeskAudioDevice::getAudioDeviceList();
  // The last one's path is part of no other's: a meter listens to the first whose identifier contains it.
  const auto microphone = VeskAudioDevice::initWithDeviceInfo(records->back());
  const std::string path = microphone->deviceInfo()->path().value_or("");
  simulated->setFaults(path, {.startStatus = kVCIBusy});
  EXPECT_EQ(microphone->startVUMeter(), 0);
  expectError(microphone->lastError(), {Cause::kBusy, "is in use elsewhere", "Close other programs"}, "busy");
  microphone->stopVUMeter();
  simulated->setFaults(path, {});
  EXPECT_EQ(microphone->startVUMeter(), 0);
  EXPECT_FALSE(microphone->lastError());
  microphone->stopVUMeter();
  simulated->unplug(path);
  EXPECT_EQ(microphone->startVUMeter(), 0);
  expectError(microphone->lastError(), {Cause::kUnplugged, "is not there any more", "Plug it in again."}, "out");
  microphone->stopVUMeter();
}

TEST_F(LastErrorTest, OfAChoiceOfSourceSaysWhatIsWrongWithIt) {
  const test::TemporaryFolder folder;
  const struct {
    std::string text;
    Reason reason;
  } rows[] = {
      {"nonsense", {Cause::kWrongUse, "no capture source \"nonsense\"", "simulated, file:PATH or linux"}},
      {"file:", {Cause::kWrongUse, "lacks a path", "colon"}},
      {"file:/no/such/footage.mov", {Cause::kNoFile, "/no/such/footage.mov: no such file", "Check the path."}},
      {"file:" + folder.path(), {Cause::kWrongUse, "is a folder", "in it"}},
      {"file:" + folder.write("text.mov", "no footage at all"), {Cause::kUnreadable, "is no movie", "that plays"}},
  };
  for (const auto& row : rows) expectError(capture::selectSource(row.text, {}), row.reason, row.text);
  EXPECT_FALSE(capture::selectSource("simulated", {}));
}

/// A camera of a host's own, which says why it fails where it knows.
class OwnCamera : public capture::CaptureDevice {
 public:
  int32_t start(uint32_t, capture::FrameCallback) override {
    return capture::failed(kVCIFailed, {Cause::kStalled, "the clock stands still", "Wind it."});
  }
  int32_t stop(uint32_t) override { return 0; }
  int32_t setVideoParameters(const capture::VideoParameters&) override { return 0; }
  int32_t getProperty(uint32_t, const capture::PropertySetIdentifier&, uint32_t, std::span<uint8_t>,
                      uint32_t&) override {
    throw std::runtime_error("the spring is broken");
  }
};

class OwnSource : public capture::CaptureSource {
 public:
  void setHotplugHandler(HotplugHandler) override {}
  std::vector<capture::DeviceDescription> devices(DeviceKind kind) override {
    if (kind == DeviceKind::kAudio) return {};
    return {{DeviceKind::kVideo, "own", "Clock"}};
  }
  std::unique_ptr<capture::CaptureDevice> open(DeviceKind, const std::string&) override {
    return std::make_unique<OwnCamera>();
  }
};

TEST_F(LastErrorTest, OfAHostsOwnCameraIsItsOwnAndEachThreadsCallHasItsOwnReason) {
  capture::setSource(std::make_shared<OwnSource>());
  const auto camera = firstCamera();
  ASSERT_EQ(camera->openDevice(), 0);
  camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_MotionJPEG, 640, 480));
  EXPECT_EQ(camera->startCapture(), kVeskStatusFailed);
  expectError(camera->lastError(), {Cause::kStalled, "the clock stands still", "Wind it."}, "own");
  EXPECT_FALSE(camera->getHueCur());
  expectError(camera->lastError(), {Cause::kOther, "the spring is broken", ""}, "thrown");
  const Error before = capture::lastError();
  std::thread([] {
    uint32_t count = 0;
    EXPECT_EQ(VCI_Enum_Devices(nullptr, nullptr, &count), kVCIMoreData);
    EXPECT_FALSE(capture::lastError());
    EXPECT_EQ(VCI_Stop_Capture(nullptr, 0), kVCIInvalidHandle);
    expectError(capture::lastError(), {Cause::kWrongUse, "is not open", ""}, "no handle");
  }).join();
  EXPECT_EQ(capture::lastError(), before);
}

}  // namespace
}  // namespace vesk
