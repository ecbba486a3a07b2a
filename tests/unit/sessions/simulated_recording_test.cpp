#include <algorithm>
#include <future>

#include <vesk/capture_host.h>
#include <vesk/record_session.h>
#include "tests/unit/sessions/recording_test.h"

namespace vesk {
namespace {

using capture::Transport;

/// The simulated devices as fast as they go, from library to movie.
struct SimulatedRecording : testing::Test {
  SimulatedRecording() {
    setTemporaryDirectory(temporary.path());
    EXPECT_FALSE(capture::selectSource("simulated", {.pace = capture::Pace::kFast}));
    camera = VeskVideoDevice::initWithDeviceInfo(VeskVideoDevice::getVideoDeviceList()->at(0));
    microphone = VeskAudioDevice::initWithDeviceInfo(VeskAudioDevice::getAudioDeviceList()->at(0));
    camera->openDevice();
    microphone->openDevice();
  }
  ~SimulatedRecording() override {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
    Transport::shared().setLimit(std::nullopt);
    camera->closeDevice();
    microphone->closeDevice();
    VeskDeviceManager::destroy();
    capture::setSource(nullptr);
    setTemporaryDirectory("");
  }

  /// Chooses the smallest picture of the codec, and the first sound of the code.
  void choose(uint32_t codec, uint32_t soundCode) {
    const auto formats = camera->getSupportedFormats();
    for (const auto& format : *formats)
      if (format->mediaSubType() == codec &&
          (!camera->getFormat() || format->dimensions().width < camera->getFormat()->dimensions().width))
        camera->setFormat(format);
    const auto sounds = microphone->getSupportedFormats();
    for (const auto& sound : *sounds)
      if (sound->mediaSubType() == soundCode) microphone->setFormat(sound);
  }

  /// Runs the sessions for `seconds` of the devices' time.
  void record(const std::vector<std::shared_ptr<VeskRecordSession>>& sessions, double seconds) {
    std::promise<void> ended;
    Transport::shared().setEndHandler([&] { ended.set_value(); });
    Transport::shared().setBackpressure([&] {
      return std::any_of(sessions.begin(), sessions.end(), [](const auto& session) { return session->isWriterBusy(); });
    });
    Transport::shared().setLimit(seconds);
    Transport::shared().hold();
    for (const auto& session : sessions) EXPECT_EQ(session->startSession(), 0);
    Transport::shared().release();
    ended.get_future().wait();
    for (const auto& session : sessions) session->stopSession();
  }

  test::TemporaryFolder temporary;
  test::TemporaryFolder movies;
  std::shared_ptr<VeskVideoDevice> camera;
  std::shared_ptr<VeskAudioDevice> microphone;
};

TEST_F(SimulatedRecording, OfH264AndPCMIsWhole) {
  choose(kCMVideoCodecType_H264, kWaveFormatLinearPCM);
  const auto session = VeskRecordSession::initWithVideoDevice(camera, microphone, movies.file("a.mov"));
  record({session}, 5);
  const auto statistics = session->lastOutcome().statistics;
  EXPECT_FALSE(session->lastOutcome().error);
  EXPECT_EQ(statistics.videoFrames, 150U);
  EXPECT_EQ(statistics.videoDropped + statistics.videoHeldBack + statistics.audioDropped, 0U);

  const auto movie = test::probe(movies.file("a.mov"), test::Probe::kDecode);
  EXPECT_EQ(movie.complaints, "");
  ASSERT_NE(movie.find("h264"), nullptr);
  EXPECT_EQ(movie.find("h264")->decoded, 150);
  EXPECT_EQ(movie.find("h264")->width, camera->getFormat()->dimensions().width);
  ASSERT_NE(movie.find("pcm_s16le"), nullptr);
  const auto& sound = microphone->getFormat()->streamBasicDescription();
  EXPECT_EQ(movie.find("pcm_s16le")->sampleRate, static_cast<int>(sound.mSampleRate));
  EXPECT_NEAR(movie.find("pcm_s16le")->decoded, 5 * sound.mSampleRate, sound.mSampleRate / 10);
}

TEST_F(SimulatedRecording, OfRawPicturesAndAACIsWhole) {
  choose(kCMPixelFormat_422YpCbCr8, kWaveFormatAAC);
  const auto session = VeskRecordSession::initWithVideoDevice(camera, microphone, movies.file("b.mov"));
  record({session}, 3);
  const auto movie = test::probe(movies.file("b.mov"), test::Probe::kDecode);
  EXPECT_EQ(movie.complaints, "");
  ASSERT_NE(movie.find("2vuy"), nullptr);
  EXPECT_EQ(movie.find("2vuy")->packets, 90);
  ASSERT_NE(movie.find("aac"), nullptr);
  EXPECT_GT(movie.find("aac")->decoded, 0);
}

// Each recording rewrites the frame in place; the second sees what the first has left.
TEST_F(SimulatedRecording, TwoSessionsOnOneH264CameraSeeTheSameFrames) {
  choose(kCMVideoCodecType_H264, kWaveFormatLinearPCM);
  const auto first = VeskRecordSession::initWithVideoDevice(camera, microphone, movies.file("a.mov"));
  const auto second = VeskRecordSession::initWithVideoDevice(camera, nullptr, movies.file("b.mov"));
  record({first, second}, 2);
  const auto a = test::probe(movies.file("a.mov"), test::Probe::kDecode);
  const auto b = test::probe(movies.file("b.mov"), test::Probe::kDecode);
  ASSERT_NE(a.find("h264"), nullptr);
  ASSERT_NE(b.find("h264"), nullptr);
  EXPECT_EQ(a.find("h264")->decoded, 60);
  EXPECT_EQ(a.find("h264")->content, b.find("h264")->content);
}

}  // namespace
}  // namespace vesk
