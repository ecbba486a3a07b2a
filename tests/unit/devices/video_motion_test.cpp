#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <vesk/dispatch_queue.h>
#include <vesk/video_device.h>
#include "tests/support/device_test.h"
#include "tests/support/log_recorder.h"

namespace vesk {
namespace {

using namespace std::chrono_literals;
using test::DeviceTest;
using test::FakeDevice;
using test::PropertyCall;
using Bytes = std::vector<uint8_t>;

constexpr capture::PropertySetIdentifier kInformation = {0x69, 0x67, 0x8E, 0xE4, 0x41, 0x0F, 0x40, 0xDB,
                                                         0xA8, 0x50, 0x74, 0x20, 0xD7, 0xD8, 0x24, 0x0E};
constexpr capture::PropertySetIdentifier kAlternate = {0x63, 0x61, 0x06, 0x82, 0x50, 0x70, 0x49, 0xAB,
                                                       0xB8, 0xCC, 0xB3, 0x85, 0x5E, 0x8D, 0x22, 0x1E};

/// A camera with a head, and the lines that are logged.
struct Motion : DeviceTest {
  Motion() {
    camera = source->attachCamera("/dev/head");
    camera->answerProperty = [this](const PropertyCall& call, std::span<uint8_t> value) {
      if (call.isWrite) {
        std::unique_lock lock(mutex);
        ++writes;
        changed.notify_all();
        changed.wait(lock, [this] { return !isMotorHeld; });
        return writeStatus.load();
      }
      const auto found = answers.find({call.set, call.number});
      if (found == answers.end()) return 14;
      std::copy_n(found->second.begin(), std::min(found->second.size(), value.size()), value.begin());
      return 0;
    };
    device = VeskVideoDevice::initWithDeviceInfo(infoOf("/dev/head"));
    EXPECT_EQ(device->openDevice(), 0);
  }
  ~Motion() override {
    device = nullptr;
    waitForRelease();
  }

  /// Keeps writes to the head from returning.
  void holdMotor() {
    const std::lock_guard lock(mutex);
    isMotorHeld = true;
  }
  void releaseMotor() {
    const std::lock_guard lock(mutex);
    isMotorHeld = false;
    changed.notify_all();
  }
  /// Waits until the device has gone, which may happen on its queue's thread.
  void waitForRelease() {
    for (size_t lines = 1; log.count("Dealloc") == 0; ++lines) log.waitFor(lines);
  }
  std::vector<std::string> logged() {
    auto lines = log.items();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("Dealloc"); });
    return lines;
  }
  /// The same as one text.
  std::string printed() {
    std::string text;
    for (const std::string& line : logged()) text += line + "\n";
    return text;
  }
  /// Checks that the writes so far are these values of relative pan and tilt, each with its stop.
  void expectMoves(const std::vector<std::string>& moves) const {
    const auto calls = camera->propertyCalls();
    ASSERT_EQ(calls.size(), moves.size() * 2);
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_TRUE(calls[i].isWrite);
      EXPECT_EQ(calls[i].set, capture::kCameraControlSet);
      EXPECT_EQ(calls[i].number, 14U);
      std::string value;
      for (const uint8_t byte : calls[i].value) value += std::to_string(byte) + " ";
      EXPECT_EQ(value, i % 2 == 0 ? moves[i / 2] : "0 0 0 0 ");
      if (i % 2 == 1) {
        EXPECT_GE(calls[i].time - calls[i - 1].time, 125ms);
      }
    }
  }

  test::LogRecorder log;
  std::mutex mutex;
  std::condition_variable changed;
  size_t writes = 0;
  bool isMotorHeld = false;
  std::atomic<int32_t> writeStatus = 0;  // read on the queue's thread too
  std::map<std::pair<capture::PropertySetIdentifier, uint32_t>, Bytes> answers;
  std::shared_ptr<FakeDevice> camera;
  std::shared_ptr<VeskVideoDevice> device;
};

