#include <vesk/video_device.h>

#include <vesk/four_char_code.h>
#include "tests/support/device_test.h"

namespace vesk {
namespace {

using test::Receiver;

struct VideoDeviceTest : test::DeviceTest {
  std::shared_ptr<test::FakeDevice> fake = source->attachCamera("/cam");
  std::shared_ptr<VeskVideoDevice> camera = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));

  CMVideoFormatDescriptionRef format(const char (&code)[5], int32_t width, int32_t height) {
    return CMVideoFormatDescription::create(fourCharCode(code), width, height);
  }
  void openWith(CMVideoFormatDescriptionRef chosen) {
    ASSERT_EQ(camera->openDevice(), 0);
    camera->setFormat(std::move(chosen));
  }
};

TEST_F(VideoDeviceTest, OpensOnceAndClosesForGood) {
  EXPECT_FALSE(camera->isOpen());
  EXPECT_EQ(camera->openDevice(), 0);
  EXPECT_EQ(camera->openDevice(), 0);
  EXPECT_TRUE(camera->isOpen());
  EXPECT_EQ(fake->opened, 1);
  camera->closeDevice();
  camera->closeDevice();
  EXPECT_FALSE(camera->isOpen());
  EXPECT_EQ(fake->closed, 1);
}

TEST_F(VideoDeviceTest, RefusesPathsThatCannotBeOpened) {
  const std::string longest(1023, 'p');
  source->attachCamera(longest);
  const struct {
    const char* label;
    std::optional<std::string> path;
    int32_t status;
  } rows[] = {{"as long as a record holds", longest, 0},
              {"one unit longer", longest + "p", 7},
              {"nothing there", "/elsewhere", 7},
              {"no path", std::nullopt, 7},
              {"not UTF-8", "/cam\xFF", 7}};
  for (const auto& row : rows) {
    auto info = std::make_shared<VeskDeviceInfo>();
    info->setPath(row.path);
    const auto device = VeskVideoDevice::initWithDeviceInfo(info);
    EXPECT_EQ(device->openDevice(), row.status) << row.label;
    EXPECT_EQ(device->isOpen(), row.status == 0) << row.label;
  }
}

TEST_F(VideoDeviceTest, ListsFormatsInTheLibrarysOrder) {
  EXPECT_EQ(camera->getMediaFormats(), std::nullopt);
  camera->openDevice();
  EXPECT_EQ(camera->getMediaFormats(), (std::vector<std::string>{"avc1", "2vuy"}));
  std::string all;
  const auto list = camera->getSupportedFormats();
  for (const auto& each : *list)
    all += fourCharString(each->mediaSubType()) + ":" + std::to_string(each->dimensions().width) + "x" +
           std::to_string(each->dimensions().height) + " ";
  EXPECT_EQ(all, "avc1:640x480 avc1:1280x720 2vuy:320x240 ");
  EXPECT_TRUE(camera->getResolutionsForCodec(fourCharCode("dmb1")).empty());

  const auto formats = *camera->getSupportedFormats();
  EXPECT_EQ(VeskVideoDevice::copyFormatsForCodec(fourCharCode("avc1"), formats)->size(), 2U);
  EXPECT_EQ(VeskVideoDevice::copyFormatsForCodec(fourCharCode("dmb1"), formats)->size(), 0U);
  EXPECT_EQ(VeskVideoDevice::copyFormatsForCodec(fourCharCode("avc1"), {}), std::nullopt);
}

TEST_F(VideoDeviceTest, SkipsSizesThatNoPictureHas) {
  fake->videoFormats = {{fourCharCode("avc1"), {{0, 480, {}}, {640, -1, {}}, {640, 480, {}}}}};
  camera->openDevice();
  EXPECT_EQ(camera->getSupportedFormats()->size(), 1U);
}

TEST_F(VideoDeviceTest, AsksForFormatsOnceEvenWhenTooEarly) {
  EXPECT_TRUE(camera->getSupportedFormats()->empty());
  camera->openDevice();
  EXPECT_TRUE(camera->getSupportedFormats()->empty());

  const auto other = VeskVideoDevice::initWithDeviceInfo(infoOf("/cam"));
  other->openDevice();
  const auto first = other->getSupportedFormats();
  const int asked = fake->formatsAsked;
  EXPECT_EQ(other->getSupportedFormats(), first);
  EXPECT_EQ(fake->formatsAsked, asked);
}

TEST_F(VideoDeviceTest, ListsFrameIntervalsOfOneFormat) {
  camera->openDevice();
  EXPECT_EQ(camera->getSupportedFrameIntervals(format("avc1", 640, 480)), (std::vector<uint32_t>{333333, 666666}));
  EXPECT_TRUE(camera->getSupportedFrameIntervals(format("avc1", 1, 1)).empty());
  EXPECT_TRUE(camera->getSupportedFrameIntervals(nullptr).empty());
  EXPECT_EQ(camera->getSupportedFrameIntervals(), std::nullopt);
}

TEST_F(VideoDeviceTest, StartsInTheChosenFormat) {
  for (const auto& [chosen, substream] :
       {std::pair(format("avc1", 1280, 720), 1U), std::pair(format("2vuy", 320, 240), 0U)}) {
    openWith(chosen);
    ASSERT_EQ(camera->startCapture(), 0);
    EXPECT_TRUE(camera->isCapturing());
    EXPECT_EQ(fake->videoParameters.back().codec, chosen->mediaSubType());
    EXPECT_EQ(fake->videoParameters.back().width, chosen->dimensions().width);
    EXPECT_EQ(fake->videoParameters.back().intervalNumerator, 333333U);
    EXPECT_EQ(fake->substreams.back(), substream);
    camera->closeDevice();
    EXPECT_FALSE(fake->isCapturing());
  }
}

