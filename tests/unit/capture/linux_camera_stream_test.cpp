#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/encoding/encoded_camera.h"
#include "capture/linux/cameras/linux_camera.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/meanwhile.h"

namespace vesk::capture {
namespace {

using test::FakeV4L2;
using test::Gate;
using Bytes = std::vector<uint8_t>;

constexpr const char* kNode = "/dev/video0";
constexpr VideoParameters kJPEG = {kCMVideoCodecType_MotionJPEG, 640, 480, 1, 30, 0};
constexpr VideoParameters kRaw = {kCMPixelFormat_422YpCbCr8, 64, 48, 1, 30, 0};
constexpr VideoParameters kH264 = {kCMVideoCodecType_H264, 640, 480, 1, 30, 3'000'000};

FakeV4L2::Picture jpeg(uint8_t number) {
  return {{0xFF, 0xD8, number, 0xFF, 0xD9}};
}

class LinuxCameraStream : public testing::Test {
 protected:
  void SetUp() override {
    mCalls->addNode(kNode, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}},
                                        {V4L2_PIX_FMT_UYVY, {{64, 48, {{1, 30}}}}},
                                        {V4L2_PIX_FMT_YUYV, {{64, 48, {{1, 15}}}}},
                                        {V4L2_PIX_FMT_H264, {{640, 480}}}}});
    mCamera = openCamera();
  }
  void TearDown() override {
    mCamera.reset();
    EXPECT_EQ(mCalls->openCount(), 0u);
    EXPECT_EQ(mCalls->mappedCount(), 0u);
  }

  std::unique_ptr<LinuxCamera> openCamera() {
    int error = 0;
    auto node = OpenNode::open(mCalls, kNode, error);
    EXPECT_NE(node, nullptr);
    return std::make_unique<LinuxCamera>("Test Camera", std::vector{node});
  }
  FrameCallback receiver() { return mFrames.callback(); }
  /// Whether a frame was given in the driver's own memory; while the camera runs.
  bool isDrivers(const test::RecordedFrame& frame) { return mCalls->isDriverMemory(kNode, frame.memory); }
  int32_t start(const VideoParameters& parameters) {
    EXPECT_EQ(mCamera->setVideoParameters(parameters), kVCISuccess);
    return mCamera->start(0, receiver());
  }
  void deliver(const FakeV4L2::Picture& picture) { EXPECT_TRUE(mCalls->deliver(kNode, picture)); }
  /// The third byte of each JPEG picture.
  std::vector<int> numbers() {
    std::vector<int> numbers;
    for (const auto& frame : mFrames.items()) numbers.push_back(frame.bytes[2]);
    return numbers;
  }
  /// Waits until the driver has all buffers but `count`.
  void waitForFreeBuffers(size_t count) {
    while (mCalls->queuedOf(kNode) != count) std::this_thread::yield();
  }
  /// Waits until the camera has been set running `count` times: what it had before that is lost.
  void waitForStarts(size_t count) {
    while (mCalls->startsOf(kNode) != count) std::this_thread::yield();
  }

  test::LogRecorder mLog;
  test::FrameRecorder mFrames;
  std::shared_ptr<FakeV4L2> mCalls = std::make_shared<FakeV4L2>();
  std::unique_ptr<LinuxCamera> mCamera;
};

TEST_F(LinuxCameraStream, DeliversInOrderWithTheDriversStampsAndNoCopy) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  std::vector<int64_t> stamps;
  for (uint8_t number = 0; number < 20; ++number) {
    stamps.push_back(monotonicMicroseconds() - 10);
    FakeV4L2::Picture picture = jpeg(number);
    picture.stamp = stamps.back();
    deliver(picture);
    const auto frames = mFrames.waitFor(number + 1u);
    EXPECT_EQ(frames.back().bytes, picture.bytes);
    EXPECT_EQ(frames.back().timestamp, stamps.back());
    EXPECT_TRUE(isDrivers(frames.back()));
  }
  EXPECT_EQ(mCamera->stop(0), kVCISuccess);
  EXPECT_EQ(mCamera->counts().delivered, 20u);
  EXPECT_EQ(mCalls->buffersOf(kNode), 0u) << "given back for others";
  EXPECT_TRUE(mLog.items().empty());
}

