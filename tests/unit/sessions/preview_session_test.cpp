#include <vesk/preview_session.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include <vesk/ci_image.h>
#include <vesk/dispatch_queue.h>
#include <vesk/preview_view.h>
#include <vesk/record_session.h>
#include <vesk/run_loop.h>
#include "tests/unit/sessions/recording_test.h"

namespace vesk::test {
namespace {

namespace fs = std::filesystem;

constexpr float kEnd = -std::numeric_limits<float>::infinity();

/// Remembers levels, and acts once, at the next final one.
struct Host : VeskPreviewSessionDelegate {
  void audioGainChanged(float level) override {
    levels.push_back(level);
    if (level == kEnd && atTheEnd) std::exchange(atTheEnd, nullptr)();
  }
  std::vector<float> levels;
  std::function<void()> atTheEnd;
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
    host.atTheEnd = nullptr;
    if (!session) return;
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

TEST_F(PreviewSession, ShowsTheFirstPictureOfACameraThatIsStartedOnAnotherThread) {
  EXPECT_EQ(session->prepareSessionWithPreview(nullptr), 2);
  EXPECT_EQ(session->prepareSessionWithPreview(view), 0);
  EXPECT_EQ(fakeCamera->started, 0);
  std::thread([&] {
    EXPECT_EQ(camera->startCapture(), 0);
    deliverShade(1);
  }).join();
  serve();
  EXPECT_EQ(view->shade(), 1);
  EXPECT_EQ(session->statistics().frames, 1U);
  session->stopSession();
  EXPECT_FALSE(camera->isCapturing());
  EXPECT_FALSE(isDelegate());
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

TEST_F(PreviewSession, RefusedStartIsToldAndMayBeRepeatedInAnotherFormat) {
  fakeCamera->startStatus = 19;
  EXPECT_EQ(session->startSessionWithPreview(view), 6);
  EXPECT_FALSE(session->isRunning());
  EXPECT_TRUE(isDelegate());
  fakeCamera->startStatus = 0;
  camera->setFormat(CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, 16, 8));
  EXPECT_EQ(session->startSessionWithPreview(view), 0);
  fakeCamera->deliver(std::span(picture).first(256), ++time);
  EXPECT_EQ(session->statistics().frames, 1U) << "not registered twice";
  serve();
  ASSERT_NE(view->image(), nullptr);
  EXPECT_EQ(view->image()->imageBuffer()->height(), 8) << "the format of now";
}

TEST_F(PreviewSession, ARefusedRestartLetsTheMicrophoneGo) {
  session->setAudioDevice(microphone);
  session->startSessionWithPreview(view);
  session->pauseSession();
  fakeCamera->startStatus = 19;
  EXPECT_EQ(session->startSessionWithPreview(view), 6);
  EXPECT_EQ(host.levels, std::vector<float>{kEnd});
  microphone->micLevelTimerFired();
  serve();
  EXPECT_EQ(host.levels.size(), 1U) << "it is not metered any more";

  fakeCamera->startStatus = 0;
  EXPECT_EQ(session->startSessionWithPreview(view), 0);
  EXPECT_EQ(fakeMicrophone->started, 2) << "and again with the preview";
}

TEST_F(PreviewSession, ShowsNoPictureOfTheRunBefore) {
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"stopped and started",
       [&] {
         session->stopSession();
         session->startSessionWithPreview(view);
       }},
      {"paused and started",
       [&] {
         session->pauseSession();
         session->startSessionWithPreview(view);
       }},
      {"paused, resumed and started",
       [&] {
         session->pauseSession();
         session->resumeSession();
         camera->startCapture();
       }},
      {"refused and started",
       [&] {
         session->pauseSession();
         fakeCamera->startStatus = 19;
         session->startSessionWithPreview(view);
         fakeCamera->startStatus = 0;
         session->startSessionWithPreview(view);
       }},
  };
  for (const auto& [label, startAnew] : ways) {
    session->startSessionWithPreview(view);
    deliverShade(1);
    serve();
    deliverShade(2);  // waits on the main queue
    startAnew();
    serve();
    EXPECT_NE(view->shade(), 2) << label;
    deliverShade(3);
    serve();
    EXPECT_EQ(view->shade(), 3) << label;
    session->stopSession();
  }
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

/// A decoder that comes to a running camera shows nothing before that, which may be seconds away.
TEST_F(PreviewSession, AsksARunningCameraForAKeyFrameForEachNewDecoder) {
  camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_H264, 640, 480));
  const auto expectAsked = [&](int times) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (fakeCamera->keyFramesAsked < times && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    EXPECT_EQ(fakeCamera->keyFramesAsked, times);
  };
  session->startSessionWithPreview(view);
  camera->beginRecording();
  session->pauseSession();
  session->startSessionWithPreview(view);
  expectAsked(1);
  session->startSessionWithPreview(view);
  session->pauseSession();
  session->resumeSession();
  expectAsked(2);
  session->stopSession();
  session->prepareSessionWithPreview(view);
  expectAsked(3);
  camera->endRecording();
}