TEST_F(VideoDeviceTest, AsksForTheRateThatTheHostChose) {
  struct Row {
    const char* label;
    std::optional<uint32_t> chosen;
    uint32_t asked;
  };
  openWith(format("avc1", 640, 480));
  camera->setFrameInterval(200000);
  for (const Row& row : {Row{"nobody chose", std::nullopt, 333333}, Row{"60 a second", 166667, 166667},
                         Row{"as it is", 1, 1}, Row{"no interval", 0, 333333}}) {
    camera->setCaptureInterval(row.chosen);
    ASSERT_EQ(camera->startCapture(), 0);
    EXPECT_EQ(camera->stopCapture(), 0);
    EXPECT_EQ(fake->videoParameters.back().intervalNumerator, row.asked) << row.label;
    EXPECT_EQ(fake->videoParameters.back().intervalDenominator, 10000000U) << row.label;
  }
  // It stays chosen.
  camera->setCaptureInterval(166667);
  camera->closeDevice();
  openWith(format("2vuy", 320, 240));
  ASSERT_EQ(camera->startCapture(), 0);
  EXPECT_EQ(fake->videoParameters.back().intervalNumerator, 166667U);
  EXPECT_EQ(camera->captureInterval(), 166667U);
}

TEST_F(VideoDeviceTest, AnswersByState) {
  EXPECT_EQ(camera->stopCapture(), 0) << "closed and idle";
  camera->setFormat(format("avc1", 640, 480));
  EXPECT_EQ(camera->startCapture(), 3);
  EXPECT_EQ(camera->setCaptureFormat(camera->getFormat()), 3);
  camera->openDevice();
  camera->setFormat(nullptr);
  EXPECT_EQ(camera->startCapture(), 2);
  EXPECT_EQ(camera->setCaptureFormat(nullptr), 2);
  camera->setFormat(format("avc1", 640, 480));
  EXPECT_EQ(camera->startCapture(), 0);
  EXPECT_EQ(camera->startCapture(), 0);
  EXPECT_EQ(fake->started, 1) << "capturing already";
  EXPECT_EQ(camera->stopCapture(), 0);
  EXPECT_EQ(camera->stopCapture(), 0);
  EXPECT_EQ(fake->stopped, 1);
}

TEST_F(VideoDeviceTest, CapturesEvenWhenTheParametersAreRefused) {
  openWith(format("avc1", 640, 480));
  fake->parametersStatus = 1;
  EXPECT_EQ(camera->setCaptureFormat(camera->getFormat()), 2);
  EXPECT_EQ(camera->startCapture(), 0);
}

TEST_F(VideoDeviceTest, ReportsRefusedStartsAndStopsAndClosesAllTheSame) {
  openWith(format("avc1", 640, 480));
  for (const auto& [library, status] : {std::pair(19, 6), std::pair(1, 7), std::pair(14, 7)}) {
    fake->startStatus = library;
    EXPECT_EQ(camera->startCapture(), status) << library;
    EXPECT_FALSE(camera->isCapturing());
  }
  fake->startStatus = 0;
  EXPECT_EQ(camera->startCapture(), 0);
  fake->stopStatus = 1;
  EXPECT_EQ(camera->stopCapture(), 7);
  EXPECT_TRUE(camera->isCapturing());
  fake->stopStatus = 0;
  EXPECT_EQ(camera->stopCapture(), 0);
  EXPECT_FALSE(camera->isCapturing());

  EXPECT_EQ(camera->startCapture(), 0);
  fake->stopStatus = 1;
  camera->closeDevice();
  EXPECT_FALSE(camera->isOpen());
  EXPECT_EQ(fake->closed, 1);
  EXPECT_TRUE(camera->isCapturing()) << "the stop failed";
  EXPECT_EQ(camera->stopCapture(), 3);
  fake->stopStatus = 0;
  camera->openDevice();
  EXPECT_FALSE(camera->isCapturing());
  EXPECT_EQ(camera->startCapture(), 0);
  EXPECT_EQ(fake->started, 6);
}

TEST_F(VideoDeviceTest, HandsFramesOnAsTheyAre) {
  openWith(format("avc1", 640, 480));
  const auto receiver = std::make_shared<Receiver>();
  camera->addDelegate(receiver);
  camera->startCapture();
  uint8_t frame[5] = {};
  fake->deliver(frame, -42);
  ASSERT_EQ(receiver->frames.size(), 1U);
  EXPECT_EQ(receiver->frames[0].bytes, frame);
  EXPECT_EQ(receiver->frames[0].length, 5U);
  EXPECT_EQ(receiver->frames[0].timestamp, -42);
  EXPECT_EQ(receiver->frames[0].device, camera->deviceInfo());
  camera->stopCapture();
  fake->deliver(frame, 1);
  EXPECT_EQ(receiver->frames.size(), 1U);
}

TEST_F(VideoDeviceTest, KnowsABuiltInCameraByItsVendor) {
  EXPECT_FALSE(VeskVideoDevice::hasBuiltInCamera());
  VeskDeviceManager::destroy();
  source->attach({.kind = capture::DeviceKind::kVideo, .path = "/in", .name = "Lid", .vendorID = 1452});
  EXPECT_TRUE(VeskVideoDevice::hasBuiltInCamera());
  VeskDeviceManager::destroy();
  source->detach("/cam");
  source->detach("/in");
  EXPECT_FALSE(VeskVideoDevice::hasBuiltInCamera());
}

}  // namespace
}  // namespace vesk