TEST_F(Motion, NudgesRunOneAfterTheOtherEachWithItsStop) {
  holdMotor();
  for (int i = 0; i < 3; ++i) device->panRelativeLeft();
  releaseMotor();  // never reached by a caller who waits for the motor
  device->waitForNudges();
  expectMoves({"1 0 0 0 ", "1 0 0 0 ", "1 0 0 0 "});
  EXPECT_EQ(logged(), std::vector<std::string>(3, "panRelativeLeft -1"));
}

TEST_F(Motion, EachDirectionHasItsBytesAndItsLine) {
  device->panRelativeRight();
  device->tiltRelativeUp();
  device->tiltRelativeDown();
  writeStatus = 1;  // nobody looks at it
  device->waitForNudges();
  expectMoves({"255 0 0 0 ", "0 0 1 0 ", "0 0 255 0 "});
  EXPECT_EQ(logged(), (std::vector<std::string>{"panRelativeRight 1", "tiltRelativeUp -1", "tiltRelativeDown 1"}));
}

TEST_F(Motion, DroppingTheQueueLetsItsNudgesRunAndTheNextMakeANewOne) {
  holdMotor();
  device->panRelativeLeft();
  device->panRelativeLeft();
  EXPECT_EQ(device->relativePanTiltStop(5), 0);
  EXPECT_EQ(device->relativePanTiltStop(5), 0);
  releaseMotor();
  device->waitForNudges();
  expectMoves({"1 0 0 0 ", "1 0 0 0 "});
  device->tiltRelativeUp();
  device->waitForNudges();
  expectMoves({"1 0 0 0 ", "1 0 0 0 ", "0 0 1 0 "});
}

TEST_F(Motion, AReleasedDeviceFinishesItsNudgesAndGoes) {
  const std::weak_ptr<VeskVideoDevice> watched = device;
  device->panRelativeLeft();
  device->panRelativeRight();
  device = nullptr;
  EXPECT_FALSE(watched.expired());
  waitForRelease();
  EXPECT_EQ(camera->closed, 1);
  expectMoves({"1 0 0 0 ", "255 0 0 0 "});
  EXPECT_TRUE(watched.expired());
}

/// The ways in which a camera is taken from a head that turns.
TEST_F(Motion, ATurningHeadGetsItsStopAndThoseBehindItDoNotMove) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"by closing", [&] { device->closeDevice(); }},
      {"by stopping the manager", [] { VeskDeviceManager::destroy(); }},
  };
  size_t moves = 0;
  for (const auto& [label, end] : rows) {
    SCOPED_TRACE(label);
    for (int i = 0; i < 30; ++i) device->panRelativeLeft();
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return writes == 2 * moves + 1; });
    }
    end();
    ++moves;
    expectMoves(std::vector<std::string>(moves, "1 0 0 0 "));
    device->closeDevice();
    device->waitForNudges();
    expectMoves(std::vector<std::string>(moves, "1 0 0 0 "));
    device->openDevice();
  }
}

TEST_F(Motion, NudgesOfAClosedCameraDoNotWait) {
  device->closeDevice();
  for (int i = 0; i < 1000; ++i) device->tiltRelativeUp();
  device->waitForNudges();  // two minutes of turns, if it turned
  expectMoves({});
}

TEST_F(Motion, MayBeLetGoByWhatAResetServes) {
  bool wasServed = false;
  DispatchQueue::mainQueue()->async([&] {
    device.reset();
    wasServed = true;
  });
  writeStatus = 1;
  VeskVideoDevice& resetting = *device;
  EXPECT_EQ(resetting.resetPanTiltRel(), 1);
  EXPECT_TRUE(wasServed);
  EXPECT_EQ(camera->closed, 1);
}

