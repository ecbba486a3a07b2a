#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <thread>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/audio_format.h>
#include <vesk/run_loop.h>
#include "tests/support/device_test.h"

namespace vesk {
namespace {

constexpr float kEnd = -std::numeric_limits<float>::infinity();

/// Remembers levels, and calls `act` with each.
struct LevelReceiver : test::Receiver, VeskMicLevelDelegate {
  void didMicLevelEventOccured(float level) override {
    levels.push_back(level);
    threads.push_back(std::this_thread::get_id());
    if (onLevel) onLevel(level);
  }
  std::vector<float> levels;
  std::vector<std::thread::id> threads;
  std::function<void(float)> onLevel;
};

struct AudioDeviceMeter : test::DeviceTest {
  AudioDeviceMeter() { device->addDelegate(levels); }
  ~AudioDeviceMeter() override {
    device->stopVUMeter();
    levels->onLevel = nullptr;
  }

  /// Delivers a tenth of a second with these peaks in the two channels.
  void deliver(double left, double right) const {
    std::vector<int16_t> samples(9600);
    for (size_t i = 0; i < samples.size() / 2; ++i) {
      const double wave = 32767 * std::sin(2 * std::numbers::pi * static_cast<double>(i) / 48);
      samples[2 * i] = static_cast<int16_t>(std::lrint(left * wave));
      samples[2 * i + 1] = static_cast<int16_t>(std::lrint(right * wave));
    }
    microphone->deliver({reinterpret_cast<uint8_t*>(samples.data()), samples.size() * 2}, 1);
  }

  /// Serves the main thread until a level satisfies `wanted`; delivers `left`, `right` before each.
  template <class Wanted>
  void serveUntil(double left, double right, Wanted wanted) {
    const auto loop = NSRunLoop::currentRunLoop();
    levels->onLevel = [&](float level) {
      if (wanted(level)) loop->stop();
      deliver(left, right);
    };
    deliver(left, right);
    loop->run();
    levels->onLevel = nullptr;
  }

  std::shared_ptr<test::FakeDevice> microphone = source->attachMicrophone("/mic");
  std::shared_ptr<VeskAudioDevice> device = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  std::shared_ptr<LevelReceiver> levels = std::make_shared<LevelReceiver>();
};

TEST_F(AudioDeviceMeter, ReportsTheAverageOfTheChannelsOnTheMainThread) {
  EXPECT_EQ(device->startVUMeter(), 0);
  EXPECT_FALSE(device->isOpen());
  serveUntil(0.1, 0.01, [](float level) { return std::abs(level - (-33.0F)) < 0.2F; });
  for (const auto thread : levels->threads) EXPECT_EQ(thread, std::this_thread::get_id());
  serveUntil(0, 0, [](float level) { return level == kSilenceLevel; });
}

TEST_F(AudioDeviceMeter, EndsWithNegativeInfinityAndNothingAfterIt) {
  device->startVUMeter();
  serveUntil(0.1, 0.1, [](float) { return true; });
  device->micLevelTimerFired();  // a level waits on the main queue
  levels->levels.clear();
  EXPECT_EQ(device->stopVUMeter(), 0);
  EXPECT_EQ(levels->levels, std::vector<float>{kEnd});
  EXPECT_EQ(device->stopVUMeter(), 0);
  device->micLevelTimerFired();
  NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
  EXPECT_EQ(levels->levels, std::vector<float>{kEnd});

  device->startVUMeter();  // and again from the start
  serveUntil(0.1, 0.1, [](float level) { return std::abs(level - (-23.0F)) < 0.2F; });
}

TEST_F(AudioDeviceMeter, HostMayLetTheMicrophoneGoInTheFinalLevel) {
  void (*const ways[])(VeskAudioDevice&) = {[](VeskAudioDevice& each) { each.stopVUMeter(); },
                                            [](VeskAudioDevice& each) { each.closeDevice(); }};
  for (const auto end : ways) {
    device = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
    device->addDelegate(levels);
    device->startVUMeter();
    const std::weak_ptr<VeskAudioDevice> weak = device;
    levels->levels.clear();
    levels->onLevel = [&](float) { device.reset(); };
    end(*device);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(levels->levels, std::vector<float>{kEnd});
  }
  device = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
}

TEST_F(AudioDeviceMeter, SecondStartLeavesTheRunningMeterAlone) {
  device->startVUMeter();
  device->startVUMeter();
  EXPECT_EQ(microphone->started, 1);
  serveUntil(0.1, 0.1, [](float level) { return std::abs(level - (-23.0F)) < 0.2F; });
}

TEST_F(AudioDeviceMeter, RunsBesideACaptureAndStopsWithTheDevice) {
  device->startVUMeter();
  device->setSelectedAudioDevice(nullptr);
  device->micLevelTimerFired();
  NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now());
  EXPECT_TRUE(levels->levels.empty()) << "without an input there is nothing to report";
  device->closeDevice();
  EXPECT_EQ(levels->levels, std::vector<float>{kEnd});

  levels->levels.clear();
  device->startVUMeter();
  std::weak_ptr<VeskAudioDevice> weak = device;
  device = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));
  EXPECT_TRUE(weak.expired()) << "a running meter does not hold its device";
  EXPECT_TRUE(levels->levels.empty());
}

TEST_F(AudioDeviceMeter, ListensToTheFirstMicrophoneWhoseIdentifierContainsThePath) {
  const auto first = source->attachMicrophone("usb/mic2/in");
  const auto second = source->attachMicrophone("usb/mic2/in2");
  const auto info = std::make_shared<VeskDeviceInfo>();
  info->setPath("mic2");
  const auto part = VeskAudioDevice::initWithDeviceInfo(info);
  part->startVUMeter();
  EXPECT_EQ(first->started, 1);
  EXPECT_EQ(second->started, 0);
  part->stopVUMeter();

  first->refusesToOpen = true;
  part->startVUMeter();
  part->addDelegate(levels);
  part->micLevelTimerFired();
  EXPECT_EQ(part->stopVUMeter(), 0);
  EXPECT_EQ(levels->levels, std::vector<float>{kEnd});
}

TEST_F(AudioDeviceMeter, ListensToMicrophonesWhosePathIsNotUtf8) {
  const auto latin = source->attachMicrophone("/d\xE9sk");
  const auto microphones = VeskDeviceManager::getSharedInstance()->enumarateAudioDevices();
  for (const auto& info : microphones) {
    if (info->path() != "/d\uFFFDsk") continue;
    const auto other = VeskAudioDevice::initWithDeviceInfo(info);
    other->startVUMeter();
    EXPECT_EQ(latin->started, 1);
    other->stopVUMeter();
    return;
  }
  ADD_FAILURE() << "it is not listed";
}

}  // namespace
}  // namespace vesk
