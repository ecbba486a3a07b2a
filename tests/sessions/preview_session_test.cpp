#include "sessions/preview_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <limits>
#include <thread>
#include <vector>

#include "platform/foundation/dispatch_queue.h"
#include "platform/foundation/run_loop.h"
#include "platform/graphics/ci_image.h"
#include "render/preview_view.h"
#include "sessions/record_session.h"
#include "tests/sessions/recording_test.h"

namespace vesk::test {
namespace {

namespace fs = std::filesystem;

struct Host : VeskPreviewSessionDelegate {
  void audioGainChanged(float level) override { levels.push_back(level); }
  std::vector<float> levels;
};

/// A view that remembers the first byte of each picture it is given.
struct View : VeskPreviewView {
  View() : VeskPreviewView(NSRect{0, 0, 64, 64}) {}
  int shade() const { return image() ? image()->imageBuffer()->data()[0] : -1; }
};

/// A scripted camera with raw pictures of 16 x 16, all bytes of a picture alike.
struct PreviewSession : RecordingTest {
  PreviewSession() { session->openSession(); }
  ~PreviewSession() override {
    session->stopSession();
    session->setAudioDevice(nullptr);
  }

  void deliverShade(int shade) {
    picture.fill(static_cast<uint8_t>(shade));
    fakeCamera->deliver(picture, ++time);
  }
  /// Runs what waits on the main queue.
  static void serve() { NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now()); }
  bool isDelegate() const {
    const auto& delegates = camera->delegates();
    const std::lock_guard lock(delegates);
    return std::find(delegates.begin(), delegates.end(), session) != delegates.end();
  }

  Host host;
  std::shared_ptr<View> view = std::make_shared<View>();
  std::shared_ptr<VeskPreviewSession> session = VeskPreviewSession::initWithDevice(camera, &host);
  int64_t time = 0;
};

TEST_F(PreviewSession, ShowsTheCamerasPicturesInOrderUntilItIsStopped) {
  EXPECT_EQ(session->startSessionWithPreview(nullptr), 2);
  EXPECT_FALSE(session->isRunning());
  ASSERT_EQ(session->startSessionWithPreview(view), 0);
  EXPECT_EQ(view->delegate(), &host);
  for (const int shade : {10, 20}) {
    deliverShade(shade);
    EXPECT_NE(view->shade(), shade) << "shown on the main thread";
    serve();
    EXPECT_EQ(view->shade(), shade);
  }
  deliverShade(30);
  EXPECT_EQ(session->stopSession(), 0);
  serve();
  EXPECT_EQ(view->image(), nullptr) << "a picture that waited is not shown after the stop";
  EXPECT_FALSE(isDelegate());
  EXPECT_FALSE(camera->isCapturing());
  deliverShade(40);
  EXPECT_EQ(session->statistics().frames, 3U);
  EXPECT_EQ(session->statistics().shown, 2U);

  EXPECT_EQ(session->startSessionWithPreview(view), 0) << "and again";
  deliverShade(50);
  serve();
  EXPECT_EQ(view->shade(), 50);
}

TEST_F(PreviewSession, StalledMainThreadKeepsOneFrameTheNewest) {
  session->startSessionWithPreview(view);
  deliverShade(0);
  const std::weak_ptr<const CIImage> oldest = [&] {
    serve();
    return view->image();
  }();
  for (int i = 1; i <= 1800; ++i) deliverShade(i % 200);
  EXPECT_EQ(session->statistics().replaced, 1799U);
  serve();
  EXPECT_EQ(view->shade(), 1800 % 200);
  EXPECT_EQ(session->statistics().shown, 2U);
  EXPECT_TRUE(oldest.expired());
}

TEST_F(PreviewSession, IgnoresPacketsOfSoundAndWhatCannotBeDecoded) {
  session->startSessionWithPreview(view);
  const auto sound = std::make_shared<VeskDeviceInfo>();
  sound->setDeviceType(kVeskDeviceTypeAudio);
  session->didCaptureFrame(picture.data(), picture.size(), 1, sound);
  session->didCaptureFrame(picture.data(), 100, 1, camera->deviceInfo());
  session->didCaptureFrame(picture.data(), 0, 1, camera->deviceInfo());
  session->didCaptureFrame(picture.data(), UINT32_MAX, 1, camera->deviceInfo());
  EXPECT_EQ(session->statistics().frames, 0U);
  deliverShade(7);
  EXPECT_EQ(session->statistics().frames, 1U);
}

TEST_F(PreviewSession, RefusedStartIsToldAndMayBeRepeated) {
  fakeCamera->startStatus = 19;
  EXPECT_EQ(session->startSessionWithPreview(view), 6);
  EXPECT_FALSE(session->isRunning());
  EXPECT_TRUE(isDelegate());
  fakeCamera->startStatus = 0;
  EXPECT_EQ(session->startSessionWithPreview(view), 0);
  deliverShade(1);
  EXPECT_EQ(session->statistics().frames, 1U) << "not registered twice";
}

TEST_F(PreviewSession, PausesAndGoesOnInAFormatChosenMeanwhile) {
  session->startSessionWithPreview(view);
  deliverShade(5);
  serve();
  EXPECT_EQ(session->pauseSession(), 0);
  EXPECT_TRUE(session->isRunning());
  EXPECT_TRUE(isDelegate());
  EXPECT_FALSE(camera->isCapturing());
  EXPECT_EQ(view->shade(), 5) << "the last picture stays";

  camera->setFormat(CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, 16, 8));
  EXPECT_EQ(session->resumeSession(), 0);
  EXPECT_FALSE(camera->isCapturing());
  EXPECT_EQ(session->startSessionWithPreview(view), 0);
  fakeCamera->deliver(std::span(picture).first(256), ++time);
  serve();
  EXPECT_EQ(view->image()->imageBuffer()->height(), 8);
  EXPECT_EQ(session->statistics().frames, 2U);
}

