#include <vesk/av_device.h>

#include <future>
#include <thread>
#include <type_traits>

#include <vesk/audio_device.h>
#include <vesk/video_device.h>
#include "tests/support/device_test.h"
#include "tests/support/log_recorder.h"

namespace vesk {
namespace {

using test::Receiver;

std::shared_ptr<VeskDeviceInfo> record(int32_t type, std::optional<std::string> path) {
  auto info = std::make_shared<VeskDeviceInfo>();
  info->setDeviceType(type);
  info->setPath(std::move(path));
  return info;
}

TEST(DeviceInfo, IsIdentifiedByItsPath) {
  const auto camera = record(0, "/dev/a");
  const auto same = record(1, "/dev/a");
  same->setName("Another name");
  same->setVendorID(7);
  EXPECT_TRUE(camera->isEqualToDevice(*same));
  EXPECT_FALSE(camera->isEqualToDevice(*record(0, "/dev/A")));
  const auto withoutPath = record(0, std::nullopt);
  EXPECT_FALSE(withoutPath->isEqualToDevice(*withoutPath));
  EXPECT_FALSE(camera->isEqualToDevice(*withoutPath));
  EXPECT_FALSE(withoutPath->isEqualToDevice(*camera));
}

TEST(DeviceInfo, KeepsThePathsUnits) {
  const auto camera = record(0, std::nullopt);
  camera->setPathUnits(std::u16string{u'/', 0xD83C, 0xDFA5, 0xD83C});  // a pair, and half of one
  EXPECT_EQ(camera->path(), "/\U0001F3A5\uFFFD");
  EXPECT_EQ(camera->pathUnits(), (std::u16string{u'/', 0xD83C, 0xDFA5, 0xD83C}));
  EXPECT_TRUE(camera->isEqualToDevice(*camera));
  EXPECT_FALSE(camera->isEqualToDevice(*record(0, camera->path()))) << "another unit, shown alike";
  EXPECT_EQ(record(0, "/\U0001F3A5")->pathUnits(), u"/\U0001F3A5");
  EXPECT_EQ(record(0, "\xFF")->pathUnits(), std::nullopt);
}

static_assert(std::is_same_v<decltype(KVXDeviceAdded), decltype(KVXVideoWidth)>);

TEST(AVDevice, KindFollowsTheRecordsType) {
  EXPECT_NE(std::dynamic_pointer_cast<VeskVideoDevice>(VeskAVDevice::newDevice(record(0, "/a"))), nullptr);
  for (const int32_t type : {1, 2, -1})
    EXPECT_NE(std::dynamic_pointer_cast<VeskAudioDevice>(VeskAVDevice::newDevice(record(type, "/a"))), nullptr) << type;
  EXPECT_EQ(VeskAVDevice::newDevice(nullptr), nullptr);
}

TEST(AVDevice, ReleasesItsDelegatesUncalledAndLogsIt) {
  test::LogRecorder log;
  const auto info = record(0, "/a");
  info->setName("Desk camera");
  const auto receiver = std::make_shared<Receiver>();
  auto device = VeskAVDevice::newDevice(info);
  device->addDelegate(receiver);
  device->addDelegate(nullptr);
  EXPECT_EQ(device->delegates().size(), 1U);
  device.reset();
  EXPECT_EQ(receiver.use_count(), 1);
  EXPECT_TRUE(receiver->frames.empty());
  EXPECT_EQ(log.items(), std::vector<std::string>{"Dealloc AVDevice Desk camera Count:2"});
}

struct AVDeviceRelease : test::DeviceTest {
  template <class Device>
  static std::shared_ptr<Device> capturing(const std::string& path) {
    auto device = Device::initWithDeviceInfo(infoOf(path));
    device->openDevice();
    device->setFormat(device->getSupportedFormats()->at(0));
    EXPECT_EQ(device->startCapture(), 0);
    return device;
  }
};
using AVDeviceOpening = test::DeviceTest;

TEST_F(AVDeviceRelease, OfACapturingCameraStopsAndClosesIt) {
  const auto fake = source->attachCamera("/a");
  auto camera = capturing<VeskVideoDevice>("/a");
  camera.reset();
  EXPECT_EQ(fake->stopped, 1);
  EXPECT_EQ(fake->closed, 1);
}

TEST_F(AVDeviceRelease, OfACapturingMicrophoneLeavesItRunningWithoutReceivers) {
  const auto fake = source->attachMicrophone("/m");
  auto microphone = capturing<VeskAudioDevice>("/m");
  const auto receiver = std::make_shared<Receiver>();
  microphone->addDelegate(receiver);
  uint8_t packet[4] = {};
  fake->deliver(packet, 1);
  microphone.reset();
  fake->deliver(packet, 2);
  EXPECT_EQ(receiver->frames.size(), 1U);
  EXPECT_TRUE(fake->isCapturing());
}

TEST_F(AVDeviceOpening, OpensEachDeviceByItsOwnPathHoweverItIsShown) {
  const auto first = source->attachCamera("/\xE8");
  const auto second = source->attachCamera("/\xE9");
  const auto list = VeskVideoDevice::getVideoDeviceList();
  EXPECT_EQ(list->at(0)->path(), list->at(1)->path());
  const auto camera = VeskVideoDevice::initWithDeviceInfo(list->at(1));
  EXPECT_EQ(camera->openDevice(), 0);
  EXPECT_EQ(first->opened, 0);
  EXPECT_EQ(second->opened, 1);
}

TEST_F(AVDeviceRelease, WaitsForTheFrameInProgress) {
  const auto fake = source->attachCamera("/a");
  auto camera = capturing<VeskVideoDevice>("/a");
  std::promise<void> entered;
  std::promise<void> mayLeave;
  const auto receiver = std::make_shared<Receiver>();
  receiver->act = [&] {
    if (receiver->frames.size() != 1) return;
    entered.set_value();
    mayLeave.get_future().wait();
  };
  camera->addDelegate(receiver);
  std::thread frames([&] {
    uint8_t frame[8] = {};
    fake->deliver(frame, 1);
    fake->deliver(frame, 2);
  });
  entered.get_future().wait();
  std::thread release([&] { camera.reset(); });
  mayLeave.set_value();
  release.join();
  frames.join();
  EXPECT_EQ(fake->closed, 1);
  EXPECT_LE(receiver->frames.size(), 2U);
}

TEST_F(AVDeviceRelease, FromInsideItsOwnFrameIsSafe) {
  const auto fake = source->attachCamera("/a");
  auto camera = capturing<VeskVideoDevice>("/a");
  const auto first = std::make_shared<Receiver>();
  const auto second = std::make_shared<Receiver>();
  first->act = [&] { camera.reset(); };
  camera->addDelegate(first);
  camera->addDelegate(second);
  uint8_t frame[8] = {};
  fake->deliver(frame, 1);
  fake->deliver(frame, 2);
  EXPECT_EQ(first->frames.size(), 1U);
  EXPECT_TRUE(second->frames.empty());
}

}  // namespace
}  // namespace vesk