TEST_F(LinuxCameraStream, GivesRawPicturesAsTheyAreOrConverted) {
  ASSERT_EQ(start(kRaw), kVCISuccess);
  Bytes uyvy(64 * 48 * 2);
  for (size_t at = 0; at < uyvy.size(); ++at) uyvy[at] = static_cast<uint8_t>(at);
  deliver({uyvy});
  EXPECT_TRUE(isDrivers(mFrames.waitFor(1)[0]));
  EXPECT_EQ(mFrames.items()[0].bytes, uyvy);
  mCamera->stop(0);
  VideoParameters slow = kRaw;
  slow.intervalDenominator = 15;
  ASSERT_EQ(start(slow), kVCISuccess);
  Bytes yuyv = uyvy;
  for (size_t at = 0; at < yuyv.size(); at += 2) std::swap(yuyv[at], yuyv[at + 1]);
  deliver({yuyv});
  EXPECT_FALSE(isDrivers(mFrames.waitFor(2)[1]));
  EXPECT_EQ(mFrames.items()[1].bytes, uyvy);
}

TEST_F(LinuxCameraStream, LeavesOutWhatIsNotWhole) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  FakeV4L2::Picture marked = jpeg(1);
  marked.flags = V4L2_BUF_FLAG_ERROR;
  FakeV4L2::Picture tooLarge = jpeg(2);
  tooLarge.bytesUsed = FakeV4L2::kBufferBytes + 1;
  // One at a time, so that none of them is late.
  const FakeV4L2::Picture pictures[] = {marked, tooLarge, {}, {{0, 0, 3}}, jpeg(9)};
  for (const FakeV4L2::Picture& picture : pictures) {
    deliver(picture);
    waitForFreeBuffers(6);
  }
  mFrames.waitFor(1);
  mCamera->stop(0);
  EXPECT_EQ(numbers(), std::vector<int>({9}));
  const StreamCounts counts = mCamera->counts();
  EXPECT_EQ(counts.damaged, 3u);
  EXPECT_EQ(counts.empty, 1u);
  EXPECT_EQ(counts.delivered, 1u);
  EXPECT_EQ(mLog.items().size(), 1u);
  ASSERT_EQ(start(kRaw), kVCISuccess);
  deliver({Bytes(64 * 48 * 2 - 1)});
  deliver({Bytes(64 * 48 * 2)});
  EXPECT_EQ(mFrames.waitFor(2).size(), 2u);
}

TEST_F(LinuxCameraStream, RewritesAccessUnitsAndRepeatsParameterSets) {
  const Bytes sets = {0, 0, 0, 1, 0x67, 0x42, 0x00, 0x1E, 0x95, 0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
  const Bytes picture = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21};
  Bytes first = {0,    0,    1,    0x67, 0x42, 0x00, 0x1E, 0x95, 0,    0,    1,
                 0x68, 0xCE, 0x3C, 0x80, 0,    0,    1,    0x65, 0x88, 0x84, 0x21};
  Bytes expected = sets;
  expected.insert(expected.end(), picture.begin(), picture.end());
  ASSERT_EQ(start(kH264), kVCISuccess);
  deliver({first});
  deliver({{0, 0, 1, 0x41, 0x9A, 0x21}});
  deliver({{0, 0, 1, 0x65, 0x88, 0x84, 0x21}});
  deliver({{1, 2, 3, 4}});
  deliver({picture});
  const auto frames = mFrames.waitFor(4);
  EXPECT_EQ(frames[0].bytes, expected);
  EXPECT_EQ(frames[1].bytes, Bytes({0, 0, 0, 1, 0x41, 0x9A, 0x21}));
  EXPECT_EQ(frames[2].bytes, expected);
  EXPECT_EQ(frames[3].bytes, expected);
  mCamera->stop(0);
  EXPECT_EQ(mCamera->counts().damaged, 1u);
  const auto settings = mCalls->controlsSet(kNode);
  using Setting = std::pair<uint32_t, int32_t>;
  ASSERT_EQ(settings.size(), 3u) << "a key picture is asked for at the start and after a loss";
  EXPECT_EQ(settings[0], Setting(V4L2_CID_MPEG_VIDEO_BITRATE, 3'000'000));
  EXPECT_EQ(settings[1].first, uint32_t{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME});
}