TEST_F(PreviewSession, PhotoIsWrittenWholeOrNotAtAll) {
  const std::string path = movies.path() + "/shot";
  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  EXPECT_TRUE(session->lastPhoto().path.empty()) << "not running: nothing is tried";
  session->startSessionWithPreview(view);
  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  EXPECT_FALSE(session->lastPhoto().error.empty()) << "nothing is on show yet";
  EXPECT_FALSE(isThere(path + ".jpeg"));

  deliverShade(128);
  serve();
  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  EXPECT_EQ(session->lastPhoto().error, "");
  EXPECT_EQ(session->lastPhoto().width, 16);
  EXPECT_EQ(session->lastPhoto().bytes, fs::file_size(path + ".jpeg"));
  EXPECT_EQ(contentOf(path + ".jpeg").substr(0, 2), "\xFF\xD8");

  EXPECT_EQ(session->capturePhotoFrameToPath(movies.path() + "/none/shot"), 0);
  EXPECT_FALSE(session->lastPhoto().error.empty());
}

TEST_F(PreviewSession, MetersTheAttachedMicrophoneWhileItRuns) {
  constexpr float kEnd = -std::numeric_limits<float>::infinity();
  session->setAudioDevice(microphone);
  EXPECT_EQ(fakeMicrophone->started, 0);
  session->startSessionWithPreview(view);
  session->setAudioDevice(microphone);
  EXPECT_EQ(fakeMicrophone->started, 1);
  microphone->micLevelTimerFired();
  serve();
  ASSERT_FALSE(host.levels.empty());
  session->setAudioDevice(nullptr);
  EXPECT_EQ(host.levels.back(), kEnd);
  EXPECT_TRUE(microphone->delegates().empty());

  session->setAudioDevice(microphone);
  EXPECT_EQ(fakeMicrophone->started, 2);
  host.levels.clear();
  session->stopSession();
  EXPECT_EQ(host.levels, std::vector<float>{kEnd});
  const std::weak_ptr<VeskPreviewSession> weak = session;
  session = VeskPreviewSession::initWithDevice(camera, &host);
  EXPECT_TRUE(weak.expired()) << "an attached microphone does not hold the session";
}

