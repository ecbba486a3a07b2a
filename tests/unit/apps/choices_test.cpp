#include "apps/vesk/choices.h"

#include <functional>
#include <string>

#include <vesk/four_char_code.h>
#include "tests/support/device_test.h"

namespace vesk::program {
namespace {

/// What a choice that fails says, "STATUS: words hint"; empty when it does not fail.
std::string failureOf(const std::function<void()>& choose) {
  try {
    choose();
  } catch (const Failure& failure) {
    return std::to_string(failure.status) + ": " + failure.what() + " " + failure.hint;
  }
  return {};
}

struct ChoicesTest : test::DeviceTest {
  std::shared_ptr<test::FakeDevice> front = source->attachCamera("/front");
  std::shared_ptr<test::FakeDevice> back = source->attachCamera("/back");
  std::shared_ptr<test::FakeDevice> microphone = source->attachMicrophone("/mic");
};

TEST_F(ChoicesTest, DevicesAreNamedInManyWays) {
  struct Row {
    const char* text;
    const char* path;
  };
  for (const Row& row : {Row{"", "/front"}, Row{"0", "/front"}, Row{"1", "/back"}, Row{"/back", "/back"},
                         Row{"BACK", "/back"}, Row{"era /f", "/front"}})
    EXPECT_EQ(findCamera(row.text)->path(), row.path) << row.text;
  source->attachCamera("/back/side");  // its name holds the other's
  source->announce(capture::DeviceKind::kVideo, true);
  EXPECT_EQ(findCamera("camera /back")->path(), "/back");
  EXPECT_EQ(findMicrophone("micro")->path(), "/mic");
  EXPECT_EQ(chooseMicrophoneFor(nullptr, "")->deviceInfo()->path(), "/mic");
}

TEST_F(ChoicesTest, WhatFitsNoneOrMoreThanOneIsRefused) {
  EXPECT_NE(failureOf([] { findCamera("camera"); }).find("3: \"camera\" fits more than one camera"), std::string::npos);
  EXPECT_NE(failureOf([] { findCamera("2"); }).find("3: no camera is called \"2\""), std::string::npos);
  EXPECT_THROW(findCamera("none"), DeviceMissing) << "it may come";
  EXPECT_NE(failureOf([] { findCamera("/dev/nothing"); }).find("3: "), std::string::npos);
  source->detach("/mic");
  source->announce(capture::DeviceKind::kAudio, false);
  EXPECT_THROW(findMicrophone(""), DeviceMissing);
  EXPECT_EQ(chooseMicrophoneFor(nullptr, ""), nullptr) << "there need be none";
}

TEST_F(ChoicesTest, FormatsAreSetAsTheyAreWritten) {
  const auto camera = chooseCamera("0");
  openDevice(*camera);
  struct Row {
    const char* text;
    uint32_t codec;
    int width;
    std::optional<uint32_t> interval;
  };
  for (const Row& row :
       {Row{"", kCMVideoCodecType_H264, 1280, 333333}, Row{"raw", kCMPixelFormat_422YpCbCr8, 320, 333333},
        Row{"h264:640x480@15", kCMVideoCodecType_H264, 640, 666666},
        Row{"720p", kCMVideoCodecType_H264, 1280, 333333}}) {
    setVideoFormat(*camera, row.text);
    EXPECT_EQ(camera->getFormat()->mediaSubType(), row.codec) << row.text;
    EXPECT_EQ(camera->getFormat()->dimensions().width, row.width) << row.text;
    EXPECT_EQ(camera->captureInterval(), row.interval) << row.text;
  }
  struct Refusal {
    const char* text;
    const char* words;
  };
  for (const Refusal& row :
       {Refusal{"mp3", "2: \"mp3\" is not a picture format."}, Refusal{"mjpeg", "2: mjpeg cannot be recorded."},
        Refusal{"4k", "1: \"Camera /front\" does not offer 4k."},
        Refusal{"640x480@60",
                "2: \"Camera /front\" does not offer 640x480@60: its rates are 30 and "
                "15 pictures a second."}})
    EXPECT_EQ(failureOf([&] { setVideoFormat(*camera, row.text); }).substr(0, std::string(row.words).size()),
              row.words);
  EXPECT_EQ(camera->getFormat()->dimensions().width, 1280) << "as it was";
}

TEST_F(ChoicesTest, SoundFormatsToo) {
  const auto chosen = chooseMicrophone("");
  openDevice(*chosen);
  struct Row {
    const char* text;
    uint32_t formatID;
  };
  for (const Row& row : {Row{"", 0x636D}, Row{"aac", 0x6320}, Row{"PCM:48000", 0x636D}, Row{"pcm:48000:2", 0x636D}}) {
    setSoundFormat(*chosen, row.text);
    EXPECT_EQ(chosen->getFormat()->streamBasicDescription().mFormatID, row.formatID) << row.text;
  }
  for (const char* text : {"mp3", "pcm:x", "pcm:48000:2:1", ":"})
    EXPECT_EQ(failureOf([&] { setSoundFormat(*chosen, text); }).substr(0, 3), "2: ") << text;
  EXPECT_EQ(failureOf([&] { setSoundFormat(*chosen, "pcm:8000"); }).substr(0, 3), "1: ");
}

TEST_F(ChoicesTest, ADeviceThatDoesNotOpenSaysWhy) {
  front->refusesToOpen = true;
  const std::string words = failureOf([] { openDevice(*chooseCamera("0")); });
  EXPECT_EQ(words.substr(0, 3), "4: ");
  EXPECT_NE(words.find("Camera /front"), std::string::npos);
}

}  // namespace
}  // namespace vesk::program
