#include <algorithm>
#include <chrono>
#include <limits>
#include <string>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include <vesk/timer.h>
#include "devices/delegate_list.h"
#include "platform/metering/av_capture_audio_preview_output.h"
#include "platform/metering/av_capture_device.h"
#include "platform/metering/av_capture_device_input.h"
#include "platform/metering/av_capture_session.h"

namespace vesk {
namespace {

constexpr std::chrono::microseconds kLevelInterval{30'000};

/// The first microphone of the platform that is this device; null when there is none.
std::shared_ptr<const AVCaptureDevice> microphoneOf(const VeskDeviceInfo& info) {
  const std::string path = info.path().value_or("");
  if (path.empty()) return nullptr;  // it would be part of every identifier
  for (auto& device : AVCaptureDevice::devicesWithMediaType(AVMediaType::AVMediaTypeAudio))
    if (device->uniqueID().find(path) != std::string::npos) return device;
  return nullptr;
}

float averageLevel(const AVCaptureConnection& connection) {
  const auto channels = connection.audioChannels();
  float sum = 0.0F;
  for (const AVCaptureAudioChannel& channel : channels) sum += channel.averagePowerLevel();
  return channels.empty() ? sum : sum / static_cast<float>(channels.size());
}

std::string namesOf(const std::vector<std::shared_ptr<AVCaptureDeviceInput>>& inputs) {
  std::string names;
  for (const auto& input : inputs) names += (names.empty() ? "" : ", ") + input->device().localizedName();
  return "(" + names + ")";
}

}  // namespace

int32_t VeskAudioDevice::startVUMeter() {
  if (mSession) return kVeskStatusSuccess;
  mSession = std::make_shared<AVCaptureSession>();
  mAudioPreviewOutput = std::make_shared<AVCaptureAudioPreviewOutput>();
  mAudioPreviewOutput->setVolume(0.0F);
  mSession->addOutput(mAudioPreviewOutput);
  setSelectedAudioDevice(microphoneOf(*mDeviceInfo));
  mSession->startRunning();

  mIsMetering = std::make_shared<std::atomic<bool>>(true);
  const auto weak = weak_from_this();
  mMicLevelTimer = NSTimer::scheduledTimer(kLevelInterval, true, [weak] {
    if (const auto self = weak.lock()) self->micLevelTimerFired();
  });
  NSLog(std::string("IsRunning ") + (mSession->isRunning() ? "YES" : "NO"));
  return kVeskStatusSuccess;
}

void VeskAudioDevice::setSelectedAudioDevice(const std::shared_ptr<const AVCaptureDevice>& device) {
  if (!mSession) return;
  mSession->beginConfiguration();
  if (mAudioDeviceInput) {
    mSession->removeInput(mAudioDeviceInput);
    mAudioDeviceInput.reset();
  }
  if (auto input = AVCaptureDeviceInput::deviceInputWithDevice(device)) {
    mSession->addInput(input);
    NSLog(namesOf(mSession->inputs()));
    mAudioDeviceInput = std::move(input);
  }
  mSession->commitConfiguration();
}

void VeskAudioDevice::micLevelTimerFired() {
  if (!mAudioPreviewOutput) return;
  const auto connections = mAudioPreviewOutput->connections();
  if (connections.empty()) return;
  mDelegates->queueMicLevel(averageLevel(*connections.front()), mIsMetering);
}

int32_t VeskAudioDevice::stopVUMeter() {
  if (!mSession) return kVeskStatusSuccess;
  const auto delegates = mDelegates;  // the host may let the device go when it gets the level
  endMeter();
  delegates->deliverMicLevel(-std::numeric_limits<float>::infinity());
  return kVeskStatusSuccess;
}

/// Ends what the meter has going, without a word to the delegates.
void VeskAudioDevice::endMeter() {
  if (!mSession) return;
  mMicLevelTimer->invalidate();
  mMicLevelTimer.reset();
  *mIsMetering = false;
  // The microphone may take its time to stop, which nobody need wait for.
  DispatchQueue::globalQueue()->async([session = std::exchange(mSession, nullptr)] {
    if (session->isRunning()) session->stopRunning();
  });
  mAudioPreviewOutput.reset();
  mAudioDeviceInput.reset();
}

}  // namespace vesk
