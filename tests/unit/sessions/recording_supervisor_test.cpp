#include <vesk/recording_supervisor.h>

#include <algorithm>
#include <fstream>
#include <optional>

#include <vesk/capture_choices.h>
#include <vesk/dispatch_queue.h>
#include <vesk/recording_leftovers.h>
#include <vesk/run_loop.h>
#include "sessions/supervisor_environment.h"
#include "tests/support/h264_stream.h"
#include "tests/support/log_recorder.h"
#include "tests/unit/sessions/recording_test.h"

namespace vesk {
namespace {

using Kind = RecordingEventKind;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A supervisor over scripted devices, with a clock and a disk of the test's own.
struct SupervisorTest : test::RecordingTest {
  SupervisorTest() {
    environment.tick = milliseconds(1);
    environment.roomInterval = milliseconds(0);
    environment.now = [this] { return now; };
    environment.room = [this](const std::string&) { return std::optional(room.load()); };
    supervisor = make();
  }
  ~SupervisorTest() override {
    supervisor.reset();
    NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
  }

  std::shared_ptr<VeskRecordingSupervisor> make() {
    return SupervisorTesting::make(
        [this](const RecordingEvent& event) {
          events.push_back(event);
          if (act) act(event);
        },
        environment);
  }

  enum class Devices { kBoth, kCameraOnly };
  /// Raw frames of 16 x 16, for the default devices.
  RecordingSettings settingsFor(const std::string& file, Devices devices = Devices::kBoth,
                                bool waitsForCamera = false) {
    RecordingSettings settings;
    settings.file = movies.file(file);
    settings.withSound = devices == Devices::kBoth;
    settings.waitsForCamera = waitsForCamera;
    settings.setVideoFormat = [this](VeskVideoDevice& chosen) {
      chosen.setFormat(format);
      return Error();
    };
    return settings;
  }

  /// Serves the main loop until `isDone`.
  template <class Done>
  bool serveUntil(const Done& isDone) {
    const auto deadline = std::chrono::steady_clock::now() + seconds(30);
    while (!isDone() && std::chrono::steady_clock::now() < deadline)
      NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + milliseconds(2));
    return isDone();
  }
  /// The next event of the kind after those that were waited for; what came before it is skipped.
  RecordingEvent next(Kind kind) {
    const auto found = [&] {
      return std::find_if(events.begin() + static_cast<ptrdiff_t>(seen), events.end(),
                          [&](const RecordingEvent& event) { return event.kind == kind; });
    };
    if (!serveUntil([&] { return found() != events.end(); })) {
      ADD_FAILURE() << "no event of kind " << static_cast<int>(kind);
      return {};
    }
    const auto at = found();
    seen = static_cast<size_t>(at - events.begin()) + 1;
    return *at;
  }
  void startLesson() {
    EXPECT_TRUE(supervisor->start(settingsFor("lesson.mov")));
    next(Kind::kStarted);
  }
  void finish() {
    supervisor->stop();
    next(Kind::kEnded);
  }
  std::vector<Kind> kinds() const {
    std::vector<Kind> all;
    for (const RecordingEvent& event : events) all.push_back(event.kind);
    return all;
  }

  void unplug(capture::DeviceKind kind, const std::string& path) {
    source->detach(path);
    source->announce(kind, false);
  }
  void plugCameraIn() {
    fakeCamera = source->attachCamera("/cam");
    source->announce(capture::DeviceKind::kVideo, true);
  }
  void plugMicrophoneIn() {
    fakeMicrophone = source->attachMicrophone("/mic");
    source->announce(capture::DeviceKind::kAudio, true);
  }

  /// Names in the folder of movies, hidden ones too.
  std::set<std::string> names() const { return test::namesIn(movies.path()); }
  int frames(const std::string& file) const { return framesIn(movies.file(file)); }

  test::LogRecorder log;
  SupervisorEnvironment environment;
  WatchClock::time_point now = WatchClock::now();
  std::atomic<uint64_t> room{uint64_t{1} << 40};
  CMVideoFormatDescriptionRef format = CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, 16, 16);
  std::vector<RecordingEvent> events;
  size_t seen = 0;
  std::function<void(const RecordingEvent&)> act;
  std::shared_ptr<VeskRecordingSupervisor> supervisor;
};

