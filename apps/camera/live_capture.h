#pragma once

#include <sigc++/sigc++.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/capture_choices.h>
#include <vesk/device_info.h>
#include <vesk/dispatch_queue.h>
#include <vesk/error.h>
#include <vesk/notification_center.h>
#include <vesk/preview_session.h>
#include <vesk/preview_session_delegate.h>
#include <vesk/preview_view.h>
#include <vesk/video_device.h>

namespace vesk::camera {

/// The camera that is shown live, and the microphone whose level is shown with it.
///
/// Devices are opened, started, stopped and closed on a queue of their own, since a camera may take its time: one
/// change at a time, then what is wanted is looked at again. Everything else is of the main thread. While a film is
/// recorded, nothing is changed here.
class LiveCapture : public VeskPreviewSessionDelegate, public std::enable_shared_from_this<LiveCapture> {
 public:
  /// Shows in `view`, which is held.
  static std::shared_ptr<LiveCapture> create(std::shared_ptr<VeskPreviewView> view);
  ~LiveCapture() override;
  /// Looks for devices, and from then on follows those that come and go.
  void start();
  /// Closes the devices and waits for that. Nothing is called afterwards.
  void close();

  /// Empty lists until start has found out.
  const VeskDeviceList& cameras() const { return mCameras; }
  const VeskDeviceList& microphones() const { return mMicrophones; }
  bool hasLooked() const { return mHasLooked; }

  /// By path; empty: the first one, and the microphone that is built into the camera.
  void chooseCamera(const std::string& path);
  void chooseMicrophone(const std::string& path);
  /// Whether there is to be sound at all.
  void setWithSound(bool withSound);
  bool isWithSound() const { return mIsWithSound; }
  /// What format a camera is to have is asked of `requestOf` at each start, on the queue of the devices. Before start.
  void setFormats(std::function<VideoFormatRequest(const VeskDeviceInfo& camera)> requestOf) {
    mRequestOf = std::move(requestOf);
  }
  /// Whether anybody looks: otherwise the camera is off.
  void setWanted(bool isWanted);
  /// Tries again what has failed, and starts anew what has stopped.
  void restart();

  /// The camera that is on, and the microphone that is open; null when there is none.
  const std::shared_ptr<VeskVideoDevice>& camera() const { return mCamera; }
  const std::shared_ptr<VeskAudioDevice>& microphone() const { return mMicrophone; }
  /// The one that is open, or will be; null without sound.
  std::shared_ptr<VeskDeviceInfo> wantedMicrophone() const;
  bool isMuted() const { return mIsMuted; }
  void setMuted(bool isMuted);
  /// Why there is no picture; none while all is well.
  const Error& error() const { return mError; }
  /// The camera is on and has sent no frame for seconds.
  bool isFrozen() const { return mIsFrozen; }
  /// The microphone has been silent for long.
  bool isSilent() const { return mIsSilent; }

  /// A recording begins or has ended.
  void setRecording(bool isRecording);
  /// Shows the camera that a recording has opened anew.
  void adopt(const std::shared_ptr<VeskVideoDevice>& camera);

  /// Writes the picture on show at `path`; `handler` is told later.
  void takePhoto(const std::string& path, std::function<void(const PhotoOutcome& photo)> handler);
  PreviewStatistics statistics() const;

  /// Lists, devices or one of the states above have changed.
  sigc::signal<void()>& signal_changed() { return mChanged; }
  /// Decibels, 0 at full scale.
  sigc::signal<void(float)>& signal_level() { return mLevel; }
  /// A device was unplugged.
  sigc::signal<void(std::shared_ptr<VeskDeviceInfo>)>& signal_removed() { return mRemoved; }

 private:
  using Clock = std::chrono::steady_clock;

  explicit LiveCapture(std::shared_ptr<VeskPreviewView> view);

  void audioGainChanged(float level) override;
  void deviceChanged(const std::shared_ptr<VeskDeviceInfo>& device, bool isThere);
  void readLists();
  void update();
  std::shared_ptr<VeskDeviceInfo> wantedCamera() const;
  void openCamera(const std::shared_ptr<VeskDeviceInfo>& info);
  void startCamera(const std::shared_ptr<VeskVideoDevice>& camera);
  void started(const std::shared_ptr<VeskVideoDevice>& camera, Error error);
  void closeCamera();
  void takeFromView();
  void makeSession(const std::shared_ptr<VeskVideoDevice>& camera);
  void show(const std::shared_ptr<VeskVideoDevice>& camera);
  void updateMicrophone();
  void openedMicrophone(const std::shared_ptr<VeskAudioDevice>& microphone, bool isMuted);
  void letMicrophoneGo();
  bool watch();

  template <class Work>
  static void onMainThread(std::weak_ptr<LiveCapture> capture, Work work);

  const std::shared_ptr<VeskPreviewView> mView;
  std::shared_ptr<DispatchQueue> mDevices;
  NSNotificationObserver mAdded;
  NSNotificationObserver mGone;
  sigc::connection mWatch;

  VeskDeviceList mCameras;
  VeskDeviceList mMicrophones;
  bool mHasLooked = false;
  std::string mCameraPath;
  std::string mMicrophonePath;
  std::function<VideoFormatRequest(const VeskDeviceInfo& camera)> mRequestOf;
  bool mIsWithSound = true;
  bool mIsWanted = true;

  std::shared_ptr<VeskVideoDevice> mCamera;
  std::shared_ptr<VeskAudioDevice> mMicrophone;
  std::shared_ptr<VeskPreviewSession> mSession;
  std::shared_ptr<VeskPreviewSession> mClosing;  ///< its camera is being stopped
  bool mIsBusy = false;                          ///< a camera is being opened or closed
  bool mIsSoundBusy = false;                     ///< a microphone is
  bool mMustReopen = false;
  bool mIsRecording = false;
  bool mIsAdopted = false;  ///< the recording has opened the camera, and closes it
  Error mError;
  Clock::time_point mRetry = Clock::time_point::max();

  bool mIsMicrophoneGone = false;  ///< unplugged; one that is back at its place is another
  bool mIsMuted = false;
  bool mIsFrozen = false;
  bool mIsSilent = false;
  uint64_t mFrames = 0;
  Clock::time_point mLastFrame;
  Clock::time_point mLastSound;

  sigc::signal<void()> mChanged;
  sigc::signal<void(float)> mLevel;
  sigc::signal<void(std::shared_ptr<VeskDeviceInfo>)> mRemoved;
};

}  // namespace vesk::camera
