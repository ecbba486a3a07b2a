#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "platform/foundation/mutex.h"
#include "platform/metering/av_capture_audio_preview_output.h"
#include "platform/metering/av_capture_device_input.h"

namespace vesk {

/// Carries sound from one input to one output. It may run without either, or with an input that
/// refuses to start; its output then has no connection, or one that reads silence.
///
/// Threads: every operation from any thread. The lock is held while the input starts and stops; no
/// callback of ours takes it.
class AVCaptureSession {
 public:
  AVCaptureSession() = default;
  ~AVCaptureSession();
  AVCaptureSession(const AVCaptureSession&) = delete;
  AVCaptureSession& operator=(const AVCaptureSession&) = delete;

  /// A further output or input takes the place of the one before.
  void addOutput(std::shared_ptr<AVCaptureAudioPreviewOutput> output) VESK_EXCLUDES(mMutex);
  void addInput(std::shared_ptr<AVCaptureDeviceInput> input) VESK_EXCLUDES(mMutex);
  /// Nothing when it is not the session's input.
  void removeInput(const std::shared_ptr<AVCaptureDeviceInput>& input) VESK_EXCLUDES(mMutex);
  std::vector<std::shared_ptr<AVCaptureDeviceInput>> inputs() const VESK_EXCLUDES(mMutex);

  /// Between these two, which may be nested, changes wait; the last commit makes them at once.
  void beginConfiguration() VESK_EXCLUDES(mMutex);
  void commitConfiguration() VESK_EXCLUDES(mMutex);

  void startRunning() VESK_EXCLUDES(mMutex);
  /// Once it has returned no more sound comes in.
  void stopRunning() VESK_EXCLUDES(mMutex);
  bool isRunning() const { return mIsRunning; }
  /// Whether sound comes from the input: not where the microphone refuses.
  bool isFlowing() const VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return mIsFlowing;
  }

 private:
  void apply() VESK_REQUIRES(mMutex);
  void disconnect() VESK_REQUIRES(mMutex);

  mutable Mutex mMutex;
  int mConfigurations VESK_GUARDED_BY(mMutex) = 0;
  std::shared_ptr<AVCaptureAudioPreviewOutput> mOutput VESK_GUARDED_BY(mMutex);
  std::shared_ptr<AVCaptureDeviceInput> mInput VESK_GUARDED_BY(mMutex);
  // What flows now.
  std::shared_ptr<AVCaptureAudioPreviewOutput> mConnectedOutput VESK_GUARDED_BY(mMutex);
  std::shared_ptr<AVCaptureDeviceInput> mConnectedInput VESK_GUARDED_BY(mMutex);
  bool mIsFlowing VESK_GUARDED_BY(mMutex) = false;
  std::atomic<bool> mIsRunning{false};  // written under mMutex
};

}  // namespace vesk
