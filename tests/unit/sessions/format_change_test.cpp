// A camera that changes its pictures' parameter sets, recorded by a session.

#include <atomic>
#include <thread>
#include <vector>

#include <vesk/record_session.h>
#include "tests/support/h264_stream.h"
#include "tests/support/log_recorder.h"
#include "tests/unit/sessions/recording_test.h"

namespace vesk {
namespace {

struct FormatChangeTest : test::RecordingTest {
  FormatChangeTest() {
    camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_H264, 176, 144));
    session->setFrameTiming(FrameTiming::kCapture);
  }

  /// A movie of so many pictures of that size, whole.
  static void expectMovie(const std::string& path, int width, int height, int pictures) {
    const auto movie = test::probe(path, test::Probe::kDecode);
    const auto* const video = movie.find("h264");
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->width, width);
    EXPECT_EQ(video->height, height);
    EXPECT_EQ(video->decoded, pictures);
    EXPECT_EQ(movie.complaints, "");
    const auto* const sound = movie.find("pcm_s16le");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->bytes, pictures * int64_t{6400});
  }

  test::LogRecorder log;
  std::string path = movies.file("lesson.mov");
  std::string nextPath = movies.file("lesson-2.mov");
  std::shared_ptr<VeskRecordSession> session = VeskRecordSession::initWithVideoDevice(camera, microphone, path);
  const std::vector<test::AccessUnit> small = test::accessUnitsOf("MIDR_MW_D.264");
  const std::vector<test::AccessUnit> large = test::accessUnitsOf("street-640x480-slices.h264");
};

TEST_F(FormatChangeTest, TheSessionGoesOnInTheNextMovie) {
  EXPECT_EQ(session->continueSession(nextPath), 10) << "not running";
  session->setContinues(true);
  ASSERT_EQ(session->startSession(), 0);
  filmUnits(small);
  EXPECT_EQ(session->statistics().videoForNext, 0U);
  filmUnits({large.begin(), large.begin() + 40});
  EXPECT_EQ(session->statistics().videoForNext, 40U);
  EXPECT_TRUE(session->isWriterBusy());

  EXPECT_EQ(session->continueSession(movies.file("no folder/")), 8) << "names no file";
  EXPECT_EQ(session->statistics().videoForNext, 40U) << "and nothing has changed";
  ASSERT_EQ(session->continueSession(nextPath), 0);
  EXPECT_TRUE(session->isRunning());
  EXPECT_EQ(session->fileURL(), nextPath);
  EXPECT_EQ(session->lastOutcome().finalPath, path);
  EXPECT_FALSE(session->lastOutcome().error);
  EXPECT_EQ(session->lastOutcome().statistics.videoFrames, 100U);
  EXPECT_EQ(session->lastOutcome().statistics.videoWidth, 176U);
  EXPECT_TRUE(session->lastOutcome().statistics.formatChanged);
  EXPECT_TRUE(isThere(path)) << "in its place at once";
  EXPECT_TRUE(camera->isCapturing() && microphone->isCapturing());

  filmUnits({large.begin() + 40, large.end()});
  session->stopSession();
  EXPECT_EQ(session->lastOutcome().finalPath, nextPath);
  EXPECT_EQ(session->lastOutcome().statistics.videoFrames, 90U);
  EXPECT_EQ(session->lastOutcome().statistics.videoWidth, 640U);
  EXPECT_EQ(session->lastOutcome().statistics.videoHeight, 480U);
  EXPECT_FALSE(session->lastOutcome().statistics.formatChanged);
  expectMovie(path, 176, 144, 100);
  expectMovie(nextPath, 640, 480, 90);
  for (const auto& entry : std::filesystem::directory_iterator(temporary.path())) ADD_FAILURE() << entry.path();
}

/// Whatever the threads do meanwhile: everything is in one of the movies, and each of them is whole.
TEST_F(FormatChangeTest, NothingIsLostWhileTheDevicesRunOn) {
  constexpr int kTurn = 25;
  constexpr int kTurns = 8;
  session->setContinues(true);
  ASSERT_EQ(session->startSession(), 0);
  std::atomic<int> running = 2;
  std::thread cameraThread([&] {
    for (int number = 0; number < kTurn * kTurns; ++number) {
      const auto& clip = number / kTurn % 2 == 0 ? small : large;
      test::Bytes bytes = clip[static_cast<size_t>(number % kTurn)].stream;
      fakeCamera->deliver(bytes, 1'000'000 + number * int64_t{33'333});
      std::this_thread::yield();
    }
    --running;
  });
  std::thread microphoneThread([&] {
    for (int number = 0; number < kTurn * kTurns; ++number) {
      fakeMicrophone->deliver(packet, 1'000'000 + number * int64_t{33'333});
      std::this_thread::yield();
    }
    --running;
  });
  std::vector<RecordingOutcome> outcomes;
  const auto goOn = [&] {
    const std::string next = movies.file("turn-" + std::to_string(outcomes.size() + 2) + ".mov");
    ASSERT_EQ(session->continueSession(next), 0);
    outcomes.push_back(session->lastOutcome());
  };
  while (running > 0 || session->statistics().videoForNext != 0) {
    if (session->statistics().videoForNext != 0) goOn();
  }
  cameraThread.join();
  microphoneThread.join();
  if (session->statistics().videoForNext != 0) goOn();
  session->stopSession();
  outcomes.push_back(session->lastOutcome());

  ASSERT_EQ(outcomes.size(), size_t{kTurns});
  int64_t sound = 0;
  for (size_t turn = 0; turn < outcomes.size(); ++turn) {
    const auto movie = test::probe(outcomes[turn].finalPath, test::Probe::kDecode);
    EXPECT_EQ(movie.find("h264")->decoded, kTurn) << turn;
    EXPECT_EQ(movie.find("h264")->width, turn % 2 == 0 ? 176 : 640);
    EXPECT_EQ(movie.complaints, "");
    EXPECT_EQ(outcomes[turn].statistics.videoHeldBack + outcomes[turn].statistics.videoUnfit, 0U);
    EXPECT_EQ(outcomes[turn].statistics.videoDropped + outcomes[turn].statistics.audioDropped, 0U);
    sound += static_cast<int64_t>(outcomes[turn].statistics.audioPackets + outcomes[turn].statistics.audioHeldBack);
  }
  EXPECT_EQ(sound, kTurn * kTurns) << "each in one of them, or captured before the one that it came to began";
}

}  // namespace
}  // namespace vesk