TEST_F(Motion, ResettingTheHeadTriesSixTimesAndServesTheRunLoop) {
  writeStatus = 1;
  bool wasServed = false;
  DispatchQueue::mainQueue()->async([&] { wasServed = true; });
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(device->resetPanTiltRel(), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 600ms);
  EXPECT_TRUE(wasServed);
  EXPECT_EQ(logged(), std::vector<std::string>(6, "resetPanTiltRel Result 1"));
  ASSERT_EQ(camera->propertyCalls().size(), 6U);
  for (const PropertyCall& call : camera->propertyCalls()) {
    EXPECT_TRUE(call.isWrite && call.set == capture::kRelativeMotionSet && call.number == 2);
    EXPECT_EQ(call.value, Bytes{3});
  }

  writeStatus = 0;
  EXPECT_EQ(device->resetPanTiltRel(), 0);
  EXPECT_EQ(camera->propertyCalls().size(), 7U);
  EXPECT_EQ(logged().back(), "resetPanTiltRel Result 0");
}

TEST_F(Motion, RelativeMotionIsForHeadsWithoutPositions) {
  camera->propertyItems[capture::kRelativeMotionSet] = {2, 1, 7};
  EXPECT_TRUE(device->isPTZRelativeSupported());
  EXPECT_EQ(printed(), "item 0 = 2 \nitem 1 = 1 \n");

  answers[{capture::kCameraControlSet, 13}] = Bytes(8, 0);
  EXPECT_FALSE(device->isPTZRelativeSupported());
  EXPECT_FALSE(device->isNudgeSupported());
  camera->propertyItems[capture::kCameraControlSet] = {capture::kPanTilt, capture::kRelativePanTilt};
  EXPECT_TRUE(device->isNudgeSupported());
  answers.clear();
  camera->propertyItems[capture::kRelativeMotionSet] = {2};
  EXPECT_FALSE(device->isPTZRelativeSupported());
  camera->propertyItems.clear();
  EXPECT_FALSE(device->isPTZRelativeSupported());
  device->closeDevice();
  EXPECT_FALSE(device->isPTZRelativeSupported());
  EXPECT_EQ(printed(), "item 0 = 2 \nitem 1 = 1 \nitem 0 = 2 \n");
}

TEST_F(Motion, InformationComesFromTheSetThatHasIt) {
  for (const auto& set : {kInformation, kAlternate}) {
    answers = {
        {{set, 1}, {0x05, 0x02, 0x34, 0x12}}, {{set, 2}, {0xEF, 0xBE}}, {{set, 3}, {7, 9, 1, 1}}, {{set, 4}, {3, 4}}};
    EXPECT_EQ(device->getFirmwareVersion(), (VeskInformation{{"Major", 2}, {"Minor", 5}, {"BuildNo", 4660}}));
    EXPECT_EQ(device->getFirmwareCRCControl(), 0xBEEF);
    EXPECT_EQ(device->getEEPROMInfo(), (VeskInformation{{"Major", 7}, {"Minor", 9}}));
    EXPECT_EQ(device->getSensorInfo(), (VeskInformation{{"SensorTech", 3}, {"SensorType", 4}}));
  }
  // The first set is asked first, and the second only after it.
  std::vector<size_t> sizes;
  for (const PropertyCall& call : camera->propertyCalls()) sizes.push_back(call.value.size());
  EXPECT_EQ(sizes, (std::vector<size_t>{4, 2, 4, 2, 4, 4, 2, 2, 4, 4, 2, 2}));

  // What the first set filled before it failed stays: the value is cleared once.
  camera->answerProperty = [](const PropertyCall& call, std::span<uint8_t> value) {
    if (call.set == kInformation) value[0] = 7;
    if (call.set == kAlternate) value[1] = 9;
    return call.set == kAlternate ? 0 : 1;
  };
  EXPECT_EQ(device->getEEPROMInfo(), (VeskInformation{{"Major", 7}, {"Minor", 9}}));
  EXPECT_EQ(device->getFirmwareVersion(), (VeskInformation{{"Major", 9}, {"Minor", 7}, {"BuildNo", 0}}));

  camera->answerProperty = nullptr;
  EXPECT_EQ(device->getFirmwareVersion(), std::nullopt);
  EXPECT_EQ(device->getFirmwareCRCControl(), std::nullopt);
  EXPECT_EQ(device->getSensorInfo(), std::nullopt);
  EXPECT_EQ(device->getEEPROMInfo(), (VeskInformation{{"Major", 0}, {"Minor", 0}}));
}

}  // namespace
}  // namespace vesk