TEST_F(PreviewSession, PhotoIsWrittenWholeOrNotAtAll) {
  const std::string path = movies.path() + "/shot";
  EXPECT_TRUE(session->lastPhoto().path.empty());
  session->startSessionWithPreview(view);
  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  EXPECT_TRUE(session->lastPhoto().error) << "nothing is on show yet";
  EXPECT_FALSE(isThere(path + ".jpeg"));

  deliverShade(128);
  serve();
  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  EXPECT_FALSE(session->lastPhoto().error);
  EXPECT_EQ(session->lastPhoto().width, 16);
  EXPECT_EQ(session->lastPhoto().bytes, fs::file_size(path + ".jpeg"));
  EXPECT_EQ(contentOf(path + ".jpeg").substr(0, 2), "\xFF\xD8");

  EXPECT_EQ(session->capturePhotoFrameToPath(movies.path() + "/none/shot"), 0);
  EXPECT_TRUE(session->lastPhoto().error);

  EXPECT_EQ(session->capturePhotoFrameToPath(path), 0);
  session->stopSession();
  EXPECT_EQ(session->capturePhotoFrameToPath(movies.path() + "/late"), 0);
  EXPECT_FALSE(isThere(movies.path() + "/late.jpeg"));
  EXPECT_EQ(session->lastPhoto().path, movies.path() + "/late.jpeg") << "of the last call, not of the last file";
  EXPECT_TRUE(session->lastPhoto().error);
  EXPECT_EQ(session->lastPhoto().bytes, 0U);
}

