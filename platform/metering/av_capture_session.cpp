#include "platform/metering/av_capture_session.h"

#include <utility>

namespace vesk {

AVCaptureSession::~AVCaptureSession() {
  stopRunning();
}

void AVCaptureSession::addOutput(std::shared_ptr<AVCaptureAudioPreviewOutput> output) {
  const MutexLock lock(mMutex);
  mOutput = std::move(output);
  apply();
}

void AVCaptureSession::addInput(std::shared_ptr<AVCaptureDeviceInput> input) {
  const MutexLock lock(mMutex);
  mInput = std::move(input);
  apply();
}

void AVCaptureSession::removeInput(const std::shared_ptr<AVCaptureDeviceInput>& input) {
  const MutexLock lock(mMutex);
  if (mInput != input) return;
  mInput.reset();
  apply();
}

std::vector<std::shared_ptr<AVCaptureDeviceInput>> AVCaptureSession::inputs() const {
  const MutexLock lock(mMutex);
  if (!mInput) return {};
  return {mInput};
}

void AVCaptureSession::beginConfiguration() {
  const MutexLock lock(mMutex);
  ++mConfigurations;
}

void AVCaptureSession::commitConfiguration() {
  const MutexLock lock(mMutex);
  if (mConfigurations > 0) --mConfigurations;
  apply();
}

void AVCaptureSession::startRunning() {
  const MutexLock lock(mMutex);
  mIsRunning = true;
  apply();
}

void AVCaptureSession::stopRunning() {
  const MutexLock lock(mMutex);
  mIsRunning = false;
  if (std::exchange(mIsFlowing, false)) mConnectedInput->tap().stop();
}

/// Makes what flows what has been configured.
void AVCaptureSession::apply() {
  if (mConfigurations > 0) return;
  if (mConnectedInput != mInput || mConnectedOutput != mOutput) {
    disconnect();
    mConnectedInput = mInput;
    mConnectedOutput = mOutput;
    if (mConnectedInput && mConnectedOutput) {
      const AudioTap& tap = mConnectedInput->tap();
      auto meter = std::make_shared<PowerMeter>(tap.channels(), tap.samplesPerSecond());
      mConnectedOutput->setConnection(std::make_shared<AVCaptureConnection>(std::move(meter)));
    }
  }
  if (!mIsRunning || mIsFlowing || !mConnectedInput || !mConnectedOutput) return;
  mIsFlowing = mConnectedInput->tap().start(
      [connection = mConnectedOutput->connections().front()](std::span<const int16_t> samples) {
        connection->meter().add(samples, PowerMeter::Clock::now());
      });
}

void AVCaptureSession::disconnect() {
  if (std::exchange(mIsFlowing, false)) mConnectedInput->tap().stop();
  if (mConnectedOutput) mConnectedOutput->setConnection(nullptr);
}

}  // namespace vesk