TEST_F(LinuxCameraStream, ShowsASlowReceiverTheNewestAndCountsTheRest) {
  Gate gate;
  Gate entered;
  mCamera->setVideoParameters(kJPEG);
  ASSERT_EQ(mCamera->start(0,
                           [&, inner = receiver()](uint8_t* bytes, uint32_t length, int64_t timestamp) {
                             entered.open();
                             gate.wait();
                             inner(bytes, length, timestamp);
                           }),
            kVCISuccess);
  deliver(jpeg(0));
  entered.wait();
  // The driver goes on, until it has no buffer left, and never waits.
  for (uint8_t number = 1; number <= 5; ++number) deliver(jpeg(number));
  EXPECT_FALSE(mCalls->deliver(kNode, jpeg(6)));
  EXPECT_FALSE(mCalls->deliver(kNode, jpeg(7)));
  gate.open();
  mFrames.waitFor(3);
  waitForFreeBuffers(6);
  deliver(jpeg(8));
  mFrames.waitFor(4);
  mCamera->stop(0);
  EXPECT_EQ(numbers(), std::vector<int>({0, 4, 5, 8}));
  EXPECT_EQ(mCamera->counts().late, 3u);
  EXPECT_EQ(mCamera->counts().lost, 2u);
  const auto frames = mFrames.items();
  for (size_t at = 1; at < frames.size(); ++at) EXPECT_GT(frames[at].timestamp, frames[at - 1].timestamp);
}

TEST_F(LinuxCameraStream, SaysWhenItIsInUseElsewhere) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  EXPECT_EQ(mCamera->start(0, receiver()), kVCISuccess) << "runs already";
  auto second = openCamera();
  ASSERT_EQ(second->setVideoParameters(kRaw), kVCISuccess);
  EXPECT_EQ(second->start(0, receiver()), kVCIBusy);
  deliver(jpeg(1));
  mFrames.waitFor(1);
  mCamera->stop(0);
  EXPECT_EQ(second->start(0, receiver()), kVCISuccess);
}

TEST_F(LinuxCameraStream, GivesEverythingBackWhenItCannotStart) {
  struct {
    unsigned long call;
    int error;
    int32_t status;
  } const rows[] = {
      {VIDIOC_S_FMT, EBUSY, kVCIBusy},      {VIDIOC_S_FMT, EINVAL, kVCIFailed}, {VIDIOC_S_PARM, EBUSY, kVCIBusy},
      {VIDIOC_S_PARM, ENOTTY, kVCISuccess}, {VIDIOC_REQBUFS, EBUSY, kVCIBusy},  {VIDIOC_QUERYBUF, EINVAL, kVCIFailed},
      {VIDIOC_QBUF, EIO, kVCIFailed},       {VIDIOC_STREAMON, EBUSY, kVCIBusy}, {VIDIOC_STREAMON, ENOSPC, kVCIFailed}};
  for (const auto& row : rows) {
    mCalls->failNext(kNode, row.call, row.error);
    EXPECT_EQ(start(kJPEG), row.status) << row.call << " " << row.error;
    mCamera->stop(0);
    EXPECT_EQ(mCalls->buffersOf(kNode), 0u);
    EXPECT_EQ(mCalls->mappedCount() <= 6, true);
  }
  EXPECT_EQ(lastError().cause, Cause::kNoBandwidth);
  EXPECT_EQ(mCamera->setVideoParameters({kCMVideoCodecType_MotionJPEG, 641, 480, 1, 30, 0}), kVCIFailed);
  EXPECT_EQ(mCamera->start(0, {}), kVCIFailed);
}

