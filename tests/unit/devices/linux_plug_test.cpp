#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/four_char_code.h>
#include <vesk/notification_center.h>
#include <vesk/video_device.h>
#include "capture/linux/cameras/linux_cameras.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/log_recorder.h"

namespace vesk {
namespace {

constexpr const char* kNode = "/dev/video0";

/// Counts what comes, and lets a test wait for it.
class CountingDelegate : public VeskAVDeviceDelegate {
 public:
  void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override { ++mFrames; }
  void waitForFrame() const {
    while (mFrames == 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> mFrames = 0;
};

size_t entriesOf(const char* folder) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

/// How many threads there are once there are at most `few`, or at last: the kernel takes its time with
/// those that have been joined. There may be fewer than before, since other tests' threads end meanwhile.
size_t threadsOnceFew(size_t few) {
  const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  size_t count = entriesOf("/proc/self/task");
  while (count > few && std::chrono::steady_clock::now() < latest) {
    std::this_thread::yield();
    count = entriesOf("/proc/self/task");
  }
  return count;
}

/// A camera that is plugged in, used and pulled out again and again, through all layers.
class LinuxPlugTest : public testing::Test {
 protected:
  void SetUp() override {
    auto finder = std::make_unique<test::FakeCameraFinder>();
    mFinder = finder.get();
    capture::setSource(std::make_shared<capture::LinuxCameras>(mCalls, std::move(finder)));
    VeskDeviceManager::getSharedInstance();
  }
  void TearDown() override {
    VeskDeviceManager::destroy();
    capture::setSource(nullptr);
  }

  /// As another one each time: the kernel numbers devices on.
  void plug(int round) {
    mCalls->addNode(kNode, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}}});
    mFinder->set({test::usbNode(kNode, "3", 0, round)});
    mFinder->tell();
  }
  void unplug() {
    mCalls->remove(kNode);
    mFinder->set({});
    mFinder->tell();
  }
  NSNotificationObserver countOf(const char* notification, int& count) {
    return NSNotificationCenter::defaultCenter().addObserver(notification, [&](const NSNotification&) { ++count; });
  }

  /// @param isStopped whether capturing is stopped while the camera is there, and not after it went
  void use(int round, bool isStopped) {
    plug(round);
    const auto records = VeskVideoDevice::getVideoDeviceList();
    ASSERT_EQ(records->size(), 1u);
    const auto camera = VeskVideoDevice::initWithDeviceInfo(records->front());
    ASSERT_EQ(camera->openDevice(), 0);
    camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_MotionJPEG, 640, 480));
    const auto delegate = std::make_shared<CountingDelegate>();
    camera->addDelegate(delegate);
    ASSERT_EQ(camera->startCapture(), 0);
    ASSERT_TRUE(mCalls->deliver(kNode, {{0xFF, 0xD8, 1, 0xFF, 0xD9}}));
    delegate->waitForFrame();
    if (isStopped) camera->stopCapture();
    unplug();
    EXPECT_TRUE(VeskVideoDevice::getVideoDeviceList()->empty());
    camera->closeDevice();
  }

  test::LogRecorder mLog;
  std::shared_ptr<test::FakeV4L2> mCalls = std::make_shared<test::FakeV4L2>();
  test::FakeCameraFinder* mFinder = nullptr;
};

TEST_F(LinuxPlugTest, LeavesNothingBehindInAThousandRounds) {
  int came = 0;
  int went = 0;
  const auto added = countOf(KVXDeviceAdded, came);
  const auto removed = countOf(KVXDeviceRemoved, went);
  use(0, false);  // whatever is made once is there afterwards
  const size_t descriptors = entriesOf("/proc/self/fd");
  const size_t threads = entriesOf("/proc/self/task");
  constexpr int kRounds = 1000;
  for (int round = 1; round < kRounds && !HasFatalFailure(); ++round) use(round, round % 2 == 0);
  EXPECT_EQ(came, kRounds);
  EXPECT_EQ(went, kRounds);
  EXPECT_EQ(mCalls->openCount(), 0u);
  EXPECT_EQ(mCalls->mappedCount(), 0u);
  EXPECT_LE(entriesOf("/proc/self/fd"), descriptors);
  EXPECT_LE(threadsOnceFew(threads), threads);
}

}  // namespace
}  // namespace vesk
