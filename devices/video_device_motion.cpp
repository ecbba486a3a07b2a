#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include <vesk/run_loop.h>
#include <vesk/vci.h>
#include <vesk/video_device.h>
#include "capture/interface/property_layouts.h"
#include "devices/enumeration.h"
#include "devices/property_record.h"
#include "devices/video_device_state.h"

// The motorised head, and what a camera says of itself.

namespace vesk {
namespace {

using namespace std::chrono_literals;

constexpr auto kNudgeTime = 125000us;
constexpr int kResetAttempts = 6;
constexpr auto kResetWait = 100ms;
constexpr uint32_t kRelativeMotionItem = 1;

/// Room for a property of an information set.
template <uint32_t number>
using InformationValue = std::array<uint8_t, capture::layoutOf(capture::kDeviceInformationSet, number).size()>;

using MotionValue =
    std::array<uint8_t, capture::layoutOf(capture::kCameraControlSet, capture::kRelativePanTilt).size()>;

/// The value of relative pan and tilt (UVC 1.1, 4.2.2.1.15): directions and speeds, in which 0 stops.
MotionValue motionValue(int8_t pan, int8_t tilt) {
  return {static_cast<uint8_t>(pan), 0, static_cast<uint8_t>(tilt), 0};
}

}  // namespace

void VeskVideoDevice::panRelativeLeft() {
  nudge(1, 0, "panRelativeLeft -1");
}
void VeskVideoDevice::panRelativeRight() {
  nudge(-1, 0, "panRelativeRight 1");
}
void VeskVideoDevice::tiltRelativeUp() {
  nudge(0, 1, "tiltRelativeUp -1");
}
void VeskVideoDevice::tiltRelativeDown() {
  nudge(0, -1, "tiltRelativeDown 1");
}

void VeskVideoDevice::nudge(int8_t pan, int8_t tilt, const char* line) {
  // Without a thread for the queue the head does not move.
  try {
    if (!mState->_localQueue) mState->_localQueue = DispatchQueue::createSerial("com.orv.pt");
  } catch (...) {
    return;
  }
  mState->nudgeGate.add();
  try {
    mState->_localQueue->async([self = shared_from_this(), pan, tilt, line] { self->performNudge(pan, tilt, line); });
  } catch (...) {
    mState->nudgeGate.remove();
  }
}

void VeskVideoDevice::performNudge(int8_t pan, int8_t tilt, const char* line) {
  struct Ending {
    NudgeGate& gate;
    ~Ending() { gate.remove(); }
  } const ending{mState->nudgeGate};  // whatever the log's sink does
  turnHead(pan, tilt);
  NSLog(line);
}

/// Turns the head for a moment, unless the camera is closed or about to be: then its stop would be lost.
void VeskVideoDevice::turnHead(int8_t pan, int8_t tilt) {
  const NudgeGate::Turn own(mState->nudgeGate);
  const NudgeGate::Turn ofAll(NudgeGate::ofAllCameras());
  if (!own || !ofAll || !mIsOpen) return;
  setProperty(capture::kCameraControlSet, capture::kRelativePanTilt, motionValue(pan, tilt));
  std::this_thread::sleep_for(kNudgeTime);
  setProperty(capture::kCameraControlSet, capture::kRelativePanTilt, motionValue(0, 0));
}

int16_t VeskVideoDevice::relativePanTiltStop(int32_t) {
  mState->stop = 1;
  // The queue goes with its last piece of work, on its own thread: nobody waits for the nudges.
  if (const auto queue = std::exchange(mState->_localQueue, nullptr)) queue->async([queue] {});
  return 0;
}

void VeskVideoDevice::waitForNudges() {
  mState->nudgeGate.waitUntilNone();
}

int32_t VeskVideoDevice::resetPanTiltRel() {
  const auto self = shared_from_this();  // what the run loop serves may let go of the host's last reference
  const uint8_t value = capture::kResetPanAndTilt;
  int32_t status = kVCIFailed;
  for (int attempt = 0; attempt < kResetAttempts && status != kVCISuccess; ++attempt) {
    status = setProperty(capture::kRelativeMotionSet, capture::kMotionReset, {&value, 1});
    NSLog("resetPanTiltRel Result " + std::to_string(status));
    NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + kResetWait);
  }
  return status;
}

bool VeskVideoDevice::isNudgeSupported() const {
  return isPTZRelativeSupported() || isPropertyItemSupported(capture::kCameraControlSet, capture::kRelativePanTilt);
}

bool VeskVideoDevice::isPTZRelativeSupported() const {
  if (getPanCur()) return false;  // driven by positions
  const VCIPropertySet record = propertySetRecord(capture::kRelativeMotionSet);
  uint32_t size = 0;
  uint32_t count = 0;
  if (VCI_Enum_Property_Items(mHandle, &record, nullptr, &size, &count) != kVCIMoreData) return false;

  // Never no array at all, which would ask for the count again.
  std::vector<uint32_t> items(std::clamp<size_t>(size / sizeof(uint32_t), 1, kMostRecords));
  count = std::min(count, static_cast<uint32_t>(items.size()));
  const int32_t status = VCI_Enum_Property_Items(mHandle, &record, items.data(), &size, &count);
  if (status != kVCISuccess) {
    printToOutput("\n VCI_Enum_Property_Items is failed with error %ld", long{status});
    return false;
  }
  for (uint32_t i = 0; i < count && i < items.size(); ++i) {
    printToOutput("item %d = %ld \n", static_cast<int>(i), static_cast<long>(items[i]));
    if (items[i] == kRelativeMotionItem) return true;
  }
  return false;
}

/// Reads information from the set that has it, into a value that is cleared.
bool VeskVideoDevice::readInformation(uint32_t number, std::span<uint8_t> value) const {
  for (const auto& set : {capture::kDeviceInformationSet, capture::kAlternateInformationSet})
    if (getProperty(ControlRequest::kCurrent, set, number, value) == kVCISuccess) return true;
  return false;
}

VeskInformation VeskVideoDevice::getEEPROMInfo() const {
  InformationValue<capture::kEEPROMInfo> value{};
  readInformation(capture::kEEPROMInfo, value);
  return {{"Major", value[0]}, {"Minor", value[1]}};
}

std::optional<VeskInformation> VeskVideoDevice::getSensorInfo() const {
  InformationValue<capture::kSensorInfo> value{};
  if (!readInformation(capture::kSensorInfo, value)) return std::nullopt;
  return VeskInformation{{"SensorTech", value[0]}, {"SensorType", value[1]}};
}

std::optional<VeskInformation> VeskVideoDevice::getFirmwareVersion() const {
  InformationValue<capture::kFirmwareVersion> value{};
  if (!readInformation(capture::kFirmwareVersion, value)) return std::nullopt;
  return VeskInformation{{"Major", value[1]}, {"Minor", value[0]}, {"BuildNo", value[2] | value[3] << 8}};
}

std::optional<int32_t> VeskVideoDevice::getFirmwareCRCControl() const {
  InformationValue<capture::kFirmwareCRCControl> value{};
  if (!readInformation(capture::kFirmwareCRCControl, value)) return std::nullopt;
  return value[0] | value[1] << 8;
}

}  // namespace vesk
