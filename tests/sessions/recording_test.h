#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "devices/audio_device.h"
#include "devices/video_device.h"
#include "platform/foundation/file_manager.h"
#include "platform/media/four_char_code.h"
#include "tests/support/device_test.h"
#include "tests/support/temporary_folder.h"
#include "tests/writing/movie_probe.h"

namespace vesk::test {

/// What an independent reader finds in the movie at `path`.
inline ProbedMovie probe(const std::string& path, Probe depth = Probe::kPackets) {
  const std::string bytes = contentOf(path);
  return probeMovie({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, depth);
}

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

  static bool isThere(const std::string& path) { return std::filesystem::exists(path); }

  std::shared_ptr<FakeDevice> fakeCamera = source->attachCamera("/cam");
  std::shared_ptr<FakeDevice> fakeMicrophone = source->attachMicrophone("/mic");
  std::shared_ptr<VeskVideoDevice> camera = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  std::shared_ptr<VeskAudioDevice> microphone = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  TemporaryFolder temporary;
  TemporaryFolder movies;
  std::array<uint8_t, 512> picture{};
  std::array<uint8_t, 6400> packet{};  ///< a thirtieth of a second
};

}  // namespace vesk::test
