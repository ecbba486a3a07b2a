#include <gtest/gtest.h>

#include <map>

#include <vesk/capture_host.h>
#include "capture/linux/cameras/camera_records.h"
#include "capture/linux/cameras/linux_cameras.h"
#include "capture/linux/linux_source.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/recorder.h"
#include "tests/unit/capture/listed_microphones.h"

namespace vesk::capture {
namespace {

using test::FakeCameraFinder;
using test::FakeV4L2;
using test::usbNode;

FakeV4L2::Node camera(const std::string& card = "Test Camera") {
  return {.card = card, .formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}}};
}
FakeV4L2::Node metadata() {
  return {.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING};
}

class LinuxCameraList : public testing::Test {
 protected:
  void plug(const std::string& name, FakeV4L2::Node node, const VideoNode& known) {
    mCalls->addNode(name, std::move(node));
    mNodes[name] = known;
    mFinder.set(all());
  }
  void unplug(const std::string& name) {
    mCalls->remove(name);
    mNodes.erase(name);
    mFinder.set(all());
  }
  /// A camera as the kernel shows it: a node for pictures and one for metadata.
  void plugCamera(int number, const std::string& port, int deviceNumber = 7) {
    const std::string first = "/dev/video" + std::to_string(number);
    const std::string second = "/dev/video" + std::to_string(number + 1);
    plug(first, camera(), usbNode(first, port, 0, deviceNumber));
    plug(second, metadata(), usbNode(second, port, 1, deviceNumber));
  }
  std::vector<VideoNode> all() const {
    std::vector<VideoNode> nodes;
    for (const auto& [name, node] : mNodes) nodes.push_back(node);
    return nodes;
  }
  std::vector<std::string> paths() {
    std::vector<std::string> paths;
    for (const DeviceDescription& device : mSource.devices(DeviceKind::kVideo)) paths.push_back(device.path);
    return paths;
  }

  std::map<std::string, VideoNode> mNodes;
  std::shared_ptr<FakeV4L2> mCalls = std::make_shared<FakeV4L2>();
  std::unique_ptr<FakeCameraFinder> mOwnedFinder = std::make_unique<FakeCameraFinder>();
  FakeCameraFinder& mFinder = *mOwnedFinder;
  LinuxCameras mSource{mCalls, std::move(mOwnedFinder)};
};

TEST_F(LinuxCameraList, HasOneRecordForEachCameraAndNoneForOtherNodes) {
  plugCamera(0, "3");
  plug("/dev/video8", {.deviceCaps = V4L2_CAP_VIDEO_M2M | V4L2_CAP_STREAMING}, usbNode("/dev/video8", "5", 0));
  plug("/dev/video9", {.deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_READWRITE}, usbNode("/dev/video9", "6", 0));
  const auto devices = mSource.devices(DeviceKind::kVideo);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].name, "Test Camera");
  EXPECT_EQ(devices[0].vendorID, 0x1234);
  EXPECT_EQ(devices[0].productID, 0x5678);
  EXPECT_EQ(devices[0].revisionID, 0x0102);
  EXPECT_TRUE(mSource.devices(DeviceKind::kAudio).empty());
  EXPECT_EQ(mCalls->openCount(), 0u);
}

/// As on small boards, whose image processors come first and have the capabilities of cameras.
TEST_F(LinuxCameraList, HasNoPartsOfOthersAndUsbCamerasFirst) {
  const auto onBoard = [](const std::string& name) {
    VideoNode node;
    node.node = name;
    node.place = node.systemPath = "a platform" + name;
    node.capabilities = ":capture:";
    return node;
  };
  plug("/dev/video0", camera("Built in"), onBoard("/dev/video0"));
  FakeV4L2::Node processor{.deviceCaps = 0x04200001, .hasInputs = false};
  plug("/dev/video1", processor, onBoard("/dev/video1"));
  FakeV4L2::Node part = camera();
  part.deviceCaps |= V4L2_CAP_IO_MC;
  plug("/dev/video2", part, onBoard("/dev/video2"));
  EXPECT_EQ(paths().size(), 1u);
  plugCamera(3, "4");
  plugCamera(5, "3");
  const auto devices = mSource.devices(DeviceKind::kVideo);
  ASSERT_EQ(devices.size(), 3u);
  EXPECT_NE(devices[0].path.find("usb-0:3"), std::string::npos) << devices[0].path;
  EXPECT_NE(devices[1].path.find("usb-0:4"), std::string::npos) << devices[1].path;
  EXPECT_EQ(devices[2].name, "Built in");
}

