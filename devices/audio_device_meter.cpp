#include <algorithm>
#include <chrono>
#include <limits>
#include <string>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include "devices/audio_device_state.h"
#include "devices/delegate_list.h"
#include "platform/foundation/errors.h"
#include "platform/metering/av_capture_device.h"

namespace vesk {
namespace {

constexpr std::chrono::microseconds kLevelInterval{30'000};

/// The first microphone of the platform that is this device; null when there is none.
std::shared_ptr<const AVCaptureDevice> microphoneOf(const VeskDeviceInfo& info) {
  const std::string path = info.path().value_or("");
  if (path.empty()) return nullptr;  // it would be part of every identifier
  for (auto& device : AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio))
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
  if (mState->mSession) return kVeskStatusSuccess;
  mState->mSession = std::make_shared<AVCaptureSession>();
  mState->mAudioPreviewOutput = std::make_shared<AVCaptureAudioPreviewOutput>();
  mState->mAudioPreviewOutput->setVolume(0.0F);
  mState->mSession->addOutput(mState->mAudioPreviewOutput);
  Error why = listen();
  mState->mSession->startRunning();
  if (!why && !mState->mSession->isFlowing()) why = capture::lastError();
  logError(why);
  failed(kVeskStatusFailed, std::move(why));

  mState->isMetering = std::make_shared<std::atomic<bool>>(true);
  const auto weak = weak_from_this();
  mState->mMicLevelTimer = NSTimer::scheduledTimer(kLevelInterval, true, [weak] {
    if (const auto self = weak.lock()) self->micLevelTimerFired();
  });
  NSLog(std::string("IsRunning ") + (mState->mSession->isRunning() ? "YES" : "NO"));
  return kVeskStatusSuccess;
}

/// Makes the meter listen to the device itself. @return why it cannot
Error VeskAudioDevice::listen() {
  const auto microphone = microphoneOf(*mDeviceInfo);
  const Error notFound = capture::lastError();
  setSelectedAudioDevice(microphone);
  if (mState->mAudioDeviceInput) return {};
  if (microphone) return capture::lastError();
  return notFound ? notFound : Error{Cause::kUnplugged, inText() + " is not there any more", "Plug it in again."};
}

void VeskAudioDevice::setSelectedAudioDevice(const std::shared_ptr<const AVCaptureDevice>& device) {
  if (!mState->mSession) return;
  mState->mSession->beginConfiguration();
  if (mState->mAudioDeviceInput) {
    mState->mSession->removeInput(mState->mAudioDeviceInput);
    mState->mAudioDeviceInput.reset();
  }
  if (auto input = AVCaptureDeviceInput::deviceInputWithDevice(device)) {
    mState->mSession->addInput(input);
    NSLog(namesOf(mState->mSession->inputs()));
    mState->mAudioDeviceInput = std::move(input);
  }
  mState->mSession->commitConfiguration();
}

void VeskAudioDevice::micLevelTimerFired() {
  if (!mState->mAudioPreviewOutput) return;
  const auto connections = mState->mAudioPreviewOutput->connections();
  if (connections.empty()) return;
  mDelegates->queueMicLevel(averageLevel(*connections.front()), mState->isMetering);
}

int32_t VeskAudioDevice::stopVUMeter() {
  if (!mState->mSession) return kVeskStatusSuccess;
  const auto delegates = mDelegates;  // the host may let the device go when it gets the level
  endMeter();
  delegates->deliverMicLevel(-std::numeric_limits<float>::infinity());
  return kVeskStatusSuccess;
}

/// Ends what the meter has going, without a word to the delegates.
void VeskAudioDevice::endMeter() {
  if (!mState->mSession) return;
  mState->mMicLevelTimer->invalidate();
  mState->mMicLevelTimer.reset();
  *mState->isMetering = false;
  // The microphone may take its time to stop, which nobody need wait for.
  DispatchQueue::globalQueue()->async([session = std::exchange(mState->mSession, nullptr)] {
    if (session->isRunning()) session->stopRunning();
  });
  mState->mAudioPreviewOutput.reset();
  mState->mAudioDeviceInput.reset();
}

}  // namespace vesk