TEST_F(LinuxCameraStream, RefusesWhatTheDriverChangesTheWishTo) {
  const v4l2_frmsize_stepwise range = {64, 64, 1, 48, 48, 1};
  mCalls->addNode("/dev/video1", {.formats = {{V4L2_PIX_FMT_NV12, {{64, 48}}, range}}});
  int error = 0;
  LinuxCamera camera("Other", std::vector{OpenNode::open(mCalls, "/dev/video1", error)});
  mCalls->addNode("/dev/video1", {.formats = {{V4L2_PIX_FMT_NV12, {{32, 24}}}}});
  EXPECT_EQ(camera.start(0, receiver()), kVCIFailed);
}

/// Drivers that round down take 333333 ten-millionths for more than 30 pictures a second: they are given the
/// fraction that they list.
TEST_F(LinuxCameraStream, SetsTheRateInTheDriversOwnWordsAndTellsWhatItTook) {
  struct Row {
    VideoParameters asked;
    v4l2_fract set;
    std::optional<v4l2_fract> taken;
    const char* told;
  };
  const auto jpegAt = [](uint32_t interval) {
    return VideoParameters{kCMVideoCodecType_MotionJPEG, 640, 480, interval, 10'000'000, 0};
  };
  const Row rows[] = {
      {jpegAt(333333), {1001, 30000}, {}, ""},
      {jpegAt(166667), {1, 60}, {}, ""},
      {jpegAt(666667), {1, 15}, {}, ""},
      {jpegAt(400000), {1001, 30000}, {}, "asked for 25 pictures a second and gives 29.97."},
      {jpegAt(166667), {1, 60}, {{1, 15}}, "asked for 60 pictures a second and gives 15."},
      {jpegAt(333333), {1001, 30000}, {{1, 15}}, "asked for 29.97 pictures a second and gives 15."},
      {jpegAt(166667), {1, 60}, {{0, 0}}, ""},  // it does not say
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.asked.intervalNumerator) + " " + row.told);
    const std::string node = "/dev/video" + std::to_string(&row - rows + 1);
    mCalls->addNode(node, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480, {{1, 15}, {1001, 30000}, {1, 60}}}}}},
                           .onlyInterval = row.taken});
    int error = 0;
    LinuxCamera camera("Other", std::vector{OpenNode::open(mCalls, node, error)});
    ASSERT_EQ(camera.setVideoParameters(row.asked), kVCISuccess);
    const size_t linesBefore = mLog.items().size();
    for (int start = 0; start < 2; ++start) {
      ASSERT_EQ(camera.start(0, receiver()), kVCISuccess);
      EXPECT_EQ(camera.stop(0), kVCISuccess);
      EXPECT_EQ(mCalls->intervalOf(node).numerator, row.set.numerator) << "start " << start;
      EXPECT_EQ(mCalls->intervalOf(node).denominator, row.set.denominator) << "start " << start;
    }
    const auto lines = mLog.items();
    ASSERT_EQ(lines.size() - linesBefore, *row.told ? 2u : 0u);
    for (size_t at = linesBefore; at < lines.size(); ++at)
      EXPECT_NE(lines[at].find(row.told), std::string::npos) << lines[at];
  }
}

TEST_F(LinuxCameraStream, EndsQuietlyWhenTheCameraIsPulledOut) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  deliver(jpeg(1));
  mFrames.waitFor(1);
  mCalls->remove(kNode);
  EXPECT_EQ(mCamera->stop(0), kVCISuccess);
  EXPECT_EQ(mCamera->start(0, receiver()), kVCIFailed);
  EXPECT_EQ(lastError().cause, Cause::kUnplugged);
  EXPECT_TRUE(mLog.items().empty());
}