TEST_F(LinuxCameraList, TellsTwoOfTheSameMakeApartByTheirPorts) {
  plugCamera(0, "3");
  plugCamera(2, "4");
  const auto before = paths();
  ASSERT_EQ(before.size(), 2u);
  EXPECT_NE(before[0], before[1]);
  // After a restart the numbers may be the other way round.
  for (const char* node : {"/dev/video0", "/dev/video1", "/dev/video2", "/dev/video3"}) unplug(node);
  plugCamera(2, "3", 9);
  plugCamera(0, "4", 10);
  EXPECT_EQ(paths(), before);
}

TEST_F(LinuxCameraList, OffersTheFormatsOfAllNodesOfACamera) {
  plugCamera(0, "3");
  plug("/dev/video2", {.formats = {{V4L2_PIX_FMT_H264, {{1280, 720}}}}}, usbNode("/dev/video2", "3", 2));
  ASSERT_EQ(paths().size(), 1u);
  const auto device = mSource.open(DeviceKind::kVideo, paths()[0]);
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->videoFormats().size(), 2u);
}

TEST_F(LinuxCameraList, ListsWhatItMayNotOpen) {
  FakeV4L2::Node locked = camera();
  locked.openError = EACCES;
  plug("/dev/video0", locked, usbNode("/dev/video0", "3", 0));
  plug("/dev/video1", locked, usbNode("/dev/video1", "3", 1));
  const auto devices = mSource.devices(DeviceKind::kVideo);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].name, "From the database");
  EXPECT_EQ(mSource.open(DeviceKind::kVideo, devices[0].path), nullptr);
  EXPECT_EQ(lastError().cause, Cause::kNoPermission);
  EXPECT_EQ(mSource.open(DeviceKind::kVideo, "no such path"), nullptr);
}

TEST_F(LinuxCameraList, WakesACameraOnceToAskWhatItIs) {
  plugCamera(0, "3");
  paths();
  paths();
  EXPECT_EQ(mCalls->opensSoFar(), 2u);
}

TEST_F(LinuxCameraList, TellsOfEachArrivalAndDepartureOnce) {
  using Told = std::pair<DeviceKind, bool>;
  constexpr Told kCame = {DeviceKind::kVideo, true};
  constexpr Told kWent = {DeviceKind::kVideo, false};
  plugCamera(0, "3");
  test::Recorder<Told> told;
  mSource.setHotplugHandler([&](DeviceKind kind, bool arrived) {
    told.add({kind, arrived});
    const size_t expected = told.items().size() == 3 ? 0 : arrived && told.items().size() == 1 ? 2 : 1;
    EXPECT_EQ(paths().size(), expected) << "one that is told to have gone is not there";
  });
  mFinder.tell();
  EXPECT_TRUE(told.items().empty()) << "nothing has changed";
  plugCamera(2, "4");
  mFinder.tell();
  mFinder.tell();
  EXPECT_EQ(told.items(), std::vector<Told>({kCame}));
  unplug("/dev/video2");
  unplug("/dev/video3");
  mFinder.tell();
  mFinder.tell();
  EXPECT_EQ(told.items(), std::vector<Told>({kCame, kWent}));
  plugCamera(0, "3", 8);  // out and in again before anyone looked
  mFinder.tell();
  EXPECT_EQ(told.items(), std::vector<Told>({kCame, kWent, kWent, kCame}));
  mSource.setHotplugHandler({});
  unplug("/dev/video0");
  mFinder.tell();
  EXPECT_EQ(told.items().size(), 4u);
}

