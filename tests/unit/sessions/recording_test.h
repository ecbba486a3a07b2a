#pragma once

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/four_char_code.h>
#include <vesk/video_device.h>
#include "platform/foundation/file_manager.h"
#include "tests/support/device_test.h"
#include "tests/support/h264_stream.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/writing/movie_probe.h"

namespace vesk::test {

/// What an independent reader finds in the movie at `path`.
inline ProbedMovie probe(const std::string& path, Probe depth = Probe::kPackets) {
  const std::string bytes = contentOf(path);
  return probeMovie({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, depth);
}

/// Two threads that deliver while a test does something else, each one step for every one that the test
/// grants: so neither runs ahead of the other, or of the writer.
class TwoThreads {
 public:
  /// `deliver` is called on thread 0 and on thread 1, with times from 1 s on, 20 ms apart.
  explicit TwoThreads(std::function<void(int thread, int64_t time)> deliver) : mDeliver(std::move(deliver)) {
    for (int thread = 0; thread < 2; ++thread) mThreads[thread] = std::thread([this, thread] { run(thread); });
  }
  ~TwoThreads() {
    mIsOver = true;
    grant(1);
    for (auto& thread : mThreads) thread.join();
  }
  TwoThreads(const TwoThreads&) = delete;
  TwoThreads& operator=(const TwoThreads&) = delete;

  void grant(int steps) {
    for (auto& each : mGranted) each.release(steps);
  }
  /// Those of both threads that are done.
  int steps() const { return mSteps; }

 private:
  void run(int thread) {
    for (int64_t time = 1'000'000;; time += 20'000) {
      mGranted[thread].acquire();
      if (mIsOver) return;
      mDeliver(thread, time);
      ++mSteps;
    }
  }

  const std::function<void(int thread, int64_t time)> mDeliver;
  std::array<std::counting_semaphore<>, 2> mGranted{std::counting_semaphore<>(0), std::counting_semaphore<>(0)};
  std::atomic<bool> mIsOver{false};
  std::atomic<int> mSteps{0};
  std::array<std::thread, 2> mThreads;
};

/// A scripted camera with raw pictures of 16 x 16 and a scripted microphone with PCM, and a folder
/// each for temporary and final movies.
struct RecordingTest : DeviceTest {
  RecordingTest() {
    setTemporaryDirectory(temporary.path());
    camera->setFormat(CMVideoFormatDescription::create(kCMPixelFormat_422YpCbCr8, 16, 16));
    microphone->openDevice();
    microphone->setFormat(microphone->getSupportedFormats()->at(0));
    microphone->closeDevice();
  }
  ~RecordingTest() override { setTemporaryDirectory(""); }

  /// Delivers `count` pictures and as many packets, from `first` on: 30 a second.
  void deliver(int first, int count) {
    for (int i = first; i < first + count; ++i) {
      const int64_t time = 1'000'000 + i * int64_t{1'000'000} / 30;
      fakeMicrophone->deliver(packet, time);
      fakeCamera->deliver(picture, time);
    }
  }
  /// Delivers the pictures that come next, and sound with them, from a thread of its own as a device does.
  void filmUnits(const std::vector<AccessUnit>& pictures, bool withSound = true) {
    std::thread([&] {
      for (Bytes bytes : streamsOf(pictures)) {
        const int64_t time = 1'000'000 + filmed++ * int64_t{1'000'000} / 30;
        fakeCamera->deliver(bytes, time);
        if (withSound) fakeMicrophone->deliver(packet, time);
      }
    }).join();
  }
  void film(int count, bool withSound = true) {
    filmUnits(std::vector(static_cast<size_t>(count), AccessUnit{{picture.begin(), picture.end()}, {}}), withSound);
  }

  /// Frames in the movie at `path`; -1 when there is no track of them.
  static int framesIn(const std::string& path) {
    const auto movie = probe(path);
    const auto* const video = movie.find("2vuy");
    return video ? video->packets : -1;
  }

  static bool isThere(const std::string& path) { return std::filesystem::exists(path); }

  std::shared_ptr<FakeDevice> fakeCamera = source->attachCamera("/cam");
  std::shared_ptr<FakeDevice> fakeMicrophone = source->attachMicrophone("/mic");
  std::shared_ptr<VeskVideoDevice> camera = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  std::shared_ptr<VeskAudioDevice> microphone = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  int filmed = 0;
  TemporaryFolder temporary;
  TemporaryFolder movies;
  std::array<uint8_t, 512> picture{};
  std::array<uint8_t, 6400> packet{};  ///< a thirtieth of a second
};

}  // namespace vesk::test