TEST_F(SupervisorTest, AMovieGrowsBesideItsPlaceAndIsPlaced) {
  EXPECT_EQ(supervisor->frameTiming(), FrameTiming::kCapture);
  ASSERT_TRUE(supervisor->start(settingsFor("lesson.mov")));
  EXPECT_FALSE(supervisor->start(settingsFor("other.mov"))) << "one at a time";
  EXPECT_TRUE(events.empty()) << "never inside a call";
  EXPECT_EQ(next(Kind::kStarted).file, movies.file("lesson.mov"));
  film(30);
  EXPECT_EQ(names().size(), 1U);
  EXPECT_TRUE(names().begin()->starts_with(".lesson.mov.recording-"));
  EXPECT_TRUE(std::filesystem::is_empty(temporary.path())) << "not in the process's folder";
  EXPECT_EQ(supervisor->progress().statistics.videoFrames, 30U);
  EXPECT_EQ(supervisor->progress().file, movies.file("lesson.mov"));
  EXPECT_EQ(VeskRecordingSupervisor::checkFile(movies.file("lesson.mov")).cause, Cause::kBusy);

  supervisor->stop();
  const RecordedMovie movie = next(Kind::kMovieFinished).movie.value();
  EXPECT_EQ(next(Kind::kEnded).error, Error());
  EXPECT_FALSE(supervisor->isActive());
  EXPECT_EQ(movie.file, movies.file("lesson.mov"));
  EXPECT_FALSE(movie.error || movie.missing);
  EXPECT_TRUE(movie.isSilent);
  EXPECT_EQ(movie.soundFormat->streamBasicDescription().mChannelsPerFrame, 2U);
  EXPECT_EQ(names(), std::set<std::string>{"lesson.mov"});
  EXPECT_EQ(frames("lesson.mov"), 30);
  EXPECT_FALSE(fakeCamera->isCapturing() || fakeMicrophone->isCapturing());
}

TEST_F(SupervisorTest, WhatCannotBeginSaysWhyAndLeavesNothing) {
  movies.write("there.mov", "precious");
  const auto busy = [](const std::shared_ptr<test::FakeDevice>& device) { device->startStatus = 19; };
  struct Row {
    const char* label;
    Cause cause;
    std::function<void(RecordingSettings&)> prepare;
  };
  const std::vector<Row> rows{
      {"a folder", Cause::kWrongUse, [&](auto& settings) { settings.file = movies.path(); }},
      {"no movie's name", Cause::kWrongUse, [&](auto& settings) { settings.file = movies.file("lesson.mp4"); }},
      {"a file in the way", Cause::kFileExists, [&](auto& settings) { settings.file = movies.file("there.mov"); }},
      {"no such folder", Cause::kFolderGone, [&](auto& settings) { settings.file = movies.file("none/a.mov"); }},
      {"no such camera", Cause::kNoDevice, [](auto& settings) { settings.findCamera = [] { return nullptr; }; }},
      {"no such microphone", Cause::kNoDevice,
       [](auto& settings) { settings.findMicrophone = [] { return nullptr; }; }},
      {"no such format", Cause::kNoFormat,
       [](auto& settings) {
         settings.setVideoFormat = [](auto& chosen) {
           return chooseVideoFormat(chosen, {.size = CMVideoDimensions{1, 2}}).error;
         };
       }},
      {"a format that no movie holds", Cause::kNoFormat,
       [](auto& settings) {
         settings.setVideoFormat = [](auto& chosen) {
           chosen.setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_MotionJPEG, 64, 64));
           return Error();
         };
       }},
      {"a camera that does not start", Cause::kBusy, [&](auto&) { busy(fakeCamera); }},
      {"a microphone that does not start", Cause::kBusy, [&](auto&) { busy(fakeMicrophone); }},
      {"a host that throws", Cause::kOther, [](auto& settings) {
         settings.findCamera = []() -> std::shared_ptr<VeskDeviceInfo> { throw std::runtime_error("oops"); };
       }}};
  for (const Row& row : rows) {
    fakeCamera->startStatus = fakeMicrophone->startStatus = 0;
    RecordingSettings settings = settingsFor("lesson.mov");
    row.prepare(settings);
    supervisor->start(std::move(settings));
    const RecordingEvent ended = next(Kind::kEnded);
    test::expectError(ended.error, row.cause);
    EXPECT_NE(ended.error.what, "") << row.label;
    EXPECT_FALSE(supervisor->isActive()) << row.label;
    EXPECT_FALSE(fakeCamera->isCapturing() || fakeMicrophone->isCapturing()) << row.label;
    EXPECT_EQ(names(), std::set<std::string>{"there.mov"}) << row.label;
  }
  EXPECT_EQ(events.size(), 11U) << "one event each";
}