/// Also when the session goes at once: whoever asks is told, and has the picture of that moment.
TEST_F(PreviewSession, PhotosAreWrittenBesideTheMainThread) {
  std::vector<PhotoOutcome> photos;
  const auto remember = [&](const PhotoOutcome& photo) {
    EXPECT_TRUE(DispatchQueue::mainQueue()->isCurrent());
    photos.push_back(photo);
  };
  const auto wait = [&](size_t count) {
    while (photos.size() < count) NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
  };
  session->startSessionWithPreview(view);
  deliverShade(128);
  serve();
  session->capturePhoto(movies.path() + "/none/shot.jpg", remember);
  wait(1);
  EXPECT_TRUE(photos[0].error);
  session->capturePhoto(movies.path() + "/shot.jpg", remember);
  session->stopSession();
  session->capturePhoto(movies.path() + "/late.jpg", remember);
  session.reset();
  wait(3);
  std::sort(photos.begin(), photos.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  EXPECT_TRUE(photos[0].error) << photos[0].path;
  EXPECT_FALSE(photos[2].error) << photos[2].error.what;
  EXPECT_EQ(photos[2].bytes, fs::file_size(movies.path() + "/shot.jpg"));
  EXPECT_FALSE(isThere(movies.path() + "/late.jpg"));
}

TEST_F(PreviewSession, MetersTheAttachedMicrophoneWhileItRuns) {
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

// The host's delegate may do anything when it gets the final level.
TEST_F(PreviewSession, SurvivesWhatTheHostDoesInTheFinalLevel) {
  const auto detach = [&] { session->setAudioDevice(nullptr); };
  const auto stop = [&] { session->stopSession(); };
  const auto letGo = [&] {
    session->stopSession();
    session.reset();
    microphone.reset();
  };
  struct Row {
    const char* label;
    std::function<void()> operation;
    std::function<void()> inside;
  };
  for (const Row& row :
       {Row{"detached again inside a detach", detach, detach},
        Row{"detached inside a stop, which was its only owner", stop,
            [&] {
              microphone.reset();
              session->setAudioDevice(nullptr);
            }},
        Row{"detached inside a detach, which was its only owner", detach,
            [&] {
              microphone.reset();
              session->setAudioDevice(nullptr);
            }},
        Row{"stopped and let go inside a detach", detach, letGo}, Row{"stopped and let go inside a stop", stop, letGo},
        Row{"stopped inside a stop", stop, stop}}) {
    SCOPED_TRACE(row.label);
    session = VeskPreviewSession::initWithDevice(camera, &host);
    microphone = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
    session->setAudioDevice(microphone);
    session->startSessionWithPreview(view);
    const std::weak_ptr<VeskAudioDevice> metered = microphone;
    host.levels.clear();
    host.atTheEnd = row.inside;
    row.operation();
    EXPECT_EQ(host.levels, std::vector<float>{kEnd});
    EXPECT_EQ(host.atTheEnd, nullptr);
    if (const auto held = metered.lock()) held->micLevelTimerFired();
    serve();
    EXPECT_EQ(host.levels.size(), 1U) << "nothing is metered any more";
    if (session) session->stopSession();
    EXPECT_FALSE(camera->isCapturing());
    EXPECT_TRUE(camera->delegates().empty());
  }
}

TEST_F(PreviewSession, EndsAsTheHostWantsItInTheFinalLevel) {
  const auto other = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  const auto isMetered = [&] {
    host.levels.clear();
    for (const auto& each : {microphone, other}) each->micLevelTimerFired();
    serve();
    return !host.levels.empty();
  };
  session->setAudioDevice(microphone);
  session->startSessionWithPreview(view);
  host.atTheEnd = [&] { session->startSessionWithPreview(view); };
  session->stopSession();
  EXPECT_TRUE(session->isRunning()) << "started anew";
  EXPECT_TRUE(isDelegate());
  EXPECT_TRUE(camera->isCapturing());
  deliverShade(9);
  serve();
  EXPECT_EQ(view->shade(), 9);
  EXPECT_TRUE(isMetered());

  host.atTheEnd = [&] { session->setAudioDevice(microphone); };
  session->setAudioDevice(nullptr);
  EXPECT_EQ(session->audioDevice(), microphone) << "attached again";
  EXPECT_EQ(microphone->delegates().size(), 1U);
  EXPECT_TRUE(isMetered());

  host.atTheEnd = [&] { session->setAudioDevice(other); };
  session->closeSession();
  EXPECT_FALSE(isMetered()) << "a microphone attached inside a stop is not metered after it";
  EXPECT_FALSE(camera->isOpen());
}

// Off means off: only a running recording keeps the camera on, and only until it ends.
TEST_F(PreviewSession, OnlyARunningRecordingKeepsTheCameraOn) {
  const auto counter = std::make_shared<Receiver>();
  camera->addDelegate(counter);
  const auto second = VeskPreviewSession::initWithDevice(camera, nullptr);
  const auto secondView = std::make_shared<View>();
  std::shared_ptr<VeskRecordSession> recording, running;
  using Step = std::function<void()>;
  const auto start = [&](bool isRefused) {
    fakeMicrophone->startStatus = isRefused ? 19 : 0;
    recording = VeskRecordSession::initWithVideoDevice(camera, microphone, movies.file("movie.mov"));
    EXPECT_EQ(recording->startSession(), isRefused ? 5 : 0);
  };
  const Step record = [&] { start(false); };
  const Step recordRefused = [&] { start(true); };
  const Step endRecording = [&] {
    EXPECT_TRUE(camera->isCapturing()) << "while it is recorded";
    deliverShade(1);
    recording->stopSession();
    EXPECT_EQ(recording->lastOutcome().statistics.videoFrames, 1U);
  };
  const Step recordTwice = [&] {
    start(false);
    running = VeskRecordSession::initWithVideoDevice(camera, nullptr, movies.file("other.mov"));
    EXPECT_EQ(running->startSession(), 0);
  };
  const Step endOther = [&] { running->stopSession(); };
  const Step recordBesideARefusedOne = [&] {
    start(false);
    running = recording;
    microphone->stopCapture();
    start(true);
  };
  const Step forgetTheRefusedOne = [&] { recording = running; };
  const Step show = [&] { EXPECT_EQ(session->startSessionWithPreview(view), 0); };
  const Step pause = [&] { EXPECT_EQ(session->pauseSession(), 0); };
  const Step resume = [&] { session->resumeSession(); };
  const Step stop = [&] { EXPECT_EQ(session->stopSession(), 0); };
  const Step open = [&] { session->openSession(); };
  const Step close = [&] { session->closeSession(); };
  const Step startCamera = [&] { camera->startCapture(); };
  const Step showSecond = [&] { second->startSessionWithPreview(secondView); };
  const Step pauseSecond = [&] { second->pauseSession(); };
  enum Expected { kOn, kOff, kClosed };
  const struct {
    const char* label;
    Expected expected;
    std::vector<Step> steps;
  } rows[] = {
      {"another delegate, paused", kOff, {pause}},
      {"another delegate, closed", kClosed, {close}},
      {"two previews, both paused", kOff, {showSecond, pause, pauseSecond}},
      {"a paused preview beside one that is closed", kClosed, {showSecond, pauseSecond, close}},
      {"a refused recording that the host still holds", kClosed, {recordRefused, close}},
      {"a recording; the preview goes on", kOn, {record, endRecording}},
      {"a recording; the preview stops", kOff, {record, stop, endRecording}},
      {"a recording; the preview closes", kClosed, {record, close, endRecording}},
      {"a recording; the preview closes and opens", kOff, {record, close, open, endRecording}},
      {"a recording; the preview closes and starts again", kOn, {record, close, show, endRecording}},
      {"a recording; the preview pauses and resumes", kOff, {record, pause, resume, endRecording}},
      {"a recording; the preview pauses, and the host starts the camera",
       kOn,
       {record, pause, startCamera, endRecording}},
      {"two recordings; the preview stops", kOff, {recordTwice, stop, endOther, endRecording}},
      {"a recording that is refused while another runs",
       kClosed,
       {recordBesideARefusedOne, close, forgetTheRefusedOne, endRecording}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    session->openSession();
    show();
    for (const Step& step : row.steps) step();
    EXPECT_EQ(camera->isCapturing(), row.expected == kOn);
    EXPECT_EQ(fakeCamera->isCapturing(), row.expected == kOn);
    EXPECT_EQ(camera->isOpen(), row.expected != kClosed);
    recording.reset();
    running.reset();
    second->stopSession();
    session->closeSession();
    std::filesystem::remove(movies.file("movie.mov"));
    std::filesystem::remove(movies.file("other.mov"));
  }
}

TEST_F(PreviewSession, AFailedStopIsAnsweredBesideAnotherDelegate) {
  camera->addDelegate(std::make_shared<Receiver>());
  session->startSessionWithPreview(view);
  fakeCamera->stopStatus = 1;
  EXPECT_EQ(session->pauseSession(), 7);
  EXPECT_EQ(session->stopSession(), 7);
  fakeCamera->stopStatus = 0;
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
  session->prepareSessionWithPreview(view);
  for (Host* const delegate : {&host, static_cast<Host*>(nullptr)}) {
    session->setDelegate(delegate);
    EXPECT_EQ(view->delegate(), delegate) << "the view tells of the pointer, and does not hold it either";
  }
  EXPECT_EQ(VeskPreviewSession::initWithDevice(nullptr, &host), nullptr);
  camera.reset();
  EXPECT_EQ(session->openSession(), 3);
  EXPECT_EQ(session->startSessionWithPreview(view), 3);
  EXPECT_EQ(session->pauseSession(), 3);
}

// Whoever lets the camera go last, on whatever thread: views and microphones are the main thread's.
TEST_F(PreviewSession, LetsViewAndMicrophoneGoOnTheMainThread) {
  session->setAudioDevice(microphone);
  session->startSessionWithPreview(view);
  deliverShade(4);
  serve();
  const auto shown = view->image();
  const std::weak_ptr<VeskPreviewSession> weak = session;
  session.reset();
  std::thread([last = std::exchange(camera, nullptr)]() mutable { last.reset(); }).join();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(view->image(), shown) << "not changed on the other thread";
  EXPECT_EQ(microphone->delegates().size(), 1U);
  serve();
  EXPECT_EQ(view->image(), nullptr);
  EXPECT_TRUE(microphone->delegates().empty());
  microphone->micLevelTimerFired();
  serve();
  EXPECT_TRUE(host.levels.empty());

  camera = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  camera->setFormat(CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, 16, 16));
  session = VeskPreviewSession::initWithDevice(camera, nullptr);
  session->openSession();
  session->startSessionWithPreview(view);
  const std::weak_ptr<View> lastView = view;
  const auto letGo = std::make_shared<Receiver>();
  letGo->act = [&] {
    session.reset();
    camera.reset();
  };
  camera->addDelegate(letGo);
  std::thread([&] { deliverShade(5); }).join();  // the frame thread
  view.reset();
  EXPECT_TRUE(lastView.expired()) << "what waits for the main thread does not hold the view";
  serve();
}

TEST_F(PreviewSession, MayBePausedResumedStoppedAndMeteredInTheMiddleOfFrames) {
  const auto recording = VeskRecordSession::initWithVideoDevice(camera, nullptr, movies.path() + "/movie.mov");
  std::array<std::array<uint8_t, 6400>, 2> bytes{};
  TwoThreads frames([&](int thread, int64_t stamp) {
    if (thread == 0)
      fakeCamera->deliver(std::span(bytes[0]).first(512), stamp);
    else
      fakeMicrophone->deliver(bytes[1], stamp);
  });
  for (int round = 0; round < 20; ++round) {
    frames.grant(20);
    session->startSessionWithPreview(view);
    if (round == 5) recording->startSession();
    session->setAudioDevice(round % 2 == 0 ? microphone : nullptr);
    serve();
    session->pauseSession();
    frames.grant(20);
    session->resumeSession();
    camera->startCapture();
    microphone->micLevelTimerFired();
    serve();
    if (round % 3 == 0) session->capturePhotoFrameToPath(movies.path() + "/shot");
    if (round == 15) recording->stopSession();
    session->stopSession();
  }
  EXPECT_FALSE(session->isRunning());
  EXPECT_FALSE(camera->isCapturing());
}

}  // namespace
}  // namespace vesk::test