TEST_F(LinuxCameraStream, StartsAnewOnceAfterAnError) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  for (uint8_t number = 0; number < 3; ++number) {
    mCalls->failNext(kNode, VIDIOC_DQBUF, EIO);
    mCalls->wake(kNode);
    waitForStarts(number + 2u);
    deliver(jpeg(number));
    mFrames.waitFor(number + 1u);
  }
  EXPECT_TRUE(mLog.items().empty());
  mCalls->failNext(kNode, VIDIOC_DQBUF, EIO);
  mCalls->failNext(kNode, VIDIOC_DQBUF, EIO);
  mCalls->wake(kNode);
  EXPECT_NE(mLog.waitFor(1)[0].find("stopped sending pictures"), std::string::npos);
  // It is tried again later, and comes to life.
  mCalls->expire();
  waitForStarts(6);
  deliver(jpeg(6));
  mFrames.waitFor(4);
  EXPECT_NE(mLog.waitFor(2)[1].find("again"), std::string::npos);
  mCamera->stop(0);
  EXPECT_EQ(start(kJPEG), kVCISuccess);
  deliver(jpeg(7));
  EXPECT_EQ(mFrames.waitFor(5).back().bytes[2], 7);
}

TEST_F(LinuxCameraStream, StartsAStalledCameraAnewOnceAndThenSaysSo) {
  ASSERT_EQ(start(kJPEG), kVCISuccess);
  deliver(jpeg(1));
  mFrames.waitFor(1);
  mCalls->failNext(kNode, VIDIOC_STREAMOFF, EINVAL);  // shows that it was started anew
  mCalls->expire();
  EXPECT_NE(mLog.waitFor(1)[0].find("is being started again"), std::string::npos);
  while (!mCalls->isCalm(kNode)) std::this_thread::yield();
  mCalls->expire();
  EXPECT_NE(mLog.waitFor(2)[1].find("Plug it in again"), std::string::npos);
  waitForStarts(2);
  deliver(jpeg(2));
  mFrames.waitFor(2);
  EXPECT_NE(mLog.waitFor(3)[2].find("sends pictures again"), std::string::npos);
  EXPECT_EQ(numbers(), std::vector<int>({1, 2}));
}

