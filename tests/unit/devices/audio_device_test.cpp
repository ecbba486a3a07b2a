#include <vesk/audio_device.h>

#include "tests/support/device_test.h"

namespace vesk {
namespace {

using test::Receiver;

struct AudioDeviceTest : test::DeviceTest {
  std::shared_ptr<test::FakeDevice> fake = source->attachMicrophone("/mic");
  std::shared_ptr<VeskAudioDevice> microphone = VeskAudioDevice::initWithDeviceInfo(infoOf("/mic"));

  void openWithFormat() {
    ASSERT_EQ(microphone->openDevice(), 0);
    microphone->setFormat(microphone->getSupportedFormats()->at(0));
  }
};

TEST_F(AudioDeviceTest, ListsFormatsOnceThereAreSome) {
  EXPECT_EQ(microphone->getSupportedFormats(), nullptr) << "closed";
  microphone->openDevice();
  const auto waveFormats = std::exchange(fake->waveFormats, {});
  EXPECT_EQ(microphone->getSupportedFormats(), nullptr) << "none on offer";
  fake->waveFormats = waveFormats;
  const auto formats = microphone->getSupportedFormats();
  ASSERT_NE(formats, nullptr);
  ASSERT_EQ(formats->size(), 2U);
  EXPECT_EQ(formats->at(0)->mediaSubType(), 0x636DU);
  EXPECT_EQ(formats->at(1)->streamBasicDescription().mSampleRate, 44100.0);

  const int asked = fake->formatsAsked;
  microphone->closeDevice();
  EXPECT_EQ(microphone->getSupportedFormats(), nullptr);
  microphone->openDevice();
  EXPECT_EQ(microphone->getSupportedFormats(), formats);
  EXPECT_EQ(fake->formatsAsked, asked) << "kept across closing";
}

TEST_F(AudioDeviceTest, CopiesTheChosenFormat) {
  openWithFormat();
  const auto offered = microphone->getSupportedFormats()->at(1);
  microphone->setFormat(offered);
  EXPECT_NE(microphone->getFormat(), offered);
  EXPECT_EQ(microphone->getFormat()->streamBasicDescription().mSampleRate, 44100.0);
  microphone->setFormat(microphone->getFormat());
  EXPECT_EQ(microphone->getFormat()->mediaSubType(), 0x6320U);
}

TEST_F(AudioDeviceTest, StartsInTheChosenFormatAndHandsPacketsOn) {
  openWithFormat();
  const auto receiver = std::make_shared<Receiver>();
  microphone->addDelegate(receiver);
  ASSERT_EQ(microphone->startCapture(), 0);
  EXPECT_EQ(fake->waveParameters, (std::vector<capture::WaveFormat>{{0x636D, 2, 48000, 16}}));
  uint8_t packet[6] = {};
  fake->deliver(packet, 0x123456789A);
  ASSERT_EQ(receiver->frames.size(), 1U);
  EXPECT_EQ(receiver->frames[0].bytes, packet);
  EXPECT_EQ(receiver->frames[0].length, 6U);
  EXPECT_EQ(receiver->frames[0].timestamp, 0x123456789A);
  EXPECT_EQ(receiver->frames[0].device, microphone->deviceInfo());
}

TEST_F(AudioDeviceTest, AnswersByState) {
  EXPECT_EQ(microphone->startCapture(), 3);
  EXPECT_EQ(microphone->stopCapture(), 3);
  microphone->openDevice();
  EXPECT_EQ(microphone->startCapture(), 2) << "no format";
  EXPECT_EQ(microphone->stopCapture(), 0);
  microphone->setFormat(microphone->getSupportedFormats()->at(0));
  EXPECT_EQ(microphone->startCapture(), 0);
  EXPECT_EQ(microphone->startCapture(), 0);
  EXPECT_EQ(fake->started, 1);
  EXPECT_EQ(microphone->stopCapture(), 0);
  EXPECT_FALSE(microphone->isCapturing());
  EXPECT_EQ(microphone->startCapture(), 0) << "again";
  microphone->setFormat(nullptr);
  EXPECT_EQ(microphone->getFormat(), nullptr);
}

TEST_F(AudioDeviceTest, ReportsRefusals) {
  openWithFormat();
  fake->parametersStatus = 1;
  EXPECT_EQ(microphone->startCapture(), 2);
  fake->parametersStatus = 0;
  for (const auto& [library, status] : {std::pair(19, 5), std::pair(1, 1), std::pair(14, 14)}) {
    fake->startStatus = library;
    EXPECT_EQ(microphone->startCapture(), status) << library;
    EXPECT_FALSE(microphone->isCapturing());
  }
  fake->startStatus = 0;
  ASSERT_EQ(microphone->startCapture(), 0);
  fake->stopStatus = 1;
  EXPECT_EQ(microphone->stopCapture(), 7);
  EXPECT_TRUE(microphone->isCapturing());
  microphone->closeDevice();
  EXPECT_EQ(fake->closed, 1);
  EXPECT_TRUE(microphone->isCapturing()) << "the stop failed";
  microphone->openDevice();
  EXPECT_EQ(microphone->startCapture(), 0);
  EXPECT_EQ(fake->started, 5) << "a new handle starts anew";
}

TEST_F(AudioDeviceTest, SetsMuteAndVolume) {
  EXPECT_FALSE(microphone->isMuteOn()) << "closed";
  EXPECT_EQ(microphone->getVolumeCur(), std::nullopt) << "closed";
  microphone->openDevice();
  microphone->setMute(true);
  EXPECT_TRUE(fake->mute);
  EXPECT_TRUE(microphone->isMuteOn());
  for (const auto& [set, heard] : {std::pair(255, 255U), std::pair(256, 0U), std::pair(-1, 255U), std::pair(7, 7U)}) {
    microphone->setVolumeCur(set);
    EXPECT_EQ(fake->volume, heard) << set;
    EXPECT_EQ(microphone->getVolumeCur(), static_cast<int32_t>(heard));
  }
  fake->volumeStatus = 1;
  EXPECT_EQ(microphone->getVolumeCur(), std::nullopt);
  EXPECT_FALSE(microphone->isAutoVolumeSet());
}

}  // namespace
}  // namespace vesk
