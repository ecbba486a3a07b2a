#include "capture/simulated/simulated_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "tests/support/frame_recorder.h"

namespace vesk::capture {
namespace {

using test::FrameRecorder;
using test::Gate;
using test::Recorder;

/// A source that plays as fast as it can.
class SimulatedSourceTest : public testing::Test {
 protected:
  std::unique_ptr<CaptureDevice> camera(const char* path = SimulatedSource::kPlainCameraPath) {
    auto device = source.open(DeviceKind::kVideo, path);
    EXPECT_EQ(device->setVideoParameters({kCMPixelFormat_422YpCbCr8, 320, 240, 333333, 10000000, 0}), 0);
    return device;
  }
  std::unique_ptr<CaptureDevice> microphone() {
    return source.open(DeviceKind::kAudio, SimulatedSource::kMicrophonePath);
  }
  /// Plays a device until `count` packets have come.
  std::vector<test::RecordedFrame> play(CaptureDevice& device, size_t count) {
    FrameRecorder packets;
    EXPECT_EQ(device.start(0, packets.callback()), 0);
    packets.waitFor(count);
    EXPECT_EQ(device.stop(0), 0);
    auto all = packets.items();
    EXPECT_EQ(all.size(), packets.items().size());
    return all;
  }

  Transport transport;
  SimulatedSource source{{.pace = Pace::kFast}, transport};
};

TEST_F(SimulatedSourceTest, HasDevicesOfStableIdentity) {
  SimulatedSource other;
  for (const DeviceKind kind : {DeviceKind::kVideo, DeviceKind::kAudio}) {
    const auto devices = source.devices(kind), again = other.devices(kind);
    ASSERT_GE(devices.size(), 2u);
    for (size_t i = 0; i < devices.size(); ++i) {
      EXPECT_EQ(devices[i].path, again[i].path);
      EXPECT_NE(devices[i].vendorID, 0);
      EXPECT_NE(devices[i].productID, devices[(i + 1) % devices.size()].productID);
      EXPECT_NE(devices[i].revisionID, 0);
    }
  }
}

TEST_F(SimulatedSourceTest, TakesOnlyWhatItOffers) {
  const auto full = source.open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
  for (const VideoFormat& format : full->videoFormats()) {
    for (const FrameSize& size : format.sizes) {
      for (const uint32_t interval : size.intervals) {
        EXPECT_EQ(full->setVideoParameters({format.codec, size.width, size.height, interval, 10000000, 0}), 0);
      }
      EXPECT_EQ(full->setVideoParameters({format.codec, size.width, size.height, 1, 30, 0}), 0) << "30 a second";
      EXPECT_NE(full->setVideoParameters({format.codec, size.width + 2, size.height, 1, 30, 0}), 0);
      EXPECT_NE(full->setVideoParameters({format.codec, size.width, size.height, 1, 0, 0}), 0);
    }
  }
  const auto plain = source.open(DeviceKind::kVideo, SimulatedSource::kPlainCameraPath);
  EXPECT_NE(plain->setVideoParameters({kCMVideoCodecType_H264, 320, 240, 333333, 10000000, 0}), 0);
  const auto mono = source.open(DeviceKind::kAudio, SimulatedSource::kMonoMicrophonePath);
  for (const WaveFormat& format : mono->waveFormats()) EXPECT_EQ(mono->setWaveFormat(format), 0);
  EXPECT_NE(mono->setWaveFormat({kWaveFormatLinearPCM, 2, 48000, 16}), 0);
  EXPECT_NE(mono->setWaveFormat({kWaveFormatLinearPCM, 1, 48000, 24}), 0);
  uint32_t value = 0, size = 2;
  uint8_t bytes[2] = {};
  EXPECT_EQ(full->getProperty(0, {}, 2, bytes, size), kVCIPropertyNotSupported);
  EXPECT_EQ(mono->getVolume(value), 0);
  EXPECT_EQ(value, 255u);
}

TEST_F(SimulatedSourceTest, SendsAtTheRateThatIsSet) {
  const auto device = source.open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
  struct Row {
    uint32_t numerator, denominator;
    size_t pictures;  ///< in two seconds
  };
  for (const Row& row : {Row{166667, 10000000, 120}, Row{200000, 10000000, 100}, Row{333333, 10000000, 60},
                         Row{400000, 10000000, 50}, Row{416667, 10000000, 48}, Row{666667, 10000000, 30},
                         Row{1333333, 10000000, 15}, Row{1, 60, 120}, Row{1, 17, 30}, Row{1, 1000, 120}}) {
    SCOPED_TRACE(row.numerator);
    ASSERT_EQ(device->setVideoParameters({kCMPixelFormat_422YpCbCr8, 320, 240, row.numerator, row.denominator, 0}), 0);
    for (int start = 0; start < 2; ++start) {
      const auto packets = play(*device, row.pictures + 1);
      EXPECT_EQ(packets[row.pictures].timestamp - packets[0].timestamp, 2'000'000);
      const int64_t interval = 2'000'000 / static_cast<int64_t>(row.pictures);
      for (size_t at = 1; at <= row.pictures; ++at)
        EXPECT_NEAR(packets[at].timestamp - packets[at - 1].timestamp, interval, 1) << at;
    }
  }
}

TEST_F(SimulatedSourceTest, GivesACameraToOneHandleAtATime) {
  FrameRecorder packets;
  const auto one = camera(), other = camera();
  EXPECT_EQ(one->start(0, packets.callback()), 0);
  EXPECT_EQ(other->start(0, packets.callback()), kVCIBusy);
  EXPECT_EQ(other->stop(0), 0) << "leaves the first one's capture alone";
  packets.waitFor(packets.items().size() + 3);
  EXPECT_EQ(one->stop(0), 0);
  EXPECT_EQ(other->start(0, packets.callback()), 0);
  const auto third = camera();
  EXPECT_EQ(third->start(0, packets.callback()), kVCIBusy);
}

TEST_F(SimulatedSourceTest, StopsFromInsideTheCallbackAndFreesTheCamera) {
  std::atomic<int> calls = 0;
  Gate stopped;
  const auto one = camera();
  EXPECT_EQ(one->start(0,
                       [&](uint8_t*, uint32_t, int64_t) {
                         ++calls;
                         one->stop(0);
                         stopped.open();
                       }),
            0);
  stopped.wait();
  EXPECT_FALSE(play(*camera(), 3).empty());
  EXPECT_EQ(calls, 1);
}

TEST_F(SimulatedSourceTest, FailsOnCommand) {
  const std::string path = SimulatedSource::kPlainCameraPath;
  source.setFaults(path, {.openFails = true});
  EXPECT_EQ(source.open(DeviceKind::kVideo, path), nullptr);
  source.setFaults(path, {.startStatus = kVCIBusy, .stopStatus = 5});
  FrameRecorder packets;
  const auto device = camera();
  EXPECT_EQ(device->start(0, packets.callback()), kVCIBusy);
  source.setFaults(path, {.stopStatus = 5});
  EXPECT_EQ(device->start(0, packets.callback()), 0);
  EXPECT_EQ(device->stop(0), 5);
  packets.waitFor(packets.items().size() + 2);  // still running
  source.setFaults(path, {});
  EXPECT_EQ(device->stop(0), 0);
  EXPECT_FALSE(source.setFaults("no such device", {}));
}

TEST_F(SimulatedSourceTest, LosesShiftsAndDamagesPacketsOnCommand) {
  constexpr int64_t kPicture = 33333;
  const std::string path = SimulatedSource::kPlainCameraPath;
  const auto device = camera();
  const auto sound = play(*device, 3);
  EXPECT_EQ(sound[1].timestamp - sound[0].timestamp, kPicture);

  source.setFaults(path, {.droppedPackets = 4,
                          .shiftedPackets = 1,
                          .timestampShift = -200'000,
                          .damagedPackets = 2,
                          .damage = SimulatedFaults::Damage::kEmpty});
  const auto packets = play(*device, 4);
  EXPECT_TRUE(packets[0].bytes.empty());
  EXPECT_TRUE(packets[1].bytes.empty());
  EXPECT_FALSE(packets[2].bytes.empty());
  EXPECT_EQ(packets[1].timestamp - packets[0].timestamp, 200'000 + kPicture) << "the first is out of order";
  EXPECT_EQ(source.faults(path).droppedPackets, 0u);
}

TEST_F(SimulatedSourceTest, StallsWhileTimeGoesOn) {
  FrameRecorder pictures, sounds;
  const auto stalled = camera();
  source.setFaults(SimulatedSource::kPlainCameraPath, {.isStalled = true});
  const auto witness = microphone();
  transport.hold();
  EXPECT_EQ(stalled->start(0, pictures.callback()), 0);
  EXPECT_EQ(witness->start(0, sounds.callback()), 0);
  transport.release();
  sounds.waitFor(20);
  EXPECT_TRUE(pictures.items().empty());
  source.setFaults(SimulatedSource::kPlainCameraPath, {});
  const auto after = pictures.waitFor(1);
  EXPECT_GE(after[0].timestamp, sounds.items()[18].timestamp);
}

TEST_F(SimulatedSourceTest, ComesAndGoes) {
  struct Event {
    DeviceKind kind;
    bool arrived;
    size_t cameras;
    bool operator==(const Event&) const = default;
  };
  Recorder<Event> events;
  source.setHotplugHandler([&](DeviceKind kind, bool arrived) {
    events.add({kind, arrived, source.devices(DeviceKind::kVideo).size()});
  });
  const std::string path = SimulatedSource::kPlainCameraPath;
  FrameRecorder packets;
  const auto running = camera();
  running->start(0, packets.callback());
  packets.waitFor(1);
  const DeviceDescription description = source.devices(DeviceKind::kVideo)[1];
  EXPECT_TRUE(source.unplug(path));
  EXPECT_FALSE(source.unplug(path));
  source.waitForHotplug();
  EXPECT_EQ(source.open(DeviceKind::kVideo, path), nullptr);
  EXPECT_EQ(running->stop(0), 0);
  EXPECT_NE(running->start(0, packets.callback()), 0) << "the old handle stays dead";
  EXPECT_TRUE(source.plugIn(description));
  EXPECT_FALSE(source.plugIn(description));
  source.waitForHotplug();
  EXPECT_NE(running->start(0, packets.callback()), 0);
  EXPECT_FALSE(play(*camera(), 1).empty());
  EXPECT_EQ(events.items(), (std::vector<Event>{{DeviceKind::kVideo, false, 1}, {DeviceKind::kVideo, true, 2}}));

  source.setHotplugHandler({});
  source.unplug(path);
  source.waitForHotplug();
  EXPECT_EQ(events.items().size(), 2u);
}

/// Whoever is told compares its own list with the present one and finds one change.
TEST_F(SimulatedSourceTest, DevicesThatComeAtOnceAreListedOneByOne) {
  Gate allChanged;
  Recorder<size_t> cameras;
  source.setHotplugHandler([&](DeviceKind, bool) {
    allChanged.wait();
    cameras.add(source.devices(DeviceKind::kVideo).size());
  });
  for (const char* path : {SimulatedSource::kCameraPath, SimulatedSource::kPlainCameraPath})
    EXPECT_TRUE(source.unplug(path));
  for (const char* path : {SimulatedSource::kPlainCameraPath, SimulatedSource::kCameraPath})
    EXPECT_TRUE(source.plugIn(path));
  EXPECT_NE(source.open(DeviceKind::kVideo, SimulatedSource::kCameraPath), nullptr);
  allChanged.open();
  source.waitForHotplug();
  EXPECT_EQ(cameras.items(), (std::vector<size_t>{1, 0, 1, 2}));
  EXPECT_EQ(source.devices(DeviceKind::kVideo).front().path, SimulatedSource::kPlainCameraPath);
}

TEST_F(SimulatedSourceTest, AppliesVolumeAndMuteToTheSamples) {
  const auto device = microphone();
  const auto peak = [&] {  // of the first packet, which lies in a beep
    const auto packets = play(*device, 1);
    const auto* samples = reinterpret_cast<const int16_t*>(packets[0].bytes.data());
    return *std::max_element(samples, samples + packets[0].bytes.size() / 2);
  };
  ASSERT_EQ(device->setWaveFormat({kWaveFormatLinearPCM, 2, 48000, 16}), 0);
  const int full = peak();
  EXPECT_NEAR(full, 16384, 100);
  EXPECT_EQ(device->setVolume(51), 0);
  EXPECT_NEAR(peak(), full / 5.0, 2);
  EXPECT_EQ(device->setMute(true), 0);
  EXPECT_EQ(peak(), 0);
  bool mute = false;
  EXPECT_EQ(microphone()->getMute(mute), 0);
  EXPECT_TRUE(mute) << "belongs to the microphone, not to the handle";
}

}  // namespace
}  // namespace vesk::capture
