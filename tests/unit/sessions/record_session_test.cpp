#include <vesk/record_session.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include <vesk/dispatch_queue.h>
#include "sessions/temporary_movie.h"
#include "tests/support/drifting_microphone.h"
#include "tests/unit/sessions/recording_test.h"

namespace vesk {
namespace {

struct RecordSessionTest : test::RecordingTest {
  std::shared_ptr<VeskRecordSession> sessionFor(const std::string& finalPath) {
    return VeskRecordSession::initWithVideoDevice(camera, microphone, finalPath);
  }
  /// From start to stop, with so many frames.
  void record(int frames) {
    EXPECT_EQ(session->startSession(), 0);
    deliver(0, frames);
    EXPECT_EQ(session->stopSession(), 0);
  }
  bool isAmongDelegates() const { return !camera->delegates().empty() || !microphone->delegates().empty(); }
  /// Movies in the temporary folder, and with `all` their locks.
  size_t temporaryFiles(bool all = false) const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(temporary.path()))
      if (all || entry.path().filename().string().front() != '.') ++count;
    return count;
  }

  std::string path = movies.file("clip.mov");
  std::shared_ptr<VeskRecordSession> session = sessionFor(path);
};

TEST_F(RecordSessionTest, RecordsBothDevicesAndPlacesTheMovie) {
  EXPECT_FALSE(session->isRunning());
  EXPECT_EQ(session->stopSession(), 0) << "not running";
  ASSERT_EQ(session->startSession(), 0);
  EXPECT_TRUE(session->isRunning());
  deliver(0, 30);
  EXPECT_TRUE(isThere(temporary.file("clip.mov")));
  EXPECT_FALSE(isThere(path));
  EXPECT_EQ(session->statistics().videoFrames, 30U);

  EXPECT_EQ(session->stopSession(), 0);
  EXPECT_EQ(session->stopSession(), 0);
  EXPECT_FALSE(session->isRunning());
  EXPECT_FALSE(isAmongDelegates());
  EXPECT_TRUE(camera->isCapturing()) << "a preview may go on";
  EXPECT_FALSE(microphone->isCapturing());
  EXPECT_FALSE(isThere(temporary.file("clip.mov")));
  const auto movie = test::probe(path);
  ASSERT_NE(movie.find("2vuy"), nullptr);
  ASSERT_NE(movie.find("pcm_s16le"), nullptr);
  EXPECT_EQ(movie.find("2vuy")->packets, 30);
  EXPECT_EQ(movie.find("pcm_s16le")->bytes, 30 * int64_t{1600} * 4);

  const RecordingOutcome outcome = session->lastOutcome();
  EXPECT_EQ(outcome.finalPath, path);
  EXPECT_EQ(outcome.temporaryPath, "");
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.statistics.videoFrames, 30U);
  EXPECT_EQ(session->statistics().audioPackets, 30U);
}

