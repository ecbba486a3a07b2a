#pragma once

#include <memory>
#include <string>

#include "apps/vesk/choices.h"
#include "apps/vesk/movie_recording.h"

namespace vesk::program {

/// What a person asked to capture; texts as chooseCamera and its kin take them.
struct CaptureWish {
  std::string camera;
  std::string microphone;
  std::string format;
  std::string sound;
  bool noAudio = false;
  Purpose purpose = Purpose::kRecord;
};

/// Chooses and opens the camera, and sets its format. @throws Failure
void openCamera(RecordingPlan& plan, const CaptureWish& wish);
/// The same for the microphone, after the camera; none with noAudio or where there is none to choose.
/// @throws Failure
void openMicrophone(RecordingPlan& plan, const CaptureWish& wish);
/// Closes both, which ends what they capture: afterwards no thread of the source calls back.
void closeDevices(RecordingPlan& plan);

/// Whether the device at `path` is attached.
bool isCameraThere(const std::string& path);
bool isMicrophoneThere(const std::string& path);

/// A microphone that was unplugged during a recording and is back: its sound goes on in the same movie,
/// after silence for as long as it was away.
class ReturnedMicrophone {
 public:
  /// Opens it anew and sets it to the format of the movie.
  /// @throws Failure when it cannot be had in that format
  explicit ReturnedMicrophone(const MovieRecording& movie);
  ~ReturnedMicrophone();
  ReturnedMicrophone(const ReturnedMicrophone&) = delete;
  ReturnedMicrophone& operator=(const ReturnedMicrophone&) = delete;

 private:
  const std::shared_ptr<VeskRecordSession> mSession;
  const std::shared_ptr<SoundWatch> mSoundWatch;
  const std::shared_ptr<VeskAudioDevice> mMicrophone;
};

}  // namespace vesk::program