TEST_F(LinuxCameraStream, IsStoppedFromInsideItsCallbackAndStartedThereAnew) {
  std::atomic<int> calls = 0;
  Gate stopped;
  mCamera->setVideoParameters(kJPEG);
  ASSERT_EQ(mCamera->start(0,
                           [&](uint8_t* bytes, uint32_t, int64_t) {
                             ++calls;
                             EXPECT_EQ(mCamera->stop(0), kVCISuccess);
                             EXPECT_EQ(mCamera->start(0, receiver()), kVCISuccess);
                             EXPECT_EQ(bytes[2], 1) << "the picture is valid to the end of the call";
                             stopped.open();
                           }),
            kVCISuccess);
  deliver(jpeg(1));
  stopped.wait();
  deliver(jpeg(2));
  mFrames.waitFor(1);
  mCamera->stop(0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(numbers(), std::vector<int>({2}));
}

TEST_F(LinuxCameraStream, IsDestroyedFromInsideItsCallback) {
  Gate gone;
  mCamera->setVideoParameters(kJPEG);
  ASSERT_EQ(mCamera->start(0,
                           [&](uint8_t*, uint32_t, int64_t) {
                             mCamera.reset();
                             gone.open();
                           }),
            kVCISuccess);
  deliver(jpeg(1));
  gone.wait();
  while (mCalls->openCount() != 0) std::this_thread::yield();
}

TEST_F(LinuxCameraStream, CallsNobodyAfterStopHoweverTheyMeet) {
  for (int round = 0; round < 300; ++round) {
    std::atomic<bool> isAllowed = true;
    mCamera->setVideoParameters(round % 2 == 0 ? kJPEG : kH264);
    ASSERT_EQ(mCamera->start(0, [&](uint8_t*, uint32_t, int64_t) { EXPECT_TRUE(isAllowed); }), kVCISuccess);
    std::thread driver([&] {
      for (uint8_t number = 0; number < 8; ++number) mCalls->deliver(kNode, jpeg(number));
    });
    std::thread other([&] {
      if (round % 3 == 0) mCamera->stop(0);
    });
    if (round % 4 != 0) std::this_thread::yield();
    mCamera->stop(0);
    isAllowed = false;
    driver.join();
    other.join();
    EXPECT_FALSE(mCalls->isStreaming(kNode));
  }
}

/// What a host asks of a camera on its main thread does not wait for a camera that is slow to start.
TEST_F(LinuxCameraStream, AnswersForPropertiesAndFormatsWhileItIsBeingStarted) {
  mCalls->controlsOf(kNode).controls = {{V4L2_CID_BRIGHTNESS, -64, 64, 5}};
  const auto camera = EncodedCamera::wrap(std::move(mCamera), "Test Camera");
  for (const unsigned long request : {VIDIOC_S_FMT, VIDIOC_STREAMON, VIDIOC_STREAMOFF}) {
    mCalls->holdNext(kNode, request);
    std::thread starter([&] {
      EXPECT_EQ(camera->start(0, receiver()), kVCISuccess);
      EXPECT_EQ(camera->stop(0), kVCISuccess);
    });
    mCalls->waitForHeld();
    Bytes value(2);
    uint32_t size = 2;
    EXPECT_EQ(camera->getProperty(kRequestCurrent, kImageControlSet, kBrightness, value, size), kVCISuccess);
    EXPECT_EQ(camera->setProperty(kImageControlSet, kBrightness, Bytes({5, 0})), kVCISuccess);
    EXPECT_EQ(camera->propertySets().size(), 1u);
    EXPECT_EQ(camera->propertyItems(kImageControlSet).size(), 1u);
    EXPECT_EQ(camera->videoFormats().size(), 3u);
    mCalls->letGo();
    starter.join();
  }
}

/// For the thread sanitizer: everything at once, by a camera's own pictures and by encoded ones.
TEST_F(LinuxCameraStream, MayBeAskedForAnythingWhileItStartsAndStops) {
  mCamera.reset();
  mCalls->addNode(kNode, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}, {V4L2_PIX_FMT_UYVY, {{64, 48}}}},
                          .controls = {.controls = {{V4L2_CID_BRIGHTNESS, -64, 64, 5}}}});
  const auto camera = EncodedCamera::wrap(openCamera(), "Test Camera");
  const auto ask = [&] {
    Bytes value(2);
    uint32_t size = 2;
    EXPECT_EQ(camera->getProperty(kRequestCurrent, kImageControlSet, kBrightness, value, size), kVCISuccess);
    EXPECT_EQ(camera->setProperty(kImageControlSet, kBrightness, value), kVCISuccess);
    EXPECT_EQ(camera->propertyItems(kImageControlSet).size(), 1u);
    EXPECT_GE(camera->videoFormats().size(), 2u);
    EXPECT_EQ(camera->setVideoParameters(kRaw), kVCISuccess);
    mCalls->deliver(kNode, jpeg(1));
  };
  const test::Meanwhile askers(ask, 2);
  for (int round = 0; round < 50; ++round) {
    camera->setVideoParameters(round % 2 == 0 ? kJPEG : VideoParameters{kCMVideoCodecType_H264, 64, 48, 1, 30, 0});
    EXPECT_EQ(camera->start(0, receiver()), kVCISuccess);
    mCalls->deliver(kNode, jpeg(2));
    EXPECT_EQ(camera->stop(0), kVCISuccess);
  }
}

}  // namespace
}  // namespace vesk::capture
