#pragma once

#include <memory>
#include <string>

#include <vesk/audio_device.h>
#include <vesk/device_info.h>
#include <vesk/error.h>
#include <vesk/recording_supervisor.h>
#include <vesk/video_device.h>
#include "sessions/movie_recording.h"

namespace vesk {

/// The camera and the microphone of a recording: those that the host gave, else those that are found; for the movies
/// after the first one, the same ones again.
///
/// Threads: the main thread. Functions of the host's are called on the way, in which it may let go of the recording:
/// then what is open closes, and nothing more is opened.
class RecordingDevices {
 public:
  /// @param isAbandoned turns true when the host lets go
  RecordingDevices(const RecordingSettings& settings, const bool& isAbandoned)
      : mSettings(settings), mIsAbandoned(isAbandoned) {}

  /// Begins anew, with what the settings hold now.
  void reset();

  /// Opens the camera, and sets a format unless the host has. `isThere` is false, without an error, while it is not.
  DeviceError openCamera(bool& isThere);
  /// The same for the microphone of that camera. `missing` is set, instead of an error, where one is meant that is not
  /// there; no microphone at all is fine.
  DeviceError openMicrophone(Error& missing);
  /// Whether the microphone has come that is to be opened with the camera.
  bool isMicrophoneThere() const;
  /// Whether the host has given a microphone that was not opened yet.
  bool hasGivenMicrophone() const { return mGivenMicrophone != nullptr; }

  /// Null while they are closed.
  const std::shared_ptr<VeskVideoDevice>& camera() const { return mCamera; }
  const std::shared_ptr<VeskAudioDevice>& microphone() const { return mMicrophone; }
  bool isCamera(const VeskDeviceInfo& info) const { return mCamera && mCamera->deviceInfo()->isEqualToDevice(info); }
  bool isMicrophone(const VeskDeviceInfo& info) const {
    return mMicrophone && mMicrophone->deviceInfo()->isEqualToDevice(info);
  }
  /// What a movie in `file` is made of.
  MoviePlan planFor(std::string file, bool replacesFile) const;

  /// From now on these devices are meant, and no others.
  void keepToThese();
  /// Closes those that the host has not given: afterwards no thread of the source calls back.
  void close();

 private:
  std::shared_ptr<VeskDeviceInfo> findCamera() const;
  std::shared_ptr<VeskDeviceInfo> findMicrophone() const;
  bool isMicrophoneMeant() const;

  const RecordingSettings& mSettings;
  const bool& mIsAbandoned;
  std::shared_ptr<VeskVideoDevice> mGivenCamera;  ///< until it is opened
  std::shared_ptr<VeskAudioDevice> mGivenMicrophone;
  std::string mCameraPath;  ///< of the one that is kept to
  std::string mMicrophonePath;
  std::shared_ptr<VeskVideoDevice> mCamera;
  std::shared_ptr<VeskAudioDevice> mMicrophone;
  CMVideoFormatDescriptionRef mVideoFormat;
  CMAudioFormatDescriptionRef mSoundFormat;
  bool mIsCameraOurs = false;
  bool mIsMicrophoneOurs = false;
};

}  // namespace vesk