TEST_F(PreviewSession, RecordingOfTheSameCameraOutlivesThePreviewAndTheOtherWayRound) {
  const std::string path = movies.path() + "/movie.mov";
  const auto recording = VeskRecordSession::initWithVideoDevice(camera, nullptr, path);
  session->startSessionWithPreview(view);
  ASSERT_EQ(recording->startSession(), 0);
  deliverShade(1);
  session->pauseSession();
  deliverShade(2);
  session->resumeSession();
  session->stopSession();
  EXPECT_TRUE(camera->isCapturing());
  deliverShade(3);
  session->startSessionWithPreview(view);
  deliverShade(4);
  session->closeSession();
  EXPECT_TRUE(camera->isOpen());
  deliverShade(5);
  session->startSessionWithPreview(view);
  recording->stopSession();
  EXPECT_EQ(recording->lastOutcome().statistics.videoFrames, 5U);
  EXPECT_EQ(probe(path).tracks.at(0).packets, 5);
  deliverShade(6);
  serve();
  EXPECT_EQ(view->shade(), 6);
  session->closeSession();
  EXPECT_FALSE(camera->isOpen());
}

TEST_F(PreviewSession, EndsWithItsDeviceItsViewOrItsOwner) {
  session->startSessionWithPreview(view);
  view.reset();
  deliverShade(1);
  serve();
  EXPECT_EQ(session->stopSession(), 0);

  view = std::make_shared<View>();
  session->startSessionWithPreview(view);
  const std::weak_ptr<VeskPreviewSession> weak = session;
  session.reset();
  EXPECT_FALSE(weak.expired()) << "the camera holds what shows it";
  camera.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(fakeCamera->closed, 1);
  camera = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  session = VeskPreviewSession::initWithDevice(camera, nullptr);
  EXPECT_EQ(VeskPreviewSession::initWithDevice(nullptr, &host), nullptr);
  camera.reset();
  EXPECT_EQ(session->openSession(), 3);
  EXPECT_EQ(session->startSessionWithPreview(view), 3);
  EXPECT_EQ(session->pauseSession(), 3);
}

TEST_F(PreviewSession, MayBePausedResumedStoppedAndMeteredInTheMiddleOfFrames) {
  const auto recording = VeskRecordSession::initWithVideoDevice(camera, nullptr, movies.path() + "/movie.mov");
  std::atomic<bool> isOver{false};
  std::thread frames([&] {
    std::array<uint8_t, 512> own{};
    for (int64_t stamp = 1; !isOver; ++stamp) {
      fakeCamera->deliver(own, stamp * 33'333);
      std::this_thread::sleep_for(std::chrono::microseconds(200));  // else the writer drops most
    }
  });
  std::thread sound([&] {
    std::array<uint8_t, 6400> own{};
    for (int64_t stamp = 1; !isOver; ++stamp) fakeMicrophone->deliver(own, stamp * 33'333);
  });
  for (int round = 0; round < 20; ++round) {
    session->startSessionWithPreview(view);
    if (round == 5) recording->startSession();
    session->setAudioDevice(round % 2 == 0 ? microphone : nullptr);
    serve();
    session->pauseSession();
    session->resumeSession();
    camera->startCapture();
    microphone->micLevelTimerFired();
    serve();
    if (round % 3 == 0) session->capturePhotoFrameToPath(movies.path() + "/shot");
    if (round == 15) recording->stopSession();
    session->stopSession();
  }
  isOver = true;
  frames.join();
  sound.join();
  EXPECT_FALSE(session->isRunning());
  EXPECT_FALSE(camera->isCapturing());
}

}  // namespace
}  // namespace vesk::test
