#pragma once

#include <memory>

#include "sessions/movie_recording.h"

namespace vesk {

/// A microphone that was unplugged during a recording and is back: its sound goes on in the same movie, after silence
/// for as long as it was away. Main thread only.
class ReturnedMicrophone {
 public:
  /// Opens it anew, and sets it to the format of the movie. The recording's own device is closed.
  /// @return null, and why, when it cannot be had in that format
  static std::unique_ptr<ReturnedMicrophone> open(const std::shared_ptr<VeskDeviceInfo>& info, const MoviePlan& plan,
                                                  const MovieRecording& movie, Error& error);
  ~ReturnedMicrophone();
  ReturnedMicrophone(const ReturnedMicrophone&) = delete;
  ReturnedMicrophone& operator=(const ReturnedMicrophone&) = delete;

  const std::shared_ptr<VeskAudioDevice>& microphone() const { return mMicrophone; }

 private:
  ReturnedMicrophone(std::shared_ptr<VeskAudioDevice> microphone, const MovieRecording& movie);

  const std::shared_ptr<VeskAudioDevice> mMicrophone;
  const std::shared_ptr<VeskRecordSession> mSession;
  const std::shared_ptr<SoundWatch> mSoundWatch;
};

}  // namespace vesk
