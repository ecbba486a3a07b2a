#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include <vesk/record_session.h>
#include <vesk/recorder.h>
#include <vesk/run_loop.h>
#include <vesk/vci.h>
#include "tests/unit/sessions/recording_test.h"

// Why sessions fail, as a host reads it.

namespace vesk::test {
namespace {

namespace fs = std::filesystem;

struct SessionErrors : RecordingTest {
  std::shared_ptr<VeskRecordSession> record(const std::string& path) {
    return VeskRecordSession::initWithVideoDevice(camera, microphone, path);
  }
};

TEST_F(SessionErrors, OfAStartAreThoseOfWhateverRefused) {
  struct Row {
    const char* label;
    std::function<void()> arrange;
    std::string path;
    int32_t status;
    Cause cause;
    const char* words;
  };
  const std::string path = movies.file("clip.mov");
  const Row rows[] = {
      {"name", [] {}, movies.path() + "/", kVeskStatusMovieNotOpened, Cause::kWrongUse, "names no file"},
      {"camera", [this] { fakeCamera->startStatus = kVCIBusy; }, path, 0, Cause::kBusy, "\"Camera /cam\" is in use"},
      {"microphone", [this] { fakeMicrophone->startStatus = kVCIBusy; }, path, kVeskStatusMicrophoneInUse, Cause::kBusy,
       "\"Microphone /mic\" is in use"},
      {"format", [this] { camera->setFormat(nullptr); }, path, kVeskStatusNoFormat, Cause::kNoFormat, "no format"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    const auto format = camera->getFormat();
    row.arrange();
    const auto session = record(row.path);
    EXPECT_EQ(session->startSession(), row.status);
    expectError(session->lastError(), row.cause, row.words);
    session->stopSession();
    fakeCamera->startStatus = fakeMicrophone->startStatus = 0;
    camera->setFormat(format);
    camera->closeDevice();
    microphone->closeDevice();
  }
  const auto session = record(path);
  EXPECT_EQ(session->continueSession(path), kVeskStatusNotRecording);
  expectError(session->lastError(), Cause::kWrongUse, "no recording is under way");
  EXPECT_EQ(session->startSession(), 0);
  EXPECT_FALSE(session->lastError());
  EXPECT_EQ(session->startSession(), kVeskStatusAlreadyRecording);
  expectError(session->lastError(), Cause::kWrongUse, "under way already");
  deliver(0, 3);
  session->stopSession();
  EXPECT_FALSE(session->lastError());
  EXPECT_TRUE(session->lastOutcome().isPlaced);
}

TEST_F(SessionErrors, OfARecordingSayWhatBecameOfItsMovie) {
  const struct {
    const char* label;
    std::function<void()> whileRecording;
    std::string path;
    Cause cause;
    const char* words;
    bool isKept;
  } rows[] = {
      {"file exists", [this] { movies.write("taken.mov", "somebody else's"); }, movies.file("taken.mov"),
       Cause::kFileExists, "taken.mov", true},
      {"folder gone", [] {}, movies.file("none/clip.mov"), Cause::kFolderGone, "none/clip.mov", true},
      {"its own folder gone", [this] { fs::remove_all(temporary.path()); }, movies.file("clip.mov"), Cause::kFolderGone,
       "could not be written", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto session = record(row.path);
    ASSERT_EQ(session->startSession(), 0);
    deliver(0, 60);
    row.whileRecording();
    session->stopSession();
    const RecordingOutcome outcome = session->lastOutcome();
    EXPECT_FALSE(outcome.isPlaced);
    EXPECT_EQ(!outcome.temporaryPath.empty(), row.isKept);
    EXPECT_EQ(outcome.isLeft, row.isKept);
    expectError(outcome.error, row.cause, row.words);
    EXPECT_EQ(session->lastError(), outcome.error);
  }
}

TEST_F(SessionErrors, OfARecorderWithoutAFolderComeWithTheOpenAndInTheStatistics) {
  const auto recorder = VeskRecorder::init();
  EXPECT_EQ(recorder->openRecorderWithFilPath(movies.file("none/clip.mov"), camera, nullptr), 0);
  EXPECT_TRUE(recorder->statistics().writerMissing);
  expectError(recorder->lastError(), Cause::kFolderGone, "none/clip.mov");
  EXPECT_EQ(recorder->statistics().error, recorder->lastError());
  EXPECT_EQ(recorder->openRecorderWithFilPath(movies.file("b.mov"), camera, nullptr), kVeskStatusAlreadyRecording);
  expectError(recorder->lastError(), Cause::kWrongUse, "already");
  recorder->closeRecorder();
  EXPECT_EQ(recorder->openRecorderWithFilPath(movies.file("b.mov"), camera, nullptr), 0);
  EXPECT_FALSE(recorder->lastError());
}

TEST_F(SessionErrors, OfAPreviewAreTheCamerasAndThePhotos) {
  const auto session = VeskPreviewSession::initWithDevice(camera, nullptr);
  const auto view = VeskPreviewView::initWithFrame({0, 0, 16, 16});
  fakeCamera->refusesToOpen = true;
  EXPECT_EQ(session->openSession(), kVeskStatusFailed);
  expectError(session->lastError(), Cause::kOther, "\"Camera /cam\" could not be opened");
  fakeCamera->refusesToOpen = false;
  EXPECT_EQ(session->startSessionWithPreview(nullptr), kVeskStatusNoView);
  expectError(session->lastError(), Cause::kWrongUse, "no view");
  ASSERT_EQ(session->openSession(), 0);
  fakeCamera->startStatus = kVCIBusy;
  EXPECT_EQ(session->startSessionWithPreview(view), kVeskStatusCameraInUse);
  expectError(session->lastError(), Cause::kBusy, "\"Camera /cam\" is in use");
  session->capturePhotoFrameToPath(movies.file("a"));
  expectError(session->lastPhoto().error, Cause::kWrongUse, "not running");
  fakeCamera->startStatus = 0;
  EXPECT_EQ(session->startSessionWithPreview(view), 0);
  EXPECT_FALSE(session->lastError());
  session->capturePhotoFrameToPath(movies.file("a"));
  expectError(session->lastPhoto().error, Cause::kStalled, "no picture has come");
  fakeCamera->deliver(picture, 1);
  NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
  session->capturePhotoFrameToPath(movies.file("none/a"));
  expectError(session->lastPhoto().error, Cause::kFolderGone, "none/a.jpeg");
  EXPECT_EQ(session->lastError(), session->lastPhoto().error);
  session->closeSession();
}

}  // namespace
}  // namespace vesk::test
