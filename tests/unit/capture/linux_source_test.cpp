#include <gtest/gtest.h>

#include "capture/linux/linux_source.h"
#include "tests/support/fake_v4l2.h"
#include "tests/unit/capture/listed_microphones.h"

namespace vesk::capture {
namespace {

using test::ListedMicrophones;
using test::usbNode;

Microphone microphone(const std::string& path, const std::string& usbParent) {
  return {{DeviceKind::kAudio, path, path}, usbParent};
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