/// Half a thousandth too fast, that is 7 s in four hours.
TEST_F(RecordSessionTest, CorrectsAMicrophonesDriftWhereItKeepsCaptureTimes) {
  constexpr uint32_t kRate = 1'000;  // few frames a second: drift is the same
  fakeMicrophone->waveFormats = {{kWaveFormatLinearPCM, 1, kRate, 16}};
  microphone = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  microphone->openDevice();
  microphone->setFormat(microphone->getSupportedFormats()->at(0));
  for (const auto& [timing, tooLong] : {std::pair(FrameTiming::kSteady, 7.2), std::pair(FrameTiming::kCapture, 0.0)}) {
    session = sessionFor(path);
    session->setFrameTiming(timing);
    ASSERT_EQ(session->startSession(), 0);
    test::DriftingMicrophone drifting(kRate, 500, 2'000, 1'000'000);
    fakeCamera->deliver(picture, drifting.measure());
    std::array<uint8_t, 1'000> half{};
    while (drifting.truth() < 14'400e6) {
      while (session->isWriterBusy()) std::this_thread::yield();
      fakeMicrophone->deliver(half, drifting.measure());
      drifting.advance(500);
    }
    session->stopSession();
    const auto movie = test::probe(path);
    const auto* sound = movie.find("pcm_s16le");
    ASSERT_NE(sound, nullptr);
    const double seconds = static_cast<double>(sound->bytes) / 2 / kRate;
    EXPECT_NEAR(seconds, (drifting.truth() - 1e6) / 1e6 + tooLong, 0.020);
    std::filesystem::remove(path);
  }
}

TEST_F(RecordSessionTest, JoinsACameraThatIsCapturing) {
  camera->openDevice();
  camera->startCapture();
  ASSERT_EQ(session->startSession(), 0);
  EXPECT_EQ(fakeCamera->started, 1);
  EXPECT_EQ(fakeMicrophone->started, 1);
  session->stopSession();
  EXPECT_TRUE(camera->isCapturing());
}

/// Otherwise the movie begins with sound alone.
TEST_F(RecordSessionTest, AsksForAKeyFrameWhileTheMovieHasNone) {
  const auto units = test::streamsOf(test::accessUnitsOf("street-640x480-slices.h264"));
  const struct {
    const char* label;
    uint32_t codec;
    bool isRunning;
    size_t first;   ///< picture that comes, at 1 s
    int64_t sound;  ///< when it begins
    int asked;
  } rows[] = {{"raw pictures", kCMPixelFormat_422YpCbCr8, true, 0, 1'010'000, 0},
              {"a key frame", kCMVideoCodecType_H264, false, 0, 1'000'000, 0},
              {"a key frame older than the sound", kCMVideoCodecType_H264, false, 0, 1'010'000, 1},
              {"a camera that was running", kCMVideoCodecType_H264, true, 1, 1'000'000, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    fakeCamera->keyFramesAsked = 0;
    camera->setFormat(CMVideoFormatDescription::create(row.codec, 640, 480));
    camera->openDevice();
    if (row.isRunning) camera->startCapture();
    ASSERT_EQ(session->startSession(), 0);
    fakeMicrophone->deliver(packet, row.sound);
    for (size_t number = 0; number < 3; ++number) {
      auto bytes = units[row.first + number];
      fakeCamera->deliver(bytes, 1'000'000 + static_cast<int64_t>(number) * 33'000);
    }
    while (fakeCamera->keyFramesAsked < row.asked) std::this_thread::yield();
    session->stopSession();
    camera->closeDevice();
    EXPECT_EQ(fakeCamera->keyFramesAsked, row.asked);
    std::filesystem::remove(session->fileURL());
  }
}

TEST_F(RecordSessionTest, AnswersTheLastStartsStatus) {
  struct Row {
    const char* label;
    int camera, microphone;
    bool isCameraRunning;
    int32_t status;
  };
  for (const Row& row : {Row{"only the camera refused", 19, 0, false, 0}, Row{"both refused", 19, 19, false, 5},
                         Row{"the microphone refused", 0, 19, false, 5},
                         Row{"the microphone refused beside a preview", 0, 19, true, 5}}) {
    fakeCamera->startStatus = row.camera;
    fakeMicrophone->startStatus = row.microphone;
    camera->closeDevice();
    if (row.isCameraRunning) {
      camera->openDevice();
      camera->startCapture();
    }
    EXPECT_EQ(session->startSession(), row.status) << row.label;
    EXPECT_EQ(session->isRunning(), row.status == 0) << row.label;
    session->stopSession();
    std::filesystem::remove(path);
  }
  microphone->closeDevice();
  fakeMicrophone->refusesToOpen = true;
  EXPECT_EQ(session->startSession(), 3);
}

TEST_F(RecordSessionTest, ARefusedStartIsClearedUp) {
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"by a stop", [&] { EXPECT_EQ(session->stopSession(), 0); }},
      {"by another start",
       [&] {
         EXPECT_EQ(session->startSession(), 5);
         EXPECT_EQ(camera->delegates().size(), 1U) << "of the new start only";
         deliver(5, 1);
         EXPECT_EQ(temporaryFiles(), 1U);
         EXPECT_TRUE(isThere(temporary.file("clip.mov")));
         session->stopSession();
       }},
      {"by letting go", [&] { session.reset(); }},
  };
  for (const auto& [label, clearUp] : ways) {
    session = sessionFor(path);
    fakeMicrophone->startStatus = 19;
    EXPECT_EQ(session->startSession(), 5) << label;
    EXPECT_FALSE(session->isRunning()) << label;
    EXPECT_TRUE(isAmongDelegates()) << label;
    deliver(0, 5);
    const std::weak_ptr<VeskRecordSession> watched = session;
    clearUp();
    EXPECT_FALSE(isAmongDelegates()) << label;
    EXPECT_EQ(temporaryFiles(true), 0U) << label;
    EXPECT_FALSE(isThere(path)) << label;
    session.reset();
    EXPECT_TRUE(watched.expired()) << label;
    deliver(5, 5);
  }
}

// Clearing up serves the run loop, in which the host may let the session go.
TEST_F(RecordSessionTest, MayBeLetGoWhileItStartsAgain) {
  fakeMicrophone->startStatus = 19;
  EXPECT_EQ(session->startSession(), 5);
  fakeMicrophone->startStatus = 0;
  const std::weak_ptr<VeskRecordSession> watched = session;
  DispatchQueue::mainQueue()->async([&] { session.reset(); });
  VeskRecordSession& starting = *session;
  EXPECT_EQ(starting.startSession(), 0);
  EXPECT_EQ(session, nullptr);
  deliver(0, 5);
  ASSERT_FALSE(watched.expired()) << "held while it runs";
  watched.lock()->stopSession();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(framesIn(path), 5);
}

TEST_F(RecordSessionTest, MayBeLetGoWhileItStops) {
  session->startSession();
  deliver(0, 5);
  const std::weak_ptr<VeskRecordSession> watched = session;
  DispatchQueue::mainQueue()->async([&] {
    session.reset();
    camera.reset();
    microphone.reset();
  });
  VeskRecordSession& stopping = *session;
  EXPECT_EQ(stopping.stopSession(), 0);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(framesIn(path), 5);
  EXPECT_FALSE(fakeCamera->isCapturing()) << "nobody has the camera any more";
}

TEST_F(RecordSessionTest, RefusesToStartTwiceAndWithoutAMovie) {
  ASSERT_EQ(session->startSession(), 0);
  EXPECT_EQ(session->startSession(), 9);
  deliver(0, 5);
  session->stopSession();
  EXPECT_EQ(framesIn(path), 5);
  EXPECT_EQ(VeskRecordSession::initWithVideoDevice(nullptr, nullptr, path)->startSession(), 2);
  for (const char* noFile : {"", "/", "folder/", "..", "."}) {
    const auto other = sessionFor(noFile);
    EXPECT_EQ(other->startSession(), 8) << noFile;
    EXPECT_EQ(other->stopSession(), 0);
  }
  EXPECT_FALSE(isAmongDelegates());
}

TEST_F(RecordSessionTest, LeavesOutAMicrophoneWithoutAFormat) {
  microphone->setFormat(nullptr);
  ASSERT_EQ(session->startSession(), 0);
  deliver(0, 5);
  session->stopSession();
  EXPECT_TRUE(microphone->isOpen()) << "both are opened before anything is decided";
  EXPECT_EQ(fakeMicrophone->started, 0);
  EXPECT_EQ(test::probe(path).tracks.size(), 1U);
}

TEST_F(RecordSessionTest, KeepsAMovieThatCannotBePlaced) {
  movies.write("clip.mov", "somebody else's");
  record(7);
  const RecordingOutcome outcome = session->lastOutcome();
  EXPECT_EQ(test::contentOf(path), "somebody else's");
  EXPECT_EQ(outcome.temporaryPath, temporary.file("clip.mov"));
  EXPECT_TRUE(outcome.error);
  EXPECT_EQ(framesIn(outcome.temporaryPath), 7);

  record(3);
  EXPECT_EQ(framesIn(outcome.temporaryPath), 7) << "the next one leaves it alone";
  EXPECT_EQ(session->lastOutcome().temporaryPath, temporary.file("clip 2.mov"));

  std::filesystem::remove(temporary.file("clip.mov"));
  std::filesystem::remove(path);
  session->startSession();
  deliver(0, 1);
  EXPECT_TRUE(isThere(temporary.file("clip.mov"))) << "free again";
  session->stopSession();
}

/// What stands at the movie's name in the temporary folder is never touched, whoever put it there.
TEST_F(RecordSessionTest, TakesTheNextNameWhereOneIsTaken) {
  const std::string taken = temporary.file("clip.mov");
  const std::string victim = movies.write("victim.mov", "somebody's film");
  const struct {
    const char* label;
    std::function<void()> take;
    std::function<bool()> isUntouched;
  } rows[] = {
      {"a film that another program left", [&] { temporary.write("clip.mov", "old"); },
       [&] { return test::contentOf(taken) == "old"; }},
      {"a folder", [&] { std::filesystem::create_directory(taken); },
       [&] { return std::filesystem::is_directory(taken); }},
      {"a link that leads elsewhere", [&] { std::filesystem::create_symlink(victim, taken); },
       [&] { return std::filesystem::is_symlink(taken) && test::contentOf(victim) == "somebody's film"; }},
  };
  for (const auto& row : rows) {
    row.take();
    session->startSession();
    deliver(0, 2);
    EXPECT_TRUE(isThere(temporary.file("clip 2.mov"))) << row.label;
    session->stopSession();
    EXPECT_TRUE(row.isUntouched()) << row.label;
    EXPECT_EQ(framesIn(path), 2) << row.label;
    std::filesystem::remove_all(taken);
    std::filesystem::remove(path);
  }
}

/// As when no more files can be opened for a moment, which is over when the movie itself is.
TEST_F(RecordSessionTest, PlacesAMovieWhoseFolderCouldNotBeOpenedWhenItWasReserved) {
  const std::string folder = temporary.file("later");
  auto movie = TemporaryMovie::reserve(path, folder);
  ASSERT_TRUE(movie);
  std::filesystem::create_directory(folder);
  temporary.write("later/clip.mov", "film");
  const auto placing = movie->moveTo(path);
  EXPECT_FALSE(placing.error) << placing.error.what;
  EXPECT_EQ(test::contentOf(path), "film");
}

TEST_F(RecordSessionTest, TakesTheNextNameWhereAnotherProcessRecords) {
  int toChild[2], toParent[2];
  ASSERT_EQ(pipe(toChild) | pipe(toParent), 0);
  const pid_t other = fork();
  ASSERT_GE(other, 0);
  char byte = 0;
  if (other == 0) {
    // Nothing is written yet: only the name is reserved.
    const auto reserved = TemporaryMovie::reserve(path);
    const bool isWaiting = reserved && write(toParent[1], "r", 1) == 1;
    _exit(isWaiting && read(toChild[0], &byte, 1) == 1 ? 0 : 1);
  }
  ASSERT_EQ(read(toParent[0], &byte, 1), 1);
  session->startSession();
  deliver(0, 2);
  EXPECT_FALSE(isThere(temporary.file("clip.mov")));
  EXPECT_TRUE(isThere(temporary.file("clip 2.mov")));
  session->stopSession();

  // A program that died without clearing up holds no name.
  ASSERT_EQ(write(toChild[1], "x", 1), 1);
  int status = -1;
  waitpid(other, &status, 0);
  EXPECT_EQ(status, 0);
  for (const int descriptor : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(descriptor);
  std::filesystem::remove(path);
  session->startSession();
  deliver(0, 2);
  EXPECT_TRUE(isThere(temporary.file("clip.mov")));
  session->stopSession();
  EXPECT_EQ(temporaryFiles(true), 0U);
}

TEST_F(RecordSessionTest, KeepsAGrowingMovieFromOthersEyes) {
  const mode_t before = umask(027);
  session->startSession();
  deliver(0, 2);
  EXPECT_EQ(test::modeOf(temporary.file("clip.mov")), 0600U);
  session->stopSession();
  EXPECT_EQ(test::modeOf(path), 0640U) << "what the umask gives";
  record(2);  // its place is taken now
  EXPECT_EQ(test::modeOf(session->lastOutcome().temporaryPath), 0600U);
  umask(before);
}

TEST_F(RecordSessionTest, RecordsIntoTheTemporaryFolderItself) {
  const auto inPlace = sessionFor(temporary.path() + "//clip.mov");
  for (const int pictures : {3, 5}) {
    ASSERT_EQ(inPlace->startSession(), 0);
    deliver(0, pictures);
    inPlace->stopSession();
    const RecordingOutcome outcome = inPlace->lastOutcome();
    if (pictures == 3) {
      EXPECT_FALSE(outcome.error);
      EXPECT_EQ(outcome.temporaryPath, "");
    } else {
      EXPECT_EQ(outcome.temporaryPath, temporary.file("clip 2.mov"));
      EXPECT_EQ(framesIn(outcome.temporaryPath), 5);
    }
    EXPECT_EQ(framesIn(temporary.file("clip.mov")), 3) << "of the first";
  }
}

TEST_F(RecordSessionTest, TellsOfATemporaryPathOnlyWhereAFileIs) {
  session->startSession();
  session->stopSession();  // nothing came
  EXPECT_TRUE(session->lastOutcome().error);
  EXPECT_EQ(session->lastOutcome().temporaryPath, "");
  EXPECT_FALSE(isThere(path));

  session->startSession();
  std::filesystem::create_directory(temporary.file("clip.mov"));  // before the movie's file is made
  deliver(0, 2);
  session->stopSession();
  EXPECT_EQ(session->lastOutcome().temporaryPath, "");
  EXPECT_TRUE(std::filesystem::is_directory(temporary.file("clip.mov")));
  EXPECT_FALSE(isThere(path)) << "a folder is not placed as the movie";
}

TEST_F(RecordSessionTest, FindsItsMovieInARenamedFolder) {
  const std::string inner = temporary.file("inner");
  const std::string renamed = temporary.file("renamed");
  std::filesystem::create_directory(inner);
  setTemporaryDirectory(inner);
  session->startSession();
  deliver(0, 4);
  std::filesystem::rename(inner, renamed);
  session->stopSession();
  EXPECT_FALSE(session->lastOutcome().error);
  EXPECT_EQ(framesIn(path), 4);

  setTemporaryDirectory(renamed);
  session->startSession();
  deliver(0, 4);
  std::filesystem::rename(renamed, inner);
  session->stopSession();  // its place is taken
  EXPECT_EQ(session->lastOutcome().temporaryPath, inner + "/clip.mov");
  EXPECT_TRUE(isThere(inner + "/clip.mov"));
  setTemporaryDirectory(temporary.path());
}

TEST_F(RecordSessionTest, TwoOfTheSameNameRecordOneCamera) {
  const test::TemporaryFolder elsewhere;
  const auto other = sessionFor(elsewhere.file("clip.mov"));
  ASSERT_EQ(session->startSession(), 0);
  deliver(0, 10);
  ASSERT_EQ(other->startSession(), 0);
  deliver(10, 10);
  session->stopSession();  // stops the microphone for both
  deliver(20, 10);
  other->stopSession();
  EXPECT_EQ(framesIn(path), 20);
  EXPECT_EQ(framesIn(elsewhere.file("clip.mov")), 20);
}

TEST_F(RecordSessionTest, RoutesBuffersByTheDevicesType) {
  session->startSession();
  const auto info = std::make_shared<VeskDeviceInfo>();
  session->didCaptureFrame(picture.data(), picture.size(), 1'000'000, info);
  for (const int32_t type : {1, 2, -1}) {
    info->setDeviceType(type);
    session->didCaptureFrame(packet.data(), packet.size(), 1'000'000 + (type + 1) * 33'333, info);
  }
  const RecordingStatistics statistics = session->statistics();
  EXPECT_EQ(statistics.videoFrames, 1U);
  EXPECT_GE(statistics.audioPackets, 1U);
  EXPECT_EQ(statistics.audioPackets + statistics.audioDropped, 3U);
  session->stopSession();
  session->didCaptureFrame(picture.data(), picture.size(), 2'000'000, info);
}

TEST_F(RecordSessionTest, KeepsTheDevicesItWasStartedWith) {
  session->startSession();
  session->setVideoDevice(nullptr);
  session->setAudioDevice(nullptr);
  deliver(0, 5);
  session->stopSession();
  EXPECT_FALSE(isAmongDelegates());
  EXPECT_FALSE(microphone->isCapturing());
  EXPECT_EQ(session->startSession(), 2);
}

TEST_F(RecordSessionTest, StopsAndStartsWhileFramesArrive) {
  test::TwoThreads frames([&](int thread, int64_t time) {
    if (thread == 0)
      fakeCamera->deliver(picture, time);
    else
      fakeMicrophone->deliver(std::span(packet).first(3840), time);
    session->isWriterBusy();
  });
  for (int round = 0; round < 3; ++round) {
    frames.grant(20);
    ASSERT_EQ(session->startSession(), 0);
    frames.grant(50);
    while (session->statistics().videoFrames < 10) std::this_thread::yield();
    DispatchQueue::mainQueue()->async([&] { frames.grant(20); });
    session->stopSession();
    const auto movie = test::probe(path);
    ASSERT_NE(movie.find("2vuy"), nullptr);
    EXPECT_EQ(movie.find("2vuy")->packets, static_cast<int>(session->lastOutcome().statistics.videoFrames));
    std::filesystem::remove(path);
  }
}

}  // namespace
}  // namespace vesk