TEST_F(LinuxCameraList, TellsWhatChangedInOneLookOneAfterTheOther) {
  plugCamera(0, "2");
  plugCamera(2, "4");
  const auto first = paths();
  std::vector<std::vector<std::string>> lists;  // at each event, the list after it
  mSource.setHotplugHandler([&](DeviceKind, bool) { lists.push_back(paths()); });
  plugCamera(4, "1");
  plugCamera(6, "3");
  const auto all = paths();
  ASSERT_EQ(all.size(), 4u);
  mFinder.tell();
  EXPECT_EQ(lists, (std::vector<std::vector<std::string>>{{all[0], all[1], all[3]}, all}));

  lists.clear();
  for (int node = 0; node < 6; ++node) unplug("/dev/video" + std::to_string(node));
  plugCamera(8, "5");  // three went and one came
  mFinder.tell();
  const auto last = paths();
  ASSERT_EQ(last.size(), 2u);
  EXPECT_EQ(lists, (std::vector<std::vector<std::string>>{
                       {all[1], all[2], all[3]}, {all[2], all[3]}, {all[2]}, {all[2], last[1]}}));
}

TEST(LinuxCameraRecords, FallBackWhereThereIsNoPlace) {
  const auto known = [](const std::string& name, const std::string& bus, const std::string& card) {
    VideoNode node;
    node.node = "/dev/" + name;
    node.systemPath = node.attachment = "/sys/devices/virtual/video4linux/" + name;
    return KnownNode{node, NodeIdentity{true, card, "loop", bus}};
  };
  const KnownNode nodes[] = {known("video0", "platform:loop-000", "Studio: Studio"),
                             known("video1", "platform:loop-000", "A: B"), known("video2", "", "")};
  const auto records = makeRecords(nodes);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].description.path, "/sys/devices/virtual/video4linux/video1") << "two of one place";
  EXPECT_EQ(records[0].description.name, "A: B");
  EXPECT_EQ(records[1].description.path, "/sys/devices/virtual/video4linux/video2");
  EXPECT_EQ(records[1].description.name, "Camera");
  EXPECT_EQ(records[2].description.path, "loop-platform:loop-000-video-index0");
  EXPECT_EQ(records[2].description.name, "Studio");
  const KnownNode cut[] = {known("video0", "", "Emulated Camera: Emulated Camer")};
  EXPECT_EQ(makeRecords(cut)[0].description.name, "Emulated Camera");
}

using test::ListedMicrophones;

Microphone microphone(const std::string& path, const std::string& usbParent) {
  return {{DeviceKind::kAudio, path, path}, usbParent, ""};
}

TEST(LinuxSource, FindsTheMicrophoneThatIsBuiltIntoACamera) {
  const auto calls = std::make_shared<test::FakeV4L2>();
  auto finder = std::make_unique<test::FakeCameraFinder>();
  const auto nodes = {usbNode("/dev/video0", "3", 0), usbNode("/dev/video2", "4", 0), usbNode("/dev/video4", "5", 0)};
  for (const VideoNode& node : nodes) calls->addNode(node.node, {});
  finder->set(nodes);
  const auto system = std::make_shared<ListedMicrophones>(
      std::vector{microphone("desk", ""), microphone("of the other", "/sys/devices/usb1/1-4"),
                  microphone("of the first", "/sys/devices/usb1/1-3")});
  LinuxSource source(std::make_shared<LinuxCameras>(calls, std::move(finder)), std::make_shared<SoundSource>(system));
  const auto cameras = source.devices(DeviceKind::kVideo);
  ASSERT_EQ(cameras.size(), 3u);
  ASSERT_EQ(source.devices(DeviceKind::kAudio).size(), 3u);
  EXPECT_EQ(source.microphoneOf(cameras[0].path), "of the first");
  EXPECT_EQ(source.microphoneOf(cameras[1].path), "of the other");
  EXPECT_EQ(source.microphoneOf(cameras[2].path), "");
  EXPECT_EQ(source.microphoneOf("no such camera"), "");
  EXPECT_EQ(source.cameraAtNode("/dev/video2"), cameras[1].path);
  EXPECT_EQ(source.cameraAtNode("/dev/video3"), "");
}

}  // namespace
}  // namespace vesk::capture