TEST_F(SupervisorTest, TwoRecordingsOfOneHostKeepApart) {
  const auto otherCamera = source->attachCamera("/other");
  source->announce(capture::DeviceKind::kVideo, true);
  std::vector<RecordingEvent> others;
  const auto other =
      SupervisorTesting::make([&](const RecordingEvent& event) { others.push_back(event); }, environment);
  startLesson();
  RecordingSettings second = settingsFor("lesson.mov", Devices::kCameraOnly);
  second.findCamera = [] { return infoOf("/other"); };
  other->start(second);
  ASSERT_TRUE(serveUntil([&] { return !others.empty(); }));
  EXPECT_EQ(others.front().error.cause, Cause::kBusy) << "the same place";
  second.file = movies.file("second.mov");
  other->start(second);
  ASSERT_TRUE(serveUntil([&] { return others.size() == 2; }));
  for (int i = 0; i < 10; ++i) {
    film(1);
    otherCamera->deliver(picture, 1'000'000 + i * int64_t{40'000});
  }
  film(10);
  EXPECT_EQ(names().size(), 2U);
  supervisor->stop();
  EXPECT_EQ(next(Kind::kMovieFinished).movie->statistics.videoFrames, 20U);
  other->stop();
  ASSERT_TRUE(serveUntil([&] { return !other->isActive(); }));
  EXPECT_EQ(names(), (std::set<std::string>{"lesson.mov", "second.mov"}));
  EXPECT_EQ(frames("second.mov"), 10);
}

TEST_F(SupervisorTest, AMicrophoneThatReturnsIsHeardInTheSameMovie) {
  supervisor->start(settingsFor("lesson.mov"));
  film(30);
  unplug(capture::DeviceKind::kAudio, "/mic");
  EXPECT_EQ(next(Kind::kMicrophoneRemoved).device->path(), "/mic");
  film(15, false);
  EXPECT_TRUE(supervisor->progress().isSoundMissing);
  now += milliseconds(700);
  EXPECT_EQ(next(Kind::kSoundMissing).error.cause, Cause::kUnplugged);
  film(15, false);
  plugMicrophoneIn();
  const auto before = supervisor->microphone();
  EXPECT_EQ(next(Kind::kMicrophoneReturned).error, Error());
  EXPECT_NE(supervisor->microphone(), before);
  EXPECT_TRUE(supervisor->microphone()->isCapturing());
  fakeMicrophone->mute = true;
  for (int second = 0; second < 10; ++second) {
    film(30);
    serveUntil([&] { return supervisor->progress().statistics.videoWaiting == 0; });
  }
  EXPECT_EQ(next(Kind::kSoundQuiet).error.remedy, "It is muted.");
  supervisor->stop();
  const RecordedMovie movie = next(Kind::kMovieFinished).movie.value();
  EXPECT_GT(movie.statistics.audioSilence, 0U);
  EXPECT_EQ(frames("lesson.mov"), 360);
  EXPECT_EQ(test::probe(movies.file("lesson.mov")).find("pcm_s16le")->bytes, 360 * int64_t{6400});
  next(Kind::kEnded);
  EXPECT_FALSE(fakeMicrophone->isCapturing());
}

TEST_F(SupervisorTest, ACameraThatGoesEndsTheMovieWhole) {
  supervisor->start(settingsFor("lesson.mov"));
  film(10);
  unplug(capture::DeviceKind::kAudio, "/mic");  // as the two of one USB device go
  unplug(capture::DeviceKind::kVideo, "/cam");
  next(Kind::kCameraRemoved);
  supervisor->stop();  // while the movie is being finished: why it ended stays
  const Error error = next(Kind::kEnded).error;
  EXPECT_EQ(error.cause, Cause::kUnplugged);
  EXPECT_NE(error.remedy.find(movies.file("lesson.mov")), std::string::npos);
  EXPECT_EQ(kinds(), (std::vector{Kind::kStarted, Kind::kMicrophoneRemoved, Kind::kCameraRemoved, Kind::kMovieFinished,
                                  Kind::kEnded}))
      << "and not that sound is missing";
  EXPECT_EQ(frames("lesson.mov"), 10);
}

TEST_F(SupervisorTest, ASourceThatCanWaitDoesWhileADeviceThatWentIsHandled) {
  const auto isBusy = supervisor->writerBusy();
  startLesson();
  film(10);
  EXPECT_FALSE(isBusy());
  unplug(capture::DeviceKind::kAudio, "/mic");
  EXPECT_TRUE(isBusy());
  next(Kind::kMicrophoneRemoved);
  EXPECT_FALSE(isBusy()) << "the movie goes on";
  unplug(capture::DeviceKind::kVideo, "/cam");
  next(Kind::kCameraRemoved);
  EXPECT_TRUE(isBusy()) << "until the movie is finished";
  next(Kind::kEnded);
  EXPECT_FALSE(isBusy());

  plugCameraIn();
  supervisor->start(settingsFor("second.mov"));
  next(Kind::kStarted);
  unplug(capture::DeviceKind::kVideo, "/cam");
  supervisor.reset();
  serveUntil([&] { return !isBusy(); });
  EXPECT_FALSE(isBusy()) << "nobody is left to handle it";
}

TEST_F(SupervisorTest, ACameraThatReturnsGoesOnInTheNextMovie) {
  movies.write("lesson.mov", "old");
  movies.write("lesson-2.mov", "precious");
  unplug(capture::DeviceKind::kVideo, "/cam");
  RecordingSettings settings = settingsFor("lesson.mov", Devices::kBoth, true);
  settings.replacesFile = true;
  supervisor->start(settings);
  for (const char* name : {"lesson.mov", "lesson-3.mov"}) {
    next(Kind::kWaiting);
    if (filmed > 0) {  // another one is none of its business any more
      source->attachCamera("/another");
      source->announce(capture::DeviceKind::kVideo, true);
    }
    plugCameraIn();
    // Its own microphone would come within a moment; there is none.
    serveUntil([&] { return fakeCamera->opened == 1; });
    now += seconds(3);
    EXPECT_EQ(next(Kind::kStarted).file, movies.file(name));
    film(10);
    unplug(capture::DeviceKind::kVideo, "/cam");
    EXPECT_EQ(next(Kind::kMovieFinished).movie->file, movies.file(name));
  }
  next(Kind::kWaiting);
  supervisor->stop();
  EXPECT_EQ(next(Kind::kEnded).error, Error());
  EXPECT_EQ(names(), (std::set<std::string>{"lesson-2.mov", "lesson-3.mov", "lesson.mov"}));
  EXPECT_EQ(frames("lesson.mov"), 10);
  EXPECT_EQ(test::contentOf(movies.file("lesson-2.mov")), "precious");
}

TEST_F(SupervisorTest, ACameraThatHasJustComeMayRefuseAFewTimes) {
  for (const int refusals : {3, 100}) {
    unplug(capture::DeviceKind::kVideo, "/cam");
    supervisor->start(settingsFor("lesson.mov", Devices::kCameraOnly, true));
    next(Kind::kWaiting);
    fakeCamera = source->attachCamera("/cam");
    fakeCamera->startStatus = 19;
    source->announce(capture::DeviceKind::kVideo, true);
    const size_t before = events.size();
    serveUntil([&] {
      now += milliseconds(400);
      if (fakeCamera->started >= refusals) fakeCamera->startStatus = 0;
      return events.size() > before;
    });
    if (refusals == 100) {
      EXPECT_EQ(next(Kind::kEnded).error.cause, Cause::kBusy);
      EXPECT_EQ(fakeCamera->started, 6);
      continue;
    }
    next(Kind::kStarted);
    film(5, false);
    finish();
    EXPECT_EQ(frames("lesson.mov"), 5);
    std::filesystem::remove(movies.file("lesson.mov"));
  }
  EXPECT_TRUE(names().empty());
}

TEST_F(SupervisorTest, WhatTheHostThrowsWhileItWaitsEndsTheRecording) {
  bool throws = false;
  RecordingSettings settings = settingsFor("lesson.mov", Devices::kBoth, true);
  settings.findCamera = [&]() -> std::shared_ptr<VeskDeviceInfo> {
    if (throws) throw 5;
    return nullptr;
  };
  supervisor->start(settings);
  next(Kind::kWaiting);
  throws = true;
  source->attachCamera("/another");
  source->announce(capture::DeviceKind::kVideo, true);
  EXPECT_EQ(next(Kind::kEnded).error.cause, Cause::kOther);
  EXPECT_FALSE(supervisor->isActive());
}

TEST_F(SupervisorTest, ACameraThatGoesBeforeItsMicrophoneComesIsWaitedForAgain) {
  unplug(capture::DeviceKind::kVideo, "/cam");
  RecordingSettings settings = settingsFor("lesson.mov", Devices::kBoth, true);
  settings.findMicrophone = [] { return infoOf("/own"); };  // which does not come
  supervisor->start(settings);
  next(Kind::kWaiting);
  plugCameraIn();
  serveUntil([&] { return fakeCamera->opened == 1; });
  unplug(capture::DeviceKind::kVideo, "/cam");
  next(Kind::kWaiting);
  EXPECT_EQ(fakeCamera->closed, 1);
  plugCameraIn();
  serveUntil([&] { return fakeCamera->opened == 1; });
  now += seconds(3);
  EXPECT_EQ(next(Kind::kSoundMissing).error.cause, Cause::kNoDevice);
  next(Kind::kStarted);
  film(5, false);
  supervisor->stop();
  EXPECT_EQ(next(Kind::kMovieFinished).movie->soundFormat, nullptr);
  next(Kind::kEnded);
  EXPECT_EQ(frames("lesson.mov"), 5);
}

TEST_F(SupervisorTest, TheDurationIsThatOfAllMovies) {
  RecordingSettings settings = settingsFor("lesson.mov", Devices::kCameraOnly, true);
  settings.duration = 2;
  supervisor->start(settings);
  film(30, false);
  unplug(capture::DeviceKind::kVideo, "/cam");
  next(Kind::kWaiting);
  plugCameraIn();
  next(Kind::kStarted);
  film(30, false);
  EXPECT_EQ(next(Kind::kMovieFinished).movie->file, movies.file("lesson-2.mov"));
  EXPECT_EQ(next(Kind::kEnded).error, Error());
}

TEST_F(SupervisorTest, ChangedParameterSetsGoOnInTheNextMovie) {
  const auto small = test::accessUnitsOf("MIDR_MW_D.264");
  const auto large = test::accessUnitsOf("street-640x480-slices.h264");
  format = CMVideoFormatDescription::create(kCMVideoCodecType_H264, 176, 144);
  for (const bool isFreeToGoOn : {true, false}) {
    supervisor->start(settingsFor("lesson.mov", Devices::kCameraOnly));
    next(Kind::kStarted);
    filmUnits(small, false);
    const std::string away = movies.path() + "-away";  // a folder that is gone takes no other movie
    if (!isFreeToGoOn) std::filesystem::rename(movies.path(), away);
    filmUnits({large.begin(), large.begin() + 40}, false);
    if (isFreeToGoOn) {
      EXPECT_EQ(next(Kind::kContinued).file, movies.file("lesson-2.mov"));
    } else {
      EXPECT_EQ(next(Kind::kNotContinued).error.cause, Cause::kFolderGone);
      std::filesystem::rename(away, movies.path());
    }
    filmUnits({large.begin() + 40, large.end()}, false);
    finish();
    EXPECT_EQ(test::probe(movies.file("lesson.mov")).find("h264")->packets, static_cast<int>(small.size()));
    EXPECT_EQ(isThere(movies.file("lesson-2.mov")), isFreeToGoOn);
    if (isFreeToGoOn) {
      EXPECT_EQ(test::probe(movies.file("lesson-2.mov")).find("h264")->packets, static_cast<int>(large.size()));
    }
    for (const std::string& name : names()) std::filesystem::remove(movies.file(name));
  }
}

TEST_F(SupervisorTest, ADiskThatFillsIsReportedAndTheMovieEndsWhole) {
  startLesson();
  film(90);  // 3 s
  RecordingStatistics statistics;
  serveUntil([&] {  // until the writer has all of it, so that the rate no longer changes
    statistics = supervisor->progress().statistics;
    return statistics.bytes >= 90 * (picture.size() + packet.size());
  });
  const double rate = static_cast<double>(statistics.bytes) / (static_cast<double>(statistics.duration) / 1e6);
  now += seconds(6);
  room = static_cast<uint64_t>(rate * 120) + 300'000;
  const RecordingEvent filling = next(Kind::kDiskFilling);
  EXPECT_EQ(filling.error.cause, Cause::kDiskFull);
  EXPECT_NEAR(supervisor->progress().secondsLeftOnDisk.value_or(0), 120, 15);
  film(5);
  room = static_cast<uint64_t>(rate) + 300'000;
  EXPECT_FALSE(next(Kind::kMovieFinished).movie->error);
  EXPECT_EQ(next(Kind::kEnded).error.cause, Cause::kDiskFull);
  const auto all = kinds();
  EXPECT_EQ(std::count(all.begin(), all.end(), Kind::kDiskFilling), 1);
  EXPECT_EQ(frames("lesson.mov"), 95);
}

TEST_F(SupervisorTest, FramesThatStallAndASilentMicrophoneAreReported) {
  startLesson();
  film(1);
  serveUntil([&] { return supervisor->progress().secondsLeftOnDisk || supervisor->progress().statistics.videoFrames; });
  for (int round = 0; round < 2; ++round) {
    // Look at the newest frame first, then let time pass.
    NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + milliseconds(20));
    now += seconds(6);
    EXPECT_EQ(next(Kind::kFramesStalled).error.cause, Cause::kStalled);
    film(1);
    next(Kind::kFramesResumed);
  }
  EXPECT_EQ(events[2].kind, Kind::kSoundStalled) << "no packet came either";
  film(301);  // ten seconds of silence
  const Error quiet = next(Kind::kSoundQuiet).error;
  EXPECT_EQ(quiet.cause, Cause::kSilent);
  EXPECT_NE(quiet.what.find("no sound above -60 dB for 10 s"), std::string::npos);
  finish();
}

TEST_F(SupervisorTest, AMovieWhoseFolderGoesIsAnErrorThatEndsTheRecording) {
  startLesson();
  film(5);
  std::filesystem::remove_all(movies.file(*names().begin()));
  serveUntil([&] {
    film(30);
    return !supervisor->isActive();
  });
  const RecordedMovie movie = next(Kind::kMovieFinished).movie.value();
  EXPECT_EQ(movie.error.cause, Cause::kFolderGone);
  EXPECT_EQ(movie.file, "");
  EXPECT_FALSE(movie.isLeft);
  EXPECT_EQ(next(Kind::kEnded).error, movie.error);
}

TEST_F(SupervisorTest, TheHostMayLetEverythingGoInAnyEvent) {
  struct Row {
    Kind kind;
    int frames;  ///< that the movie then holds
    bool letsEverythingGo;
  };
  for (const Row& row :
       {Row{Kind::kStarted, 5, true}, Row{Kind::kMicrophoneRemoved, 5, true}, Row{Kind::kMovieFinished, 5, true},
        Row{Kind::kEnded, 5, true}, Row{Kind::kStarted, 5, false}}) {
    supervisor = make();
    supervisor->start(settingsFor("lesson.mov"));
    film(row.frames);
    act = [&](const RecordingEvent& event) {
      if (event.kind != row.kind) return;
      if (row.letsEverythingGo)
        supervisor.reset();
      else
        supervisor->stop();
      EXPECT_EQ(isThere(movies.file("lesson.mov")), row.letsEverythingGo) << "in its place at once";
    };
    if (row.kind == Kind::kMicrophoneRemoved) unplug(capture::DeviceKind::kAudio, "/mic");
    if (row.kind == Kind::kMovieFinished || row.kind == Kind::kEnded) supervisor->stop();
    EXPECT_TRUE(serveUntil([&] { return row.letsEverythingGo ? !supervisor : !supervisor->isActive(); }));
    act = {};
    EXPECT_EQ(names(), std::set<std::string>{"lesson.mov"});
    EXPECT_EQ(frames("lesson.mov"), row.frames);
    EXPECT_FALSE(fakeCamera->isCapturing());
    std::filesystem::remove(movies.file("lesson.mov"));
    if (row.kind == Kind::kMicrophoneRemoved) plugMicrophoneIn();
  }
}

TEST_F(SupervisorTest, TheHostMayLetGoInAFunctionOfItsSettings) {
  for (const int which : {0, 1, 2, 3}) {
    supervisor = make();
    RecordingSettings settings = settingsFor("lesson.mov");
    const auto letGo = [&](int function) {
      if (function == which) supervisor.reset();
    };
    settings.findCamera = [&] { return letGo(0), defaultCamera(); };
    settings.setVideoFormat = [&](VeskVideoDevice& chosen) { return letGo(1), chosen.setFormat(format), Error(); };
    settings.findMicrophone = [&] { return letGo(2), defaultMicrophone(); };
    settings.setSoundFormat = [&](VeskAudioDevice& chosen) { return letGo(3), chooseSoundFormat(chosen).error; };
    supervisor->start(settings);
    EXPECT_FALSE(supervisor);
    EXPECT_FALSE(fakeCamera->isCapturing() || fakeMicrophone->isCapturing()) << which;
    EXPECT_EQ(fakeCamera->opened, fakeCamera->closed) << which;
    EXPECT_EQ(fakeMicrophone->opened, fakeMicrophone->closed) << which;
  }
  EXPECT_TRUE(names().empty());
}

TEST_F(SupervisorTest, DevicesOfTheHostAreJoinedAndLeftAsTheyAre) {
  camera->openDevice();
  camera->startCapture();
  RecordingSettings settings = settingsFor("lesson.mov", Devices::kCameraOnly);
  settings.camera = camera;
  supervisor->start(settings);
  next(Kind::kStarted);
  EXPECT_EQ(supervisor->camera(), camera);
  film(10, false);
  EXPECT_EQ(camera->stopUnlessRecorded(), 0) << "the preview ends first";
  EXPECT_TRUE(camera->isCapturing());
  film(10, false);
  finish();
  EXPECT_EQ(frames("lesson.mov"), 20);
  EXPECT_TRUE(camera->isOpen());
  EXPECT_FALSE(camera->isCapturing()) << "as the preview asked for";
}

/// What a crash leaves: a copy of the hidden folder while the movie grows, locked by nobody.
TEST_F(SupervisorTest, LeftoversOfACrashAreListedAndFinished) {
  startLesson();
  film(300);  // more than a fragment gathers while a source is ahead of time
  const auto hidden = [&](const char* end) { return movies.file(std::string(".lesson.mov.recording-") + end); };
  serveUntil([&] { return supervisor->progress().statistics.videoWaiting == 0; });
  const std::string inUse = movies.file(*names().begin());
  ASSERT_TRUE(serveUntil([&] { return test::contentOf(inUse + "/lesson.mov").find("moof") != std::string::npos; }))
      << "a fragment is valid";
  std::filesystem::create_directory(hidden("AAAAAA"));
  std::filesystem::copy(inUse + "/lesson.mov", hidden("AAAAAA") + "/lesson.mov");
  std::filesystem::create_directory(hidden("BBBBBB"));
  std::ofstream(hidden("BBBBBB") + "/lesson.mov") << "no movie at all";
  std::filesystem::create_directory(hidden("CCCCCC"));
  std::ofstream(hidden("CCCCCC") + "/.lesson.mov.lock") << "";

  auto found = leftoversIn(movies.path());
  EXPECT_EQ(found.size(), 3U) << "one is empty";
  for (const RecordingLeftover& each : found) EXPECT_EQ(each.file, movies.file("lesson.mov"));
  EXPECT_EQ(leftoversOf(movies.file("lesson.mov")).size(), 4U);
  EXPECT_EQ(std::count_if(found.begin(), found.end(), [](const auto& each) { return each.isInUse; }), 1);

  std::vector<Cause> causes;
  std::string recovered;
  for (const FinishedLeftover& each : finishLeftoversOf(movies.file("lesson.mov"))) {
    causes.push_back(each.error.cause);
    if (!each.error) recovered = each.file;
  }
  std::sort(causes.begin(), causes.end());
  EXPECT_EQ(causes, (std::vector{Cause::kNone, Cause::kBusy, Cause::kUnreadable}));
  EXPECT_EQ(recovered, movies.file("lesson-2.mov")) << "the place of the recording under way stays free";
  EXPECT_GT(frames("lesson-2.mov"), 0);
  movies.write("lesson.mov", "another's");
  supervisor->stop();
  const RecordedMovie movie = next(Kind::kMovieFinished).movie.value();
  EXPECT_EQ(movie.error.cause, Cause::kFileExists) << "its place was taken meanwhile";
  EXPECT_TRUE(movie.isLeft);
  EXPECT_EQ(movie.file, inUse + "/lesson.mov");
  EXPECT_EQ(test::probe(movie.file).find("2vuy")->packets, 300);
  EXPECT_EQ(test::contentOf(movies.file("lesson.mov")), "another's");
}

}  // namespace
}  // namespace vesk
