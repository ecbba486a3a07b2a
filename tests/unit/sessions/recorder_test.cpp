#include <vesk/recorder.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include <vesk/dispatch_queue.h>
#include <vesk/run_loop.h>
#include "tests/unit/sessions/recording_test.h"

namespace vesk {
namespace {

struct RecorderTest : test::RecordingTest {
  std::string path = movies.file("a.mov");
  std::shared_ptr<VeskRecorder> recorder = VeskRecorder::init();

  void addPictures(int count) {
    for (int i = 0; i < count; ++i)
      EXPECT_EQ(recorder->addVideoSample(picture.data(), picture.size(), 1'000'000 + i * 33'333), 0);
  }
};

TEST_F(RecorderTest, WritesTheDevicesFormats) {
  EXPECT_FALSE(recorder->isRecording());
  ASSERT_EQ(recorder->openRecorderWithFilPath(path, camera, microphone), 0);
  EXPECT_TRUE(recorder->isRecording());
  EXPECT_EQ(recorder->fileURL(), path);
  for (int i = 0; i < 30; ++i) {
    const int64_t time = 1'000'000 + i * int64_t{1'000'000} / 30;
    EXPECT_EQ(recorder->addAudioSample(packet.data(), packet.size(), time), 0);
    EXPECT_EQ(recorder->addVideoSample(picture.data(), picture.size(), time), 0);
  }
  EXPECT_EQ(recorder->closeRecorder(), 0);
  EXPECT_FALSE(recorder->isRecording());
  EXPECT_EQ(recorder->fileURL(), std::nullopt);

  const auto movie = test::probe(path);
  ASSERT_EQ(movie.tracks.size(), 2U);
  const auto* const video = movie.find("2vuy");
  ASSERT_NE(video, nullptr);
  EXPECT_EQ(video->width, 16);
  EXPECT_EQ(video->height, 16);
  EXPECT_EQ(video->packets, 30);
  const auto* const sound = movie.find("pcm_s16le");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->sampleRate, 48000);
  EXPECT_EQ(sound->channels, 2);
  EXPECT_EQ(sound->bytes, 30 * int64_t{1600} * 4);
  EXPECT_EQ(movie.complaints, "");

  const RecordingStatistics statistics = recorder->statistics();
  EXPECT_EQ(statistics.videoFrames, 30U);
  EXPECT_EQ(statistics.audioPackets, 30U);
  EXPECT_EQ(statistics.bytes, std::filesystem::file_size(path)) << "as it was closed";
}

TEST_F(RecorderTest, TakesWhatThereIs) {
  const auto withoutFormat = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  struct Row {
    const char* label;
    std::shared_ptr<VeskVideoDevice> video;
    std::shared_ptr<VeskAudioDevice> audio;
    const char* codec;
  };
  for (const Row& row : {Row{"no microphone", camera, nullptr, "2vuy"},
                         Row{"a microphone without a format", camera, withoutFormat, "2vuy"},
                         Row{"no camera", nullptr, microphone, "pcm_s16le"}}) {
    ASSERT_EQ(recorder->openRecorderWithFilPath(path, row.video, row.audio), 0) << row.label;
    addPictures(3);
    recorder->addAudioSample(packet.data(), packet.size(), 1'000'000);
    recorder->closeRecorder();
    const auto movie = test::probe(path);
    ASSERT_EQ(movie.tracks.size(), 1U) << row.label;
    EXPECT_EQ(movie.tracks[0].codec, row.codec) << row.label;
  }
}

TEST_F(RecorderTest, RefusesToOpenWithoutFormats) {
  const auto unset = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  EXPECT_EQ(recorder->openRecorderWithFilPath(path, unset, microphone), 2);
  EXPECT_EQ(recorder->openRecorderWithFilPath(path, nullptr, nullptr), 2);
  EXPECT_FALSE(recorder->isRecording());
  EXPECT_FALSE(isThere(path));
}

TEST_F(RecorderTest, IdleOnesIgnoreSamplesAndClose) {
  std::atomic<bool> isServed = false;
  DispatchQueue::mainQueue()->async([&] { isServed = true; });
  EXPECT_EQ(recorder->addVideoSample(picture.data(), picture.size(), 1), 0);
  EXPECT_EQ(recorder->addAudioSample(nullptr, 0, 1), 0);
  EXPECT_EQ(recorder->closeRecorder(), 0);
  EXPECT_FALSE(isServed) << "the run loop has nothing to do here";
  EXPECT_EQ(recorder->statistics().videoFrames, 0U);
  EXPECT_EQ(recorder->waiting().videoWaiting, 0U);
  while (!isServed)
    NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + std::chrono::milliseconds(1));
}

TEST_F(RecorderTest, ASecondOpenIsRefusedAndTheFirstGoesOn) {
  ASSERT_EQ(recorder->openRecorderWithFilPath(path, camera, nullptr), 0);
  EXPECT_EQ(recorder->openRecorderWithFilPath(movies.file("b.mov"), camera, nullptr), 9);
  EXPECT_EQ(recorder->fileURL(), path);
  addPictures(5);
  recorder->closeRecorder();
  EXPECT_EQ(test::probe(path).tracks.at(0).packets, 5);
  EXPECT_FALSE(isThere(movies.file("b.mov")));
}

TEST_F(RecorderTest, ClosingServesTheRunLoopForHalfASecond) {
  ASSERT_EQ(recorder->openRecorderWithFilPath(path, camera, nullptr), 0);
  std::optional<int32_t> closedInside;
  std::optional<int32_t> openedInside;
  DispatchQueue::mainQueue()->async([&] {
    addPictures(2);
    closedInside = recorder->closeRecorder();
    openedInside = recorder->openRecorderWithFilPath(movies.file("b.mov"), camera, nullptr);
  });
  // Whatever is due before the half second is over is served, however late the thread is.
  bool isServed = false;
  DispatchQueue::mainQueue()->asyncAfter(std::chrono::milliseconds(450), [&] { isServed = true; });
  EXPECT_EQ(recorder->closeRecorder(), 0);
  EXPECT_TRUE(isServed);
  EXPECT_EQ(closedInside, 0);
  EXPECT_EQ(openedInside, 9);
  EXPECT_EQ(test::probe(path).tracks.at(0).packets, 2) << "frames still on their way";
}

TEST_F(RecorderTest, LettingGoFinishesTheMovie) {
  ASSERT_EQ(recorder->openRecorderWithFilPath(path, camera, nullptr), 0);
  addPictures(4);
  recorder.reset();
  EXPECT_EQ(test::probe(path).tracks.at(0).packets, 4);
}

TEST_F(RecorderTest, ClosesWhileFramesArriveOnTwoThreads) {
  test::TwoThreads frames([&](int thread, int64_t time) {
    if (thread == 0)
      recorder->addVideoSample(picture.data(), picture.size(), time);
    else
      recorder->addAudioSample(packet.data(), 960 * 4, time);
  });
  for (int round = 0; round < 3; ++round) {
    frames.grant(20);
    EXPECT_EQ(recorder->openRecorderWithFilPath(path, camera, microphone), 0);
    frames.grant(50);
    while (recorder->statistics().videoFrames == 0) std::this_thread::yield();
    // Frames do not wait for the close: they are added while it serves the run loop. When the other
    // thread is the one that closes, this one serves it afterwards.
    bool isServed = false;
    DispatchQueue::mainQueue()->async([&] {
      const int before = frames.steps();
      frames.grant(20);
      while (frames.steps() < before + 20) std::this_thread::yield();
      isServed = true;
    });
    std::thread closer([&] { recorder->closeRecorder(); });
    recorder->closeRecorder();
    closer.join();
    while (!isServed) NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
    const auto movie = test::probe(path);
    const auto* const pictures = movie.find("2vuy");
    const auto* const sound = movie.find("pcm_s16le");
    const RecordingStatistics statistics = recorder->statistics();
    EXPECT_EQ(pictures ? pictures->packets : 0, static_cast<int>(statistics.videoFrames));
    EXPECT_EQ(sound ? sound->bytes : 0,
              static_cast<int64_t>((statistics.audioPackets + statistics.audioSilence) * 960 * 4));
  }
}

}  // namespace
}  // namespace vesk
